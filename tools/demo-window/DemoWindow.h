#pragma once

#include <X11/Xlib.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "DemoOptions.h"

namespace pavix::demo {

// A top-level window with moving content, on a connection of its own: a bouncing square that
// changes colour at each bounce, a sweeping stripe, a progress bar of the current second and a
// line with the frame number and the running time. Each frame is drawn into a pixmap and
// copied to the window in one request, so no half-drawn frame is ever on screen.
class DemoWindow {
  public:
    // Throws std::runtime_error when the display cannot be reached.
    explicit DemoWindow(const DemoOptions& options);
    ~DemoWindow();
    DemoWindow(const DemoWindow&) = delete;
    DemoWindow& operator=(const DemoWindow&) = delete;

    Window id() const { return window_; }
    int fd() const { return ConnectionNumber(display_); }

    // Handles the events that arrived; answers false once the window manager asked to close.
    bool processEvents();
    // Draws the frame for `elapsed` since the start and shows it.
    void draw(std::chrono::nanoseconds elapsed, std::uint64_t frame);

  private:
    void setProperties(const DemoOptions& options);
    void resize(int width, int height);
    void show();
    unsigned long colour(const char* name, unsigned long fallback);

    Display* display_;
    Window window_ = None;
    Pixmap buffer_ = None;
    GC gc_ = nullptr;
    int width_, height_;
    Atom deleteWindow_ = None;
    unsigned long background_ = 0, foreground_ = 0, stripe_ = 0, bar_ = 0;
    std::vector<unsigned long> squareColours_;
    std::string title_;
    std::chrono::nanoseconds lastElapsed_{0};
    std::uint64_t lastFrame_ = 0;
};

}  // namespace pavix::demo
