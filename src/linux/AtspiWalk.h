#pragma once

#include <atspi/atspi.h>

#include <chrono>
#include <string>
#include <vector>

#include "core/control/AccessibleElement.h"
#include "core/control/OutlineBuilder.h"
#include "linux/AtspiElementRules.h"

namespace pavix {

// What one read may still spend: elements and depth under the outline's limits, and time
// until its deadline. Shared by the ways of walking that make up one read.
struct AtspiWalkBudget {
    using Clock = std::chrono::steady_clock;

    const OutlineOptions& options;
    Clock::time_point deadline;
    int visited = 0;
    bool cut = false;  // the deadline stopped the walk

    // Whether another element at `depth` may be read; notes a walk cut by its deadline.
    bool admits(int depth) {
        if (!options.admits(visited, depth)) {
            return false;
        }
        if (Clock::now() > deadline) {
            cut = true;
            return false;
        }
        return true;
    }
};

// The walk that asks each element its questions with a call of its own, through libatspi.
// It reads what an application's cache does not list, and every application that lists
// nothing.
class AtspiLiveWalk {
  public:
    explicit AtspiLiveWalk(AtspiWalkBudget& budget) : budget_(budget) {}

    AccessibleElement read(AtspiAccessible* accessible, const AtspiElementRules::Place& place);
    // The children of `accessible`, read in `place`, appended to `element`.
    void readChildren(AtspiAccessible* accessible, const AtspiElementRules::Place& place,
                      AccessibleElement& element);

  private:
    AtspiWalkBudget& budget_;
};

namespace AtspiWalk {

// Gives the rows of a list that scrolled away (and so have no place of their own) a place in
// line with their siblings that show: after the last of them, or before the first. The outline
// then says in which direction they lie.
void placeScrolledAway(std::vector<AccessibleElement>& rows);

// A combo box's options (the items of the menu it opens) and its value: the option marked
// chosen, the one its selection holds, or (as some toolkits name the box by its choice) the
// box's own name. Asked call by call: a toolkit's cache does not say in which order a menu
// holds its items.
void readChoice(AtspiAccessible* combo, ElementFacts& facts);

}  // namespace AtspiWalk
}  // namespace pavix
