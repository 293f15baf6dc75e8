#include "linux/AtspiRoles.h"

namespace pavix::AtspiRoles {

using Kind = ElementFacts::Kind;

Kind kind(AtspiRole role, const Context& context) {
    switch (role) {
        case ATSPI_ROLE_LABEL:
        case ATSPI_ROLE_STATIC:
        case ATSPI_ROLE_PARAGRAPH:
        case ATSPI_ROLE_HEADING:
        case ATSPI_ROLE_CAPTION:
            return Kind::staticText;
        case ATSPI_ROLE_TEXT:
            return context.editable ? Kind::plain : Kind::staticText;
        case ATSPI_ROLE_IMAGE:
        case ATSPI_ROLE_ICON:
            return Kind::image;
        case ATSPI_ROLE_DOCUMENT_WEB:
            return Kind::webArea;
        case ATSPI_ROLE_SCROLL_PANE:
        case ATSPI_ROLE_VIEWPORT:
            return Kind::scrollArea;
        case ATSPI_ROLE_TOOL_BAR:
        case ATSPI_ROLE_PAGE_TAB_LIST:
        case ATSPI_ROLE_GROUPING:
        case ATSPI_ROLE_MENU_BAR:
        case ATSPI_ROLE_SPLIT_PANE:
        case ATSPI_ROLE_FORM:
            return Kind::layoutGroup;
        case ATSPI_ROLE_LIST_ITEM:
        case ATSPI_ROLE_TREE_ITEM:
        case ATSPI_ROLE_TABLE_ROW:
        case ATSPI_ROLE_TABLE_CELL:
            return Kind::row;
        default:
            return Kind::plain;
    }
}

std::optional<std::string> word(AtspiRole role, const Context& context) {
    switch (role) {
        case ATSPI_ROLE_PUSH_BUTTON:
        case ATSPI_ROLE_PUSH_BUTTON_MENU:
            return "button";
        // GTK 3's switch is a toggle button: either way it is on or off.
        case ATSPI_ROLE_TOGGLE_BUTTON:
            return "switch";
        case ATSPI_ROLE_PAGE_TAB:
            return "tab";
        case ATSPI_ROLE_COMBO_BOX:
            return "combobox";
        case ATSPI_ROLE_ENTRY:
        case ATSPI_ROLE_PASSWORD_TEXT:
        case ATSPI_ROLE_SPIN_BUTTON:
            return "textbox";
        case ATSPI_ROLE_TEXT:
            return context.editable ? std::optional<std::string>("textbox") : std::nullopt;
        case ATSPI_ROLE_CHECK_BOX:
            return "checkbox";
        case ATSPI_ROLE_RADIO_BUTTON:
        case ATSPI_ROLE_RADIO_MENU_ITEM:
            return "radio";
        case ATSPI_ROLE_LINK:
            return "link";
        // GTK makes a menu bar's entries menus, Qt menu items.
        case ATSPI_ROLE_MENU:
        case ATSPI_ROLE_MENU_ITEM:
            return context.parentIsMenuBar ? "menubaritem" : "menuitem";
        case ATSPI_ROLE_CHECK_MENU_ITEM:
        case ATSPI_ROLE_TEAROFF_MENU_ITEM:
            return "menuitem";
        case ATSPI_ROLE_SLIDER:
            return "slider";
        case ATSPI_ROLE_TABLE_ROW:
        case ATSPI_ROLE_LIST_ITEM:
        case ATSPI_ROLE_TREE_ITEM:
            return "row";
        case ATSPI_ROLE_TABLE_CELL:
            return context.hasAction ? std::optional<std::string>("cell") : std::nullopt;
        case ATSPI_ROLE_LABEL:
        case ATSPI_ROLE_STATIC:
        case ATSPI_ROLE_IMAGE:
        case ATSPI_ROLE_ICON:
        case ATSPI_ROLE_PANEL:
        case ATSPI_ROLE_FILLER:
            return context.hasAction ? std::optional<std::string>("button") : std::nullopt;
        default:
            return std::nullopt;
    }
}

bool showsText(AtspiRole role) {
    switch (role) {
        case ATSPI_ROLE_ENTRY:
        case ATSPI_ROLE_TEXT:
        case ATSPI_ROLE_SPIN_BUTTON:
        case ATSPI_ROLE_LABEL:
        case ATSPI_ROLE_STATIC:
        case ATSPI_ROLE_PARAGRAPH:
        case ATSPI_ROLE_HEADING:
        case ATSPI_ROLE_CAPTION:
            return true;
        default:
            return false;
    }
}

bool needsActions(AtspiRole role) {
    switch (role) {
        case ATSPI_ROLE_TABLE_CELL:
        case ATSPI_ROLE_LABEL:
        case ATSPI_ROLE_STATIC:
        case ATSPI_ROLE_IMAGE:
        case ATSPI_ROLE_ICON:
        case ATSPI_ROLE_PANEL:
        case ATSPI_ROLE_FILLER:
            return true;
        default:
            return false;
    }
}

}  // namespace pavix::AtspiRoles
