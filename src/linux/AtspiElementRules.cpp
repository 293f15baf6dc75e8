#include "linux/AtspiElementRules.h"

#include <cstdlib>

#include "linux/AtspiRoles.h"

namespace pavix::AtspiElementRules {
namespace {

bool labelled(const Basics& element) {
    const auto role = element.role;
    return !element.name.empty() && (role == ATSPI_ROLE_LABEL || role == ATSPI_ROLE_STATIC ||
                                     role == ATSPI_ROLE_HEADING || role == ATSPI_ROLE_CAPTION);
}

AtspiRoles::Context contextOf(const Basics& element, const Place& place, bool hasAction) {
    AtspiRoles::Context context;
    context.editable = has(element.states, ATSPI_STATE_EDITABLE);
    context.parentIsMenuBar = place.parentIsMenuBar;
    context.hasAction = hasAction;
    return context;
}

}  // namespace

StateMask maskOf(AtspiStateSet* states) {
    StateMask mask = 0;
    if (!states) {
        return mask;
    }
    GArray* list = atspi_state_set_get_states(states);
    for (guint i = 0; list && i < list->len; ++i) {
        auto state = static_cast<unsigned>(g_array_index(list, AtspiStateType, i));
        if (state < 64) {
            mask |= StateMask{1} << state;
        }
    }
    if (list) {
        g_array_free(list, TRUE);
    }
    return mask;
}

bool readable(const Basics& element, const Place& place) {
    const bool showing = has(element.states, ATSPI_STATE_SHOWING);
    const bool scrolledAway =
        !showing && place.scrolled && has(element.states, ATSPI_STATE_VISIBLE);
    return showing || scrolledAway || place.depth == 0;
}

Needs needs(const Basics& element, const Place& place) {
    Needs needs;
    if (!readable(element, place)) {
        return needs;
    }
    const auto role = element.role;
    const bool secure = role == ATSPI_ROLE_PASSWORD_TEXT;
    needs.actions = AtspiRoles::needsActions(role);
    // A password field gives nothing but its role: not its text, not its length.
    if (!secure) {
        needs.text = AtspiRoles::showsText(role) && !labelled(element);
        needs.number = !needs.text && (role == ATSPI_ROLE_SLIDER || role == ATSPI_ROLE_SPIN_BUTTON);
        needs.options = role == ATSPI_ROLE_COMBO_BOX;
    }
    needs.frame = frameUsed(facts(element, place, needs.actions));
    return needs;
}

bool frameUsed(const ElementFacts& facts) {
    using Kind = ElementFacts::Kind;
    return facts.roleWord || facts.kind == Kind::staticText || facts.kind == Kind::image ||
           facts.kind == Kind::scrollArea;
}

ElementFacts facts(const Basics& element, const Place& place, bool hasAction) {
    ElementFacts facts;
    const auto role = element.role;
    const auto states = element.states;
    const auto context = contextOf(element, place, hasAction);
    facts.kind = AtspiRoles::kind(role, context);
    facts.roleWord = AtspiRoles::word(role, context);
    facts.secure = role == ATSPI_ROLE_PASSWORD_TEXT;
    facts.enabled = has(states, ATSPI_STATE_SENSITIVE) || has(states, ATSPI_STATE_ENABLED);
    facts.focused = has(states, ATSPI_STATE_FOCUSED);
    facts.selected = has(states, ATSPI_STATE_SELECTED) && role != ATSPI_ROLE_PAGE_TAB_LIST;
    if (has(states, ATSPI_STATE_CHECKABLE) || role == ATSPI_ROLE_CHECK_BOX ||
        role == ATSPI_ROLE_RADIO_BUTTON || role == ATSPI_ROLE_TOGGLE_BUTTON) {
        facts.checked = has(states, ATSPI_STATE_CHECKED) || has(states, ATSPI_STATE_PRESSED);
    }
    facts.title = element.name;
    // The description only names what has no name.
    if (facts.title.empty()) {
        facts.description = element.description;
    }
    if (role == ATSPI_ROLE_MENU_BAR && facts.title.empty()) {
        facts.title = "menu bar";
    }
    if (role == ATSPI_ROLE_COMBO_BOX) {
        facts.popup = true;
    }
    return facts;
}

bool walksChildren(const Basics& element) {
    return element.role != ATSPI_ROLE_COMBO_BOX;  // its options are already on its line
}

Place childPlace(const Basics& element, const Place& place) {
    Place child;
    child.depth = place.depth + 1;
    child.parentIsMenuBar = element.role == ATSPI_ROLE_MENU_BAR;
    child.scrolled = place.scrolled || element.role == ATSPI_ROLE_SCROLL_PANE ||
                     element.role == ATSPI_ROLE_VIEWPORT;
    return child;
}

std::optional<CaptureRect> frameOf(int x, int y, int width, int height) {
    // GTK answers a scrolled-away element with a position at or near the lowest integer (whose
    // magnitude an int cannot hold).
    constexpr long long kFar = 1 << 24;
    if (width <= 0 || height <= 0 || std::llabs(x) >= kFar || std::llabs(y) >= kFar) {
        return std::nullopt;
    }
    return CaptureRect{double(x), double(y), double(width), double(height)};
}

}  // namespace pavix::AtspiElementRules
