#include "linux/AtspiCachedWalk.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <utility>

#include "linux/AtspiCalls.h"

namespace pavix {

AtspiCachedWalk::AtspiCachedWalk(const std::vector<AtspiCacheItem>& items,
                                 std::unordered_map<std::string, AtspiAccessible*> handles,
                                 AtspiBatch& batch, AtspiWalkBudget& budget)
    : handles_(std::move(handles)), batch_(batch), budget_(budget) {
    for (const auto& item : items) {
        byPath_.emplace(item.path, &item);
        if (item.parent != item.path) {  // the application's root names itself its parent
            byParent_[item.parent].push_back(&item);
        }
    }
    // GTK gives no index to the children a container holds besides its own (a scrolled
    // window's scroll bars): they follow the others, in the order they were made.
    auto order = [](const AtspiCacheItem* item) {
        const auto slash = item->path.rfind('/');
        const auto serial = std::strtoull(item->path.c_str() + slash + 1, nullptr, 10);
        return std::pair(item->index >= 0 ? item->index : INT_MAX, serial);
    };
    for (auto& [parent, children] : byParent_) {
        std::stable_sort(
            children.begin(), children.end(),
            [&](const AtspiCacheItem* a, const AtspiCacheItem* b) { return order(a) < order(b); });
    }
}

std::vector<const AtspiCacheItem*> AtspiCachedWalk::childrenOf(const AtspiCacheItem& item) const {
    auto found = byParent_.find(item.path);
    return found == byParent_.end() ? std::vector<const AtspiCacheItem*>{} : found->second;
}

AtspiAccessible* AtspiCachedWalk::handleOf(const std::string& path) const {
    auto found = handles_.find(path);
    return found == handles_.end() ? nullptr : found->second;
}

std::optional<AccessibleElement> AtspiCachedWalk::read(AtspiAccessible* frame) {
    auto found = byPath_.find(ATSPI_OBJECT(frame)->path);
    if (found == byPath_.end()) {
        return std::nullopt;
    }
    auto root = plan(*found->second, {});
    if (!batch_.wait(budget_.deadline)) {
        budget_.cut = true;
    }
    // The text of each field is asked once its length is known, all fields together again.
    askText(root);
    if (!batch_.wait(budget_.deadline)) {
        budget_.cut = true;
    }
    return assemble(root, frame);
}

AtspiCachedWalk::Visit AtspiCachedWalk::plan(const AtspiCacheItem& item,
                                             const AtspiElementRules::Place& place) {
    ++budget_.visited;
    Visit visit;
    visit.item = &item;
    visit.place = place;
    const auto& basics = item.basics;
    if (!AtspiElementRules::readable(basics, place)) {
        return visit;
    }
    auto& needs = visit.needs = AtspiElementRules::needs(basics, place);
    needs.actions = needs.actions && item.actionInterface;
    needs.text = needs.text && item.textInterface;
    needs.number = needs.number && item.valueInterface;
    if (needs.actions) {
        visit.actions = batch_.property(item.path, "org.a11y.atspi.Action", "NActions");
    }
    if (needs.frame) {
        visit.frame = batch_.extents(item.path);
    }
    if (needs.text) {
        visit.count = batch_.property(item.path, "org.a11y.atspi.Text", "CharacterCount");
    }
    if (needs.number) {
        visit.number = batch_.property(item.path, "org.a11y.atspi.Value", "CurrentValue");
    }
    if (!AtspiElementRules::walksChildren(basics)) {
        return visit;
    }
    const auto childPlace = AtspiElementRules::childPlace(basics, place);
    const auto children = childrenOf(item);
    // GTK leaves out of its cache the rows a tree view makes up on demand and counts no
    // children of a menu (-1): such children are read live.
    visit.listed = item.childCount >= 0 && static_cast<int>(children.size()) == item.childCount;
    if (!visit.listed) {
        return visit;  // read live once the batch is answered
    }
    for (const auto* child : children) {
        if (!budget_.admits(childPlace.depth)) {
            break;
        }
        visit.children.push_back(plan(*child, childPlace));
    }
    return visit;
}

void AtspiCachedWalk::askText(Visit& visit) {
    if (visit.count) {
        if (auto count = batch_.integer(*visit.count)) {
            const int end =
                static_cast<int>(std::clamp<long long>(*count, 0, AtspiElementRules::kTextLimit));
            visit.text = batch_.text(visit.item->path, end);
        }
    }
    for (auto& child : visit.children) {
        askText(child);
    }
}

AccessibleElement AtspiCachedWalk::assemble(const Visit& visit, AtspiAccessible* frame) {
    AccessibleElement element;
    const auto& item = *visit.item;
    auto* handle = visit.place.depth == 0 ? frame : handleOf(item.path);
    if (handle) {
        element.handle = AtspiCalls::handleOf(handle);
    }
    if (!AtspiElementRules::readable(item.basics, visit.place)) {
        return element;
    }
    const auto& needs = visit.needs;
    const bool hasAction = visit.actions && batch_.integer(*visit.actions).value_or(0) > 0;
    auto& facts = element.facts;
    facts = AtspiElementRules::facts(item.basics, visit.place, hasAction);
    if (!facts.title.empty()) {
        facts.description.clear();  // as the live walk, which asks it only of the nameless
    }
    if (visit.text) {
        facts.value = batch_.string(*visit.text).value_or("");
    } else if (visit.number) {
        if (auto number = batch_.number(*visit.number)) {
            char buffer[32];
            std::snprintf(buffer, sizeof buffer, "%g", *number);
            facts.value = buffer;
        }
    } else if (needs.options && handle) {
        AtspiWalk::readChoice(handle, facts);
    }
    if (visit.frame && AtspiElementRules::frameUsed(facts)) {
        facts.frame = batch_.rect(*visit.frame);
    }
    const auto childPlace = AtspiElementRules::childPlace(item.basics, visit.place);
    if (!visit.listed && handle) {
        AtspiLiveWalk(budget_).readChildren(handle, childPlace, element);
        return element;
    }
    for (const auto& child : visit.children) {
        element.children.push_back(assemble(child, frame));
    }
    if (childPlace.scrolled) {
        AtspiWalk::placeScrolledAway(element.children);
    }
    return element;
}

}  // namespace pavix
