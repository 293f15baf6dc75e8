#pragma once

#include <atspi/atspi-constants.h>

#include <optional>
#include <string>
#include <vector>

#include "core/control/AccessibleElement.h"

namespace pavix {

// How the outline treats each AT-SPI role: its kind in the walk and, for elements the agent
// can act on, the role word. Toolkits differ (GTK 3 reports a switch as a toggle button, Qt a
// list row as a list item), so the words follow what the element does, not the toolkit's name.
namespace AtspiRoles {

// What decides a role word beyond the role itself.
struct Context {
    bool editable = false;         // EDITABLE state: a text that takes input
    bool parentIsMenuBar = false;  // a menu that opens from the menu bar
    bool hasAction = false;        // the element offers an action ("click", "press", …)
};

ElementFacts::Kind kind(AtspiRole role, const Context& context);
std::optional<std::string> word(AtspiRole role, const Context& context);

// Whether the role's elements carry a text value worth reading for the line.
bool showsText(AtspiRole role);
// Whether an element of the role is only a target when it offers an action, so that its
// actions must be read.
bool needsActions(AtspiRole role);

}  // namespace AtspiRoles
}  // namespace pavix
