#include <cstdio>

#include "linux/AtspiCalls.h"
#include "linux/AtspiWalk.h"

namespace pavix {
namespace {

using namespace AtspiCalls;

std::string numberOf(AtspiAccessible* accessible) {
    Ref<AtspiValue> value(atspi_accessible_get_value_iface(accessible));
    if (!value) {
        return {};
    }
    GError* error = nullptr;
    double current = atspi_value_get_current_value(value.get(), &error);
    if (!succeeded(error)) {
        return {};
    }
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%g", current);
    return buffer;
}

bool hasAction(AtspiAccessible* accessible) {
    Ref<AtspiAction> action(atspi_accessible_get_action_iface(accessible));
    if (!action) {
        return false;
    }
    GError* error = nullptr;
    int count = atspi_action_get_n_actions(action.get(), &error);
    return succeeded(error) && count > 0;
}

// The titles of a combo box's options, the items of the menu it opens, and the one chosen.
std::vector<std::string> optionsOf(AtspiAccessible* combo, std::string& chosen) {
    std::vector<std::string> options;
    for (int i = 0, n = childCount(combo); i < n; ++i) {
        auto menu = childAt(combo, i);
        if (!menu || roleOf(menu.get()) != ATSPI_ROLE_MENU) {
            continue;
        }
        for (int j = 0, items = std::min(childCount(menu.get()), 200); j < items; ++j) {
            if (auto item = childAt(menu.get(), j)) {
                options.push_back(nameOf(item.get()));
                if (hasState(item.get(), ATSPI_STATE_SELECTED)) {
                    chosen = options.back();
                }
            }
        }
    }
    return options;
}

// The option a combo box holds, through its selection (GTK's way of saying it).
std::string selectedOf(AtspiAccessible* combo) {
    Ref<AtspiSelection> selection(atspi_accessible_get_selection_iface(combo));
    if (!selection) {
        return {};
    }
    GError* error = nullptr;
    Ref<AtspiAccessible> chosen(atspi_selection_get_selected_child(selection.get(), 0, &error));
    if (!succeeded(error) || !chosen) {
        return {};
    }
    return nameOf(chosen.get());
}

}  // namespace

AccessibleElement AtspiLiveWalk::read(AtspiAccessible* accessible,
                                      const AtspiElementRules::Place& place) {
    ++budget_.visited;
    AccessibleElement element;
    element.handle = handleOf(accessible);
    AtspiElementRules::Basics basics;
    basics.role = roleOf(accessible);
    Ref<AtspiStateSet> states(atspi_accessible_get_state_set(accessible));
    basics.states = AtspiElementRules::maskOf(states.get());
    if (!AtspiElementRules::readable(basics, place)) {
        return element;
    }
    // Each question is a round trip to the application: the description only names what has
    // no name.
    GError* error = nullptr;
    basics.name = take(atspi_accessible_get_name(accessible, &error), error);
    if (basics.name.empty()) {
        error = nullptr;
        basics.description = take(atspi_accessible_get_description(accessible, &error), error);
    }
    const auto needs = AtspiElementRules::needs(basics, place);
    auto& facts = element.facts;
    facts = AtspiElementRules::facts(basics, place, needs.actions && hasAction(accessible));
    if (needs.text) {
        facts.value = textOf(accessible, AtspiElementRules::kTextLimit);
    } else if (needs.number) {
        facts.value = numberOf(accessible);
    } else if (needs.options) {
        AtspiWalk::readChoice(accessible, facts);
    }
    if (needs.frame && AtspiElementRules::frameUsed(facts)) {
        facts.frame = extentsOf(accessible);
    }
    if (AtspiElementRules::walksChildren(basics)) {
        readChildren(accessible, AtspiElementRules::childPlace(basics, place), element);
    }
    return element;
}

void AtspiLiveWalk::readChildren(AtspiAccessible* accessible, const AtspiElementRules::Place& place,
                                 AccessibleElement& element) {
    for (int i = 0, n = childCount(accessible); i < n && budget_.admits(place.depth); ++i) {
        if (auto child = childAt(accessible, i)) {
            element.children.push_back(read(child.get(), place));
        }
    }
    if (place.scrolled) {
        AtspiWalk::placeScrolledAway(element.children);
    }
}

namespace AtspiWalk {

void placeScrolledAway(std::vector<AccessibleElement>& rows) {
    std::optional<std::size_t> first, last;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        if (rows[i].facts.frame) {
            first = first.value_or(i);
            last = i;
        }
    }
    if (!first) {
        return;
    }
    for (std::size_t i = 0; i < rows.size(); ++i) {
        auto& facts = rows[i].facts;
        if (facts.frame || !facts.roleWord) {
            continue;
        }
        const auto& anchor = *rows[i < *first ? *first : *last].facts.frame;
        const double steps = i < *first ? -double(*first - i) : double(i - *last);
        facts.frame =
            CaptureRect{anchor.x, anchor.y + steps * anchor.height, anchor.width, anchor.height};
    }
}

void readChoice(AtspiAccessible* combo, ElementFacts& facts) {
    facts.options = optionsOf(combo, facts.value);
    if (facts.value.empty()) {
        facts.value = selectedOf(combo);
    }
    if (facts.value.empty()) {
        facts.value = facts.title;  // some toolkits name the box by its choice
    }
}

}  // namespace AtspiWalk
}  // namespace pavix
