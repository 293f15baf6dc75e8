// GoogleTest comes before any X11 header: Xlib defines None, Bool and Status as macros.
#include <gtest/gtest.h>

#include "linux/X11WindowPicker.h"

#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

#include <condition_variable>
#include <mutex>
#include <optional>

#include "support/X11TestWindow.h"

namespace pavix {
namespace {

using test::eventually;
using test::X11TestDisplay;
using test::X11TestWindow;

// What one pick ended with.
struct Outcome {
    std::mutex mutex;
    std::condition_variable done;
    std::optional<std::string> result;  // "selected <id>", "canceled" or "failed: …"

    WindowPickerHandlers handlers() {
        return {[this](std::uint32_t id) { finish("selected " + std::to_string(id)); },
                [this] { finish("canceled"); },
                [this](const std::string& reason) { finish("failed: " + reason); }};
    }
    void finish(std::string text) {
        std::lock_guard lock(mutex);
        result = std::move(text);
        done.notify_all();
    }
    std::optional<std::string> wait() {
        std::unique_lock lock(mutex);
        done.wait_for(lock, std::chrono::seconds(5), [&] { return result.has_value(); });
        return result;
    }
};

// Whether some client holds the pointer: a grab of our own then fails.
bool pointerGrabbed(X11TestDisplay& display) {
    int status = XGrabPointer(display.get(), display.root(), False, ButtonPressMask, GrabModeAsync,
                              GrabModeAsync, None, None, CurrentTime);
    if (status == GrabSuccess) {
        XUngrabPointer(display.get(), CurrentTime);
        XSync(display.get(), False);
        return false;
    }
    return true;
}

void click(X11TestDisplay& display, int x, int y) {
    Display* d = display.get();
    XTestFakeMotionEvent(d, DefaultScreen(d), x, y, CurrentTime);
    XTestFakeButtonEvent(d, 1, True, CurrentTime);
    XTestFakeButtonEvent(d, 1, False, CurrentTime);
    XSync(d, False);
}

TEST(X11WindowPicker, AClickChoosesTheApplicationWindowUnderThePointer) {
    X11TestDisplay display;
    X11TestWindow below(display, {.title = "Below", .x = 100, .y = 100});
    X11TestWindow chosen(display, {.title = "Chosen", .x = 700, .y = 300});
    X11WindowPicker picker;
    Outcome outcome;
    picker.present(outcome.handlers());
    EXPECT_TRUE(picker.accepting());
    ASSERT_TRUE(eventually([&] { return pointerGrabbed(display); }));

    // A second request while picking fails without disturbing the first.
    Outcome second;
    picker.present(second.handlers());
    EXPECT_EQ(second.wait(), "failed: A window is already being picked.");

    // A click on the window manager's title bar chooses the window inside the frame too; here
    // the click lands in the window's own area.
    auto [x, y] = display.position(chosen.id());
    click(display, x + 50, y + 40);
    EXPECT_EQ(outcome.wait(), "selected " + std::to_string(chosen.id()));
    EXPECT_FALSE(picker.accepting());
    EXPECT_TRUE(eventually([&] { return !pointerGrabbed(display); }));
}

TEST(X11WindowPicker, EscapeOrCancelEndsThePickAsCanceled) {
    X11TestDisplay display;
    X11TestWindow window(display, {.title = "Ignored"});
    X11WindowPicker picker;
    Outcome escaped;
    picker.present(escaped.handlers());
    ASSERT_TRUE(eventually([&] { return pointerGrabbed(display); }));
    Display* d = display.get();
    KeyCode escape = XKeysymToKeycode(d, XK_Escape);
    XTestFakeKeyEvent(d, escape, True, CurrentTime);
    XTestFakeKeyEvent(d, escape, False, CurrentTime);
    XSync(d, False);
    EXPECT_EQ(escaped.wait(), "canceled");

    Outcome canceled;
    picker.present(canceled.handlers());
    ASSERT_TRUE(eventually([&] { return pointerGrabbed(display); }));
    picker.cancel();
    EXPECT_EQ(canceled.wait(), "canceled");
    EXPECT_TRUE(eventually([&] { return !pointerGrabbed(display); }));
}

TEST(X11WindowPicker, FailsWhenAnotherClientKeepsThePointer) {
    X11TestDisplay display;
    ASSERT_EQ(XGrabPointer(display.get(), display.root(), False, ButtonPressMask, GrabModeAsync,
                           GrabModeAsync, None, None, CurrentTime),
              GrabSuccess);
    XSync(display.get(), False);
    X11WindowPicker picker;
    Outcome outcome;
    picker.present(outcome.handlers());
    auto result = outcome.wait();
    ASSERT_TRUE(result);
    EXPECT_TRUE(result->starts_with("failed: Another application holds the pointer")) << *result;
    XUngrabPointer(display.get(), CurrentTime);
    XSync(display.get(), False);
}

}  // namespace
}  // namespace pavix
