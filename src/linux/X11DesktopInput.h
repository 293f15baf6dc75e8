#pragma once

#include <memory>

#include "linux/X11Display.h"
#include "linux/X11Keyboard.h"
#include "platform/DesktopInput.h"

namespace pavix {

// Synthetic input on X11 through XTest, which applications cannot tell from the user's own
// (events sent with XSendEvent are marked and many programs ignore them). The connection opens
// on the first call, on the control thread that makes every call.
class X11DesktopInput : public DesktopInput {
  public:
    X11DesktopInput() = default;
    ~X11DesktopInput() override;

    std::optional<pid_t> ownerAt(ScreenPoint point) override;
    ScreenPoint pointer() override;
    void moveTo(ScreenPoint point) override;
    void click(ScreenPoint point, int count) override;
    void scroll(ScreenPoint point, ScrollDirection direction, int steps) override;
    void press(const KeyChord& chord) override;
    void type(char32_t character) override;
    std::optional<pid_t> focusedOwner() override;
    bool activate(std::uint32_t windowID) override;
    std::optional<std::uint32_t> activeWindow() override;

  private:
    X11Display& display();
    std::optional<pid_t> pidOf(Window window);
    void button(ScreenPoint point, unsigned number, int times);

    std::unique_ptr<X11Display> display_;
    std::unique_ptr<X11Keyboard> keyboard_;
};

}  // namespace pavix
