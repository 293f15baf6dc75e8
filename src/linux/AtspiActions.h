#pragma once

#include "platform/AccessibleActions.h"

namespace pavix {

// Acts on elements of other applications over AT-SPI: their actions, the component's focus,
// the parent's selection, the editable-text interface and the state set. Every call is bounded
// by the AT-SPI time-out. libatspi is not thread-safe: the control thread makes every call.
class AtspiActions : public AccessibleActions {
  public:
    explicit AtspiActions(int timeoutMs = 1000) : timeoutMs_(timeoutMs) {}

    bool press(const ElementHandle& element) override;
    bool focus(const ElementHandle& element) override;
    bool select(const ElementHandle& element) override;
    std::optional<std::string> replaceText(const ElementHandle& element,
                                           const std::string& text) override;
    bool choose(const ElementHandle& element, const std::string& option) override;
    std::optional<bool> checked(const ElementHandle& element) override;
    std::optional<FocusedElement> focused(pid_t pid) override;

  private:
    void start();

    int timeoutMs_;
    bool started_ = false;
};

}  // namespace pavix
