#pragma once

#include "platform/AccessibilityReader.h"

namespace pavix {

// Reads the accessible tree of one application window over AT-SPI into the outline's plain
// elements. Each element costs a few D-Bus round trips, so the reader asks only what the
// outline uses: extents only of showing elements, actions only where they decide the role,
// text only of the roles that show it, and nothing of a password field but its role. Every
// call is bounded by the AT-SPI time-out, so a hung application costs a bounded wait.
//
// libatspi is not thread-safe: one thread owns the reader and makes every call.
class AtspiTreeReader : public AccessibilityReader {
  public:
    using Window = ControlledWindow;

    // `timeoutMs` bounds each call into an application, `budgetMs` a whole read: an application
    // that stops answering halfway gives what was read by then. libatspi starts on the thread
    // of the first call.
    explicit AtspiTreeReader(int timeoutMs = 1000, int budgetMs = 4000)
        : timeoutMs_(timeoutMs), budgetMs_(budgetMs) {}

    bool reachable() override;
    std::optional<AccessibleElement> read(const Window& window,
                                          const OutlineOptions& options) override;

  private:
    void start();

    int timeoutMs_;
    int budgetMs_;
    bool started_ = false;
};

}  // namespace pavix
