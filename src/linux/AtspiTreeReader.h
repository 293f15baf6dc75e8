#pragma once

#include <atspi/atspi.h>

#include "linux/AtspiWalk.h"
#include "platform/AccessibilityReader.h"

namespace pavix {

// Reads the accessible tree of one application window over AT-SPI into the outline's plain
// elements. Every question is a D-Bus round trip into the application, so the reader asks only
// what the outline uses: extents only of the showing elements whose place it uses, actions only
// where they decide the role, text only of the roles that show it, and nothing of a password
// field but its role. Where the application keeps a cache of its elements (GTK 3), the tree,
// roles, states and names come from it in one call and the remaining questions go out
// together; otherwise (Qt) each is asked on its own. Every call is bounded by the AT-SPI
// time-out and the whole read by its budget, so a hung application costs a bounded wait.
//
// libatspi is not thread-safe: one thread owns the reader and makes every call.
class AtspiTreeReader : public AccessibilityReader {
  public:
    using Window = ControlledWindow;

    // `timeoutMs` bounds each call into an application, `budgetMs` a whole read: an application
    // that stops answering halfway gives what was read by then. libatspi starts on the thread
    // of the first call.
    // `useCache` false asks everything one call at a time even of an application with a cache.
    explicit AtspiTreeReader(int timeoutMs = 1000, int budgetMs = 4000, bool useCache = true)
        : timeoutMs_(timeoutMs), budgetMs_(budgetMs), useCache_(useCache) {}

    bool reachable() override;
    std::optional<AccessibleElement> read(const Window& window,
                                          const OutlineOptions& options) override;

  private:
    void start();
    std::optional<AccessibleElement> readCached(AtspiAccessible* frame, AtspiWalkBudget& budget);

    int timeoutMs_;
    int budgetMs_;
    bool useCache_;
    bool started_ = false;
};

}  // namespace pavix
