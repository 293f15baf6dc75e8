#pragma once

#include <X11/Xlib.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "linux/X11Display.h"
#include "linux/X11Wakeup.h"
#include "platform/Clipboard.h"

namespace pavix {

// The CLIPBOARD selection of an X display. A small unmapped window on a connection of its own
// owns the selection, and a thread of its own answers the other applications' requests for the
// text: as UTF8_STRING, as text/plain;charset=utf-8 and as Latin-1 STRING, with TARGETS and
// TIMESTAMP describing it; other targets (MULTIPLE among them) are refused. X keeps no copy: the
// text stays on the clipboard while this object lives and no other application takes the
// clipboard. Destroying the object gives the clipboard up.
//
// The text goes out in one property change. The incremental transfer (INCR) is not offered, so
// setText refuses a text larger than one request to the server can carry (maxTextBytes: with
// the BIG-REQUESTS extension, megabytes).
class X11Clipboard : public Clipboard {
  public:
    // `displayName` as in XOpenDisplay; empty means $DISPLAY. Throws std::runtime_error when no
    // display can be reached.
    explicit X11Clipboard(const std::string& displayName = "");
    ~X11Clipboard() override;
    X11Clipboard(const X11Clipboard&) = delete;
    X11Clipboard& operator=(const X11Clipboard&) = delete;

    // Safe from any thread. Returns once the clipboard is ours and holds `text`; on failure the
    // clipboard keeps what it had.
    void setText(const std::string& text) override;

    std::size_t maxTextBytes() const { return maxTextBytes_; }

  private:
    // The serving thread's part: it alone uses the connection once the thread has started.
    void serve();
    void handle(const XEvent& event);
    void answer(const XSelectionRequestEvent& request);
    bool write(Window requestor, Atom property, Atom target);
    // Makes the window the owner with `text`; answers the failure, or nothing.
    std::optional<std::string> take(std::string text);
    Time serverTime();

    std::unique_ptr<X11Display> display_;
    Window window_ = None;
    Atom clipboard_, targets_, timestamp_, utf8_, textPlain_, timeProperty_;
    std::size_t maxTextBytes_ = 0;
    static constexpr std::chrono::seconds kAnswerTimeout{3};
    X11Wakeup wakeup_;

    // Owned by the serving thread.
    std::string text_;
    bool owner_ = false;
    Time ownedSince_ = CurrentTime;

    // setText calls one at a time, each handing its text to the serving thread.
    std::mutex callers_;
    std::mutex mutex_;
    std::condition_variable answered_;
    std::optional<std::string> requested_;  // text waiting for the serving thread
    bool takeAnswered_ = false;
    std::string takeFailure_;  // of the last take; empty when it succeeded
    bool stopping_ = false;
    bool serving_ = true;

    std::thread thread_;
};

}  // namespace pavix
