#include "linux/X11Clipboard.h"

#include <X11/Xatom.h>

#include <chrono>
#include <iterator>
#include <stdexcept>

#include "core/runtime/Text.h"
#include "core/runtime/ThreadName.h"
#include "linux/X11ErrorTrap.h"

namespace pavix {
namespace {

std::unique_ptr<X11Display> openDisplay(const std::string& name) {
    try {
        return std::make_unique<X11Display>(name);
    } catch (const std::exception& error) {
        throw std::runtime_error(std::string("The clipboard is not available: ") + error.what());
    }
}

// STRING is ISO Latin-1: characters beyond it (and malformed UTF-8) become '?'.
std::string latin1FromUtf8(const std::string& text) {
    std::string latin1;
    for (char32_t code : Text::characters(text)) {
        latin1 += code <= 0xFF ? static_cast<char>(code) : '?';
    }
    return latin1;
}

struct TimestampMatch {
    Window window;
    Atom property;
};

Bool isTimestamp(Display*, XEvent* event, XPointer argument) {
    auto* match = reinterpret_cast<TimestampMatch*>(argument);
    return event->type == PropertyNotify && event->xproperty.window == match->window &&
           event->xproperty.atom == match->property;
}

}  // namespace

X11Clipboard::X11Clipboard(const std::string& displayName) : display_(openDisplay(displayName)) {
    Display* d = display_->get();
    clipboard_ = display_->atom("CLIPBOARD");
    targets_ = display_->atom("TARGETS");
    timestamp_ = display_->atom("TIMESTAMP");
    utf8_ = display_->atom("UTF8_STRING");
    textPlain_ = display_->atom("text/plain;charset=utf-8");
    timeProperty_ = display_->atom("_PAVIX_CLIPBOARD_TIME");

    // ChangeProperty carries 24 bytes besides the data, 28 as a big request; the sizes are in
    // 4-byte units. Without BIG-REQUESTS the extended size is 0.
    long units = XExtendedMaxRequestSize(d);
    if (units == 0) {
        units = XMaxRequestSize(d);
    }
    maxTextBytes_ = static_cast<std::size_t>(units) * 4 - 28;

    window_ = XCreateSimpleWindow(d, display_->root(), -10, -10, 1, 1, 0, 0, 0);
    XStoreName(d, window_, "Pavix clipboard");
    XSelectInput(d, window_, PropertyChangeMask);
    XFlush(d);
    thread_ = std::thread([this] { serve(); });
}

X11Clipboard::~X11Clipboard() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wakeup_.signal();
    thread_.join();
    // The server gives the selection up with the window; a reader that is still waiting gets no
    // answer, which ICCCM readers time out on.
    XDestroyWindow(display_->get(), window_);
    XSync(display_->get(), False);
}

void X11Clipboard::setText(const std::string& text) {
    if (text.size() > maxTextBytes_) {
        throw std::runtime_error("The text is too large for the clipboard (" +
                                 std::to_string(text.size()) + " bytes; at most " +
                                 std::to_string(maxTextBytes_) + ").");
    }
    std::lock_guard caller(callers_);
    std::unique_lock lock(mutex_);
    if (!serving_) {
        throw std::runtime_error("The clipboard is no longer served.");
    }
    requested_ = text;
    takeAnswered_ = false;
    wakeup_.signal();
    // The serving thread answers within one round trip to the X server; a server that does
    // not answer costs a bounded wait, never a hung caller.
    if (!answered_.wait_for(lock, kAnswerTimeout, [&] { return takeAnswered_ || !serving_; })) {
        throw std::runtime_error("The clipboard did not answer.");
    }
    if (!takeAnswered_) {
        throw std::runtime_error("The clipboard is no longer served.");
    }
    if (!takeFailure_.empty()) {
        throw std::runtime_error(takeFailure_);
    }
}

void X11Clipboard::serve() {
    nameThisThread("pavix-clipboard");
    Display* d = display_->get();
    try {
        for (;;) {
            // Round trips made while handling an event may queue further events in Xlib, where
            // poll cannot see them: drain the queue before every wait.
            while (XPending(d) > 0) {
                XEvent event;
                XNextEvent(d, &event);
                handle(event);
            }
            std::optional<std::string> text;
            {
                std::lock_guard lock(mutex_);
                if (stopping_) {
                    break;
                }
                text.swap(requested_);
            }
            if (text) {
                auto failure = take(std::move(*text));
                std::lock_guard lock(mutex_);
                takeFailure_ = failure.value_or("");
                takeAnswered_ = true;
                answered_.notify_all();
                continue;
            }
            // The time-out only bounds one wait; the loop waits again.
            wakeup_.wait(display_->fd(), std::chrono::hours(1));
        }
    } catch (const std::exception&) {
        // Nothing here throws but the allocation of a text; callers then learn that the
        // clipboard is gone instead of waiting for it.
    }
    std::lock_guard lock(mutex_);
    serving_ = false;
    answered_.notify_all();
}

void X11Clipboard::handle(const XEvent& event) {
    if (event.type == SelectionRequest) {
        answer(event.xselectionrequest);
    } else if (event.type == SelectionClear && event.xselectionclear.selection == clipboard_ &&
               event.xselectionclear.window == window_) {
        // Another application owns the clipboard now; its readers go there.
        owner_ = false;
        text_.clear();
    }
}

void X11Clipboard::answer(const XSelectionRequestEvent& request) {
    Display* d = display_->get();
    XSelectionEvent reply{};
    reply.type = SelectionNotify;
    reply.display = d;
    reply.requestor = request.requestor;
    reply.selection = request.selection;
    reply.target = request.target;
    reply.time = request.time;
    reply.property = None;
    // Clients older than ICCCM 2.0 name no property and expect the data in one named after
    // the target.
    Atom property = request.property != None ? request.property : request.target;
    // The requestor's window may be gone by now, and a huge property may not fit in the
    // server's memory: such errors refuse the request instead of ending the process.
    X11ErrorTrap trap(d);
    if (owner_ && request.selection == clipboard_ && request.owner == window_ &&
        write(request.requestor, property, request.target) && trap.sync() == 0) {
        reply.property = property;
    }
    XSendEvent(d, request.requestor, False, NoEventMask, reinterpret_cast<XEvent*>(&reply));
}

bool X11Clipboard::write(Window requestor, Atom property, Atom target) {
    Display* d = display_->get();
    if (target == targets_) {
        // Format-32 data travels as an array of long, which Atom is.
        Atom offered[] = {targets_, timestamp_, utf8_, textPlain_, XA_STRING};
        XChangeProperty(d, requestor, property, XA_ATOM, 32, PropModeReplace,
                        reinterpret_cast<unsigned char*>(offered),
                        static_cast<int>(std::size(offered)));
        return true;
    }
    if (target == timestamp_) {
        long time = static_cast<long>(ownedSince_);
        XChangeProperty(d, requestor, property, XA_INTEGER, 32, PropModeReplace,
                        reinterpret_cast<unsigned char*>(&time), 1);
        return true;
    }
    if (target == utf8_ || target == textPlain_) {
        XChangeProperty(d, requestor, property, target, 8, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(text_.data()),
                        static_cast<int>(text_.size()));
        return true;
    }
    if (target == XA_STRING) {
        auto latin1 = latin1FromUtf8(text_);
        XChangeProperty(d, requestor, property, XA_STRING, 8, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(latin1.data()),
                        static_cast<int>(latin1.size()));
        return true;
    }
    return false;
}

std::optional<std::string> X11Clipboard::take(std::string text) {
    Display* d = display_->get();
    Time time = serverTime();
    XSetSelectionOwner(d, clipboard_, window_, time);
    if (XGetSelectionOwner(d, clipboard_) != window_) {
        return "The clipboard could not be taken: another application holds it.";
    }
    text_ = std::move(text);
    owner_ = true;
    ownedSince_ = time;
    return std::nullopt;
}

Time X11Clipboard::serverTime() {
    // ICCCM asks owners for the time of the event that made them take the selection, not
    // CurrentTime, so that requests crossing on the wire settle in the order users made them.
    // A zero-length append to a property of our own window changes nothing but reports the
    // server's time in its PropertyNotify. XIfEvent leaves every other event queued.
    Display* d = display_->get();
    XChangeProperty(d, window_, timeProperty_, XA_INTEGER, 32, PropModeAppend, nullptr, 0);
    TimestampMatch match{window_, timeProperty_};
    XEvent event;
    XIfEvent(d, &event, &isTimestamp, reinterpret_cast<XPointer>(&match));
    return event.xproperty.time;
}

}  // namespace pavix
