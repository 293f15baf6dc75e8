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
    // Children come in the order of their indices. That is the toolkit's own order, which in a
    // few GTK containers differs from the order in which the container hands them out one by
    // one (a header bar's window buttons come last here, first there): the outline holds the
    // same lines either way. GTK gives no index to the children a container holds besides its
    // own (a scrolled window's scroll bars): they follow the others, in the order they were
    // made.
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
    frame_ = frame;
    auto root = plan(*found->second, {});
    if (!batch_.wait(budget_.deadline)) {
        budget_.cut = true;
    }
    // The text of each field is asked once its length is known, all fields together again.
    askText(root);
    if (!batch_.wait(budget_.deadline)) {
        budget_.cut = true;
    }
    return assemble(root);
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
    if (item.childCount >= 0 && static_cast<int>(children.size()) == item.childCount) {
        for (const auto* child : children) {
            if (!budget_.admits(childPlace.depth)) {
                break;
            }
            visit.children.push_back(plan(*child, childPlace));
        }
        return visit;
    }
    // GTK leaves some children out of its cache (the rows a tree view makes up on demand, a
    // window's pop-overs), counts no children of a menu (-1), and its indices need not follow
    // the order of the element's own children. The element says which children it has, in
    // order: those the cache lists are read from it, the others live in their place.
    auto* handle = place.depth == 0 ? frame_ : handleOf(item.path);
    if (!handle) {
        return visit;
    }
    std::vector<std::string> paths;
    {
        AtspiBatch ask(batch_.bus(), batch_.busName(), batch_.timeoutMs());
        auto call = ask.call(item.path, "org.a11y.atspi.Accessible", "GetChildren");
        ask.wait(budget_.deadline);
        paths = ask.paths(call).value_or(std::vector<std::string>{});
    }
    const int count = paths.empty() ? AtspiCalls::childCount(handle) : int(paths.size());
    for (int i = 0; i < count && budget_.admits(childPlace.depth); ++i) {
        auto found = i < int(paths.size()) ? byPath_.find(paths[i]) : byPath_.end();
        if (found != byPath_.end()) {
            visit.children.push_back(plan(*found->second, childPlace));
        } else {
            ++budget_.visited;  // counted now, as the walk reaches it; read once answered
            Visit live;
            live.place = childPlace;
            live.liveIndex = i;
            visit.children.push_back(std::move(live));
        }
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

AccessibleElement AtspiCachedWalk::assemble(const Visit& visit) {
    AccessibleElement element;
    const auto& item = *visit.item;
    auto* handle = visit.place.depth == 0 ? frame_ : handleOf(item.path);
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
    for (const auto& child : visit.children) {
        if (child.item) {
            element.children.push_back(assemble(child));
        } else if (auto live = handle ? AtspiCalls::childAt(handle, child.liveIndex) : nullptr) {
            --budget_.visited;  // the live walk counts it again
            element.children.push_back(AtspiLiveWalk(budget_).read(live.get(), childPlace));
        }
    }
    if (childPlace.scrolled) {
        AtspiWalk::placeScrolledAway(element.children);
    }
    return element;
}

}  // namespace pavix
