#include "linux/AtspiActions.h"

#include <algorithm>
#include <array>

#include "core/control/InputError.h"
#include "core/runtime/Text.h"
#include "linux/AtspiCalls.h"

namespace pavix {
namespace {

using namespace AtspiCalls;

AtspiAccessible* accessibleOf(const ElementHandle& element) {
    return static_cast<AtspiAccessible*>(const_cast<void*>(element.get()));
}

// The element's own element that holds its options: the menu a combo box opens.
Ref<AtspiAccessible> menuOf(AtspiAccessible* combo) {
    for (int i = 0, n = childCount(combo); i < n; ++i) {
        auto child = childAt(combo, i);
        if (child &&
            (roleOf(child.get()) == ATSPI_ROLE_MENU || roleOf(child.get()) == ATSPI_ROLE_LIST_BOX ||
             roleOf(child.get()) == ATSPI_ROLE_LIST)) {
            return child;
        }
    }
    return nullptr;
}

bool selectChild(AtspiAccessible* parent, int index) {
    Ref<AtspiSelection> selection(atspi_accessible_get_selection_iface(parent));
    if (!selection) {
        return false;
    }
    GError* error = nullptr;
    bool done = atspi_selection_select_child(selection.get(), index, &error);
    return succeeded(error) && done;
}

}  // namespace

void AtspiActions::start() {
    if (!started_) {
        started_ = true;
        AtspiCalls::start(timeoutMs_);
    }
}

bool AtspiActions::press(const ElementHandle& element) {
    start();
    Ref<AtspiAction> action(atspi_accessible_get_action_iface(accessibleOf(element)));
    if (!action) {
        return false;
    }
    GError* error = nullptr;
    const int count = atspi_action_get_n_actions(action.get(), &error);
    if (!succeeded(error)) {
        return false;
    }
    // Toolkits name the same press differently: GTK "click", Qt "Press" (and "ShowMenu" on a
    // menu bar's entries), web engines "click" or "press", check boxes "toggle", menu items
    // and links "activate".
    for (const char* wanted : {"click", "press", "toggle", "activate", "jump", "showmenu"}) {
        for (int i = 0; i < count; ++i) {
            auto name = Text::lowerAscii(
                take(atspi_action_get_action_name(action.get(), i, &error), error));
            error = nullptr;
            if (name == wanted) {
                bool done = atspi_action_do_action(action.get(), i, &error);
                return succeeded(error) && done;
            }
        }
    }
    return false;
}

bool AtspiActions::focus(const ElementHandle& element) {
    start();
    Ref<AtspiComponent> component(atspi_accessible_get_component_iface(accessibleOf(element)));
    if (!component) {
        return false;
    }
    GError* error = nullptr;
    bool done = atspi_component_grab_focus(component.get(), &error);
    return succeeded(error) && done;
}

bool AtspiActions::select(const ElementHandle& element) {
    start();
    auto* accessible = accessibleOf(element);
    GError* error = nullptr;
    Ref<AtspiAccessible> parent(atspi_accessible_get_parent(accessible, &error));
    if (!succeeded(error) || !parent) {
        return false;
    }
    const int index = atspi_accessible_get_index_in_parent(accessible, &error);
    if (!succeeded(error) || index < 0) {
        return false;
    }
    // A list row is selected in its list; a table cell's row in its table, which GTK selects
    // by any of the row's cells.
    if (selectChild(parent.get(), index)) {
        return true;
    }
    Ref<AtspiAccessible> grandparent(atspi_accessible_get_parent(parent.get(), &error));
    if (!succeeded(error) || !grandparent) {
        return false;
    }
    const int row = atspi_accessible_get_index_in_parent(parent.get(), &error);
    return succeeded(error) && row >= 0 && selectChild(grandparent.get(), row);
}

std::optional<std::string> AtspiActions::replaceText(const ElementHandle& element,
                                                     const std::string& text) {
    start();
    auto* accessible = accessibleOf(element);
    if (roleOf(accessible) == ATSPI_ROLE_PASSWORD_TEXT) {
        throw InputError::secureField();  // never through the text interface
    }
    Ref<AtspiEditableText> editable(atspi_accessible_get_editable_text_iface(accessible));
    if (!editable || !hasState(accessible, ATSPI_STATE_EDITABLE)) {
        return std::nullopt;
    }
    GError* error = nullptr;
    if (!atspi_editable_text_set_text_contents(editable.get(), text.c_str(), &error) ||
        !succeeded(error)) {
        return std::nullopt;
    }
    // What landed, read back: an application may refuse or change what it is given.
    return textOf(accessible, static_cast<int>(text.size()) + 4096);
}

bool AtspiActions::choose(const ElementHandle& element, const std::string& option) {
    start();
    auto* combo = accessibleOf(element);
    auto menu = menuOf(combo);
    if (!menu) {
        return false;
    }
    const auto wanted = Text::lowerAscii(option);
    for (int i = 0, n = std::min(childCount(menu.get()), 500); i < n; ++i) {
        auto item = childAt(menu.get(), i);
        if (!item || Text::lowerAscii(nameOf(item.get())) != wanted) {
            continue;
        }
        // GTK's combo box selects its active item through its own selection; other toolkits
        // through the list's, or by the item's own press.
        return selectChild(combo, i) || selectChild(menu.get(), i) || press(handleOf(item.get()));
    }
    return false;
}

std::optional<bool> AtspiActions::checked(const ElementHandle& element) {
    start();
    Ref<AtspiStateSet> states(atspi_accessible_get_state_set(accessibleOf(element)));
    if (!states) {
        return std::nullopt;
    }
    return atspi_state_set_contains(states.get(), ATSPI_STATE_CHECKED) ||
           atspi_state_set_contains(states.get(), ATSPI_STATE_PRESSED);
}

std::optional<FocusedElement> AtspiActions::focused(pid_t pid) {
    start();
    Ref<AtspiAccessible> desktop(atspi_get_desktop(0));
    if (!desktop) {
        return std::nullopt;
    }
    for (int i = 0, n = childCount(desktop.get()); i < n; ++i) {
        auto app = childAt(desktop.get(), i);
        GError* error = nullptr;
        if (!app || atspi_accessible_get_process_id(app.get(), &error) != guint(pid) ||
            !succeeded(error)) {
            continue;
        }
        // One round trip through the collection interface instead of a walk of the tree.
        Ref<AtspiCollection> collection(atspi_accessible_get_collection_iface(app.get()));
        if (!collection) {
            return std::nullopt;
        }
        std::array<AtspiStateType, 1> wanted = {ATSPI_STATE_FOCUSED};
        GArray* states = g_array_new(FALSE, FALSE, sizeof(AtspiStateType));
        g_array_append_vals(states, wanted.data(), wanted.size());
        Ref<AtspiStateSet> set(atspi_state_set_new(states));
        g_array_free(states, TRUE);
        Ref<AtspiMatchRule> rule(atspi_match_rule_new(
            set.get(), ATSPI_Collection_MATCH_ALL, nullptr, ATSPI_Collection_MATCH_NONE, nullptr,
            ATSPI_Collection_MATCH_NONE, nullptr, ATSPI_Collection_MATCH_NONE, FALSE));
        GArray* matches = atspi_collection_get_matches(
            collection.get(), rule.get(), ATSPI_Collection_SORT_ORDER_CANONICAL, 0, TRUE, &error);
        if (!succeeded(error) || !matches) {
            return std::nullopt;
        }
        std::optional<FocusedElement> found;
        // The deepest focused element is the last in canonical order.
        for (guint m = matches->len; m-- > 0 && !found;) {
            auto* element = g_array_index(matches, AtspiAccessible*, m);
            const auto role = roleOf(element);
            if (role == ATSPI_ROLE_FRAME || role == ATSPI_ROLE_WINDOW ||
                role == ATSPI_ROLE_APPLICATION) {
                continue;
            }
            FocusedElement focus;
            focus.handle = handleOf(element);
            focus.secure = role == ATSPI_ROLE_PASSWORD_TEXT;
            focus.editable = hasState(element, ATSPI_STATE_EDITABLE);
            found = focus;
        }
        for (guint m = 0; m < matches->len; ++m) {
            g_object_unref(g_array_index(matches, AtspiAccessible*, m));
        }
        g_array_free(matches, TRUE);
        return found;
    }
    return std::nullopt;
}

}  // namespace pavix
