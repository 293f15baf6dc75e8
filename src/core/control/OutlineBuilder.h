#pragma once

#include <string>

#include "core/control/AccessibleElement.h"
#include "core/control/OutlineSnapshot.h"

namespace pavix {

// What bounds a read and what the outline names.
struct OutlineOptions {
    int nodeLimit = 4000;          // elements visited at most
    int depthLimit = 59;           // the deepest level visited (the window is level 0)
    std::size_t textLimit = 6000;  // characters of page text
    std::string title;             // the window's title, for the heading line
    std::string identityName;      // the user's full name, whose sightings are noted; empty: none

    // Whether an element at `depth` is visited after `visited` others. A reader of the
    // platform's tree asks this before it reads an element, so that it reads no more than the
    // outline uses.
    bool admits(int visited, int depth) const { return visited < nodeLimit && depth <= depthLimit; }
};

// The outline of one window from its accessible tree: the lines, the page text, the targets
// under fresh references ("ref_1" first) and the scroll areas. `frame` is the window's frame in
// screen points as the window system gives it.
namespace OutlineBuilder {

OutlineSnapshot build(const AccessibleElement& window, const CaptureRect& frame,
                      const OutlineOptions& options = {});

// The closing line: how much of each scroll area lies beyond its visible part.
std::string scrollAreasLine(const std::string& regions);

}  // namespace OutlineBuilder
}  // namespace pavix
