#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "linux/X11Wakeup.h"
#include "platform/WindowPicker.h"

namespace pavix {

class X11Display;

// Picks a window by a click anywhere on the screen: the pointer becomes a crosshair, the first
// left click chooses the application window under it, Escape cancels. Both pointer and
// keyboard are grabbed meanwhile, so the click reaches no application.
class X11WindowPicker : public WindowPicker {
  public:
    explicit X11WindowPicker(std::string displayName = "");
    ~X11WindowPicker() override;

    void present(WindowPickerHandlers handlers) override;
    void cancel() override;
    bool accepting() const override { return accepting_; }

  private:
    void run(WindowPickerHandlers handlers);
    // The outcome of one pick: a window, None for a cancel; throws for a failure.
    unsigned long pick(X11Display& display);

    std::string displayName_;
    X11Wakeup wakeup_;
    std::thread thread_;
    std::atomic<bool> accepting_{false};
    std::atomic<bool> canceling_{false};
};

}  // namespace pavix
