#pragma once

#include <atspi/atspi.h>

#include <cstdint>
#include <string>

#include "core/control/AccessibleElement.h"

namespace pavix {

// What the reader decides about one element from its role, its states and its name alone: the
// same rules whether these came one call at a time or in one batch from the application's
// cache. What else to ask of the element (its extents, text, value, actions) follows from them,
// and so does its place in the walk.
namespace AtspiElementRules {

// An element's AT-SPI states, one bit each.
using StateMask = std::uint64_t;

inline bool has(StateMask states, AtspiStateType state) {
    return (states >> static_cast<unsigned>(state)) & 1U;
}
StateMask maskOf(AtspiStateSet* states);

// What is known of an element before any question particular to it.
struct Basics {
    AtspiRole role = ATSPI_ROLE_INVALID;
    StateMask states = 0;
    std::string name;
    std::string description;
};

// Where in the walk the element is.
struct Place {
    int depth = 0;
    bool parentIsMenuBar = false;
    bool scrolled = false;  // inside a scroll area
};

// Whether the element says anything at all. What shows has a place on screen, and so has what a
// scroll area holds beyond its visible part (GTK does not call a row showing once it is
// scrolled away). Anything else that does not show (a closed menu's items, a hidden page) has
// stale or zero extents: it says nothing and is not walked. The window itself always counts.
bool readable(const Basics& element, const Place& place);

// The further questions an element needs answered. Whether its frame is needed can hang on
// whether it offers an action (a panel is a target only then): `frame` assumes it does, and
// the answer is dropped again when the final facts make no use of it (`frameUsed`).
struct Needs {
    bool frame = false;    // its extents
    bool text = false;     // its text, up to the outline's cut
    bool number = false;   // its current value
    bool actions = false;  // whether it offers an action (this decides its role word)
    bool options = false;  // a combo box's options and choice
};
Needs needs(const Basics& element, const Place& place);

// Whether the outline uses an element's own frame: targets, text, pictures and scroll areas.
// Layout boxes are placed by what they hold.
bool frameUsed(const ElementFacts& facts);

// The facts that follow from the basics; `hasAction` answers `Needs::actions`.
ElementFacts facts(const Basics& element, const Place& place, bool hasAction);

// Whether the element's children are walked, and the place they are walked in.
bool walksChildren(const Basics& element);
Place childPlace(const Basics& element, const Place& place);

// A frame from an element's screen extents, or none when the toolkit gives no real place:
// an empty size, or GTK's position near the lowest integer for a scrolled-away element.
std::optional<CaptureRect> frameOf(int x, int y, int width, int height);

// How many characters of a text the outline reads.
constexpr int kTextLimit = 400;

}  // namespace AtspiElementRules
}  // namespace pavix
