#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

namespace pavix {

// The platform's element, as kept by an outline target.
using ElementHandle = std::shared_ptr<const void>;

// The element that has the keyboard focus in an application.
struct FocusedElement {
    ElementHandle handle;
    bool editable = false;  // it takes text
    bool secure = false;    // a password field
};

// What the driver does to an element through the accessibility bus instead of the pointer.
// Every call is one or a few round trips to the element's application, bounded in time.
// Control thread only.
class AccessibleActions {
  public:
    virtual ~AccessibleActions() = default;

    // Performs the element's own press: its first action among "click", "press", "activate"
    // and "toggle". False when it offers none or the application refused.
    virtual bool press(const ElementHandle& element) = 0;
    // Gives the element the keyboard focus.
    virtual bool focus(const ElementHandle& element) = 0;
    // Selects a row, list item or option in its parent.
    virtual bool select(const ElementHandle& element) = 0;
    // Replaces the text of an editable element and returns the text it holds afterwards;
    // nothing when the element takes no text this way. Never called on a password field.
    virtual std::optional<std::string> replaceText(const ElementHandle& element,
                                                   const std::string& text) = 0;
    // Chooses the option called `option` of a combo box; false when it has none by that name.
    virtual bool choose(const ElementHandle& element, const std::string& option) = 0;
    // Whether a check box, radio button or switch is checked now; nothing when it does not say.
    virtual std::optional<bool> checked(const ElementHandle& element) = 0;
    // The element with the keyboard focus in the application of `pid`, if it says.
    virtual std::optional<FocusedElement> focused(pid_t pid) = 0;
};

}  // namespace pavix
