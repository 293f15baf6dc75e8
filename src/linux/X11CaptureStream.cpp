#include "linux/X11CaptureStream.h"

#include <time.h>

#include <chrono>
#include <memory>
#include <optional>

#include "core/capture/CaptureLayers.h"
#include "core/capture/CaptureTicks.h"
#include "core/capture/CaptureWriter.h"
#include "core/runtime/ThreadName.h"
#include "linux/CursorOverlay.h"
#include "linux/X11ApplicationGrabber.h"
#include "linux/X11Display.h"
#include "linux/X11ErrorTrap.h"
#include "linux/X11FramePool.h"
#include "linux/X11FrameScaler.h"
#include "linux/X11Monitors.h"
#include "linux/X11ScreenGrabber.h"
#include "linux/X11WindowGrabber.h"
#include "linux/X11WindowInfo.h"

namespace pavix {
namespace {

using Clock = std::chrono::steady_clock;  // CLOCK_MONOTONIC on Linux

std::int64_t monotonicNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

// The region of an application-region filter when the caller gave none: the window with the
// usual margin, clipped to its display.
CaptureRect defaultRegion(X11Display& display, const CaptureFilter& filter) {
    auto frame = X11WindowInfo::geometry(display, filter.windowID);
    if (!frame) {
        throw CaptureError(CaptureError::kNoCaptureSource, "The window no longer exists.");
    }
    CaptureRect screen{0, 0, double(display.screenWidth()), double(display.screenHeight())};
    for (const auto& monitor : X11Monitors::list(display)) {
        CaptureRect area{monitor.x, monitor.y, monitor.width, monitor.height};
        if (monitor.id == filter.displayID ||
            (filter.displayID == 0 &&
             area.contains(frame->x + frame->width / 2, frame->y + frame->height / 2))) {
            screen = area;
            break;
        }
    }
    return CaptureLayers::region(*frame, screen);
}

std::unique_ptr<X11Grabber> makeGrabber(X11Display& display, const CaptureFilter& filter,
                                        const CaptureStreamConfig& config) {
    switch (filter.kind) {
        case CaptureFilter::Kind::window:
            return std::make_unique<X11WindowGrabber>(display, filter.windowID);
        case CaptureFilter::Kind::display:
            return std::make_unique<X11ScreenGrabber>(display, filter.displayID);
        case CaptureFilter::Kind::applicationRegion: {
            CaptureRect region = config.sourceRect.value_or(defaultRegion(display, filter));
            CaptureRect screen{0, 0, double(display.screenWidth()), double(display.screenHeight())};
            region = region.intersection(screen);
            if (region.empty()) {
                throw CaptureError(CaptureError::kFailedToStart,
                                   "The region to capture lies outside the screen.");
            }
            return std::make_unique<X11ApplicationGrabber>(display, filter.windowID, region);
        }
    }
    throw CaptureError(CaptureError::kFailedToStart, "Unknown kind of capture source.");
}

}  // namespace

X11CaptureStream::X11CaptureStream(std::string displayName)
    : displayName_(std::move(displayName)) {}

X11CaptureStream::~X11CaptureStream() {
    stop();
}

void X11CaptureStream::start(const CaptureFilter& filter, const CaptureStreamConfig& config,
                             CaptureStreamHandlers handlers) {
    if (running_) {
        throw CaptureError(CaptureError::kFailedToStart, "The capture stream is already running.");
    }
    if (thread_.joinable()) {
        thread_.join();  // a stream that ended by itself
    }
    if (config.width <= 0 || config.height <= 0 || config.width % 2 != 0 ||
        config.height % 2 != 0) {
        throw CaptureError(CaptureError::kFailedToStart,
                           "The capture size must be positive and even.");
    }
    stopping_ = false;
    running_ = true;
    std::promise<void> started;
    auto ready = started.get_future();
    thread_ = std::thread(&X11CaptureStream::run, this, filter, config, std::move(handlers),
                          std::move(started));
    try {
        ready.get();
    } catch (...) {
        thread_.join();
        throw;
    }
}

void X11CaptureStream::stop() {
    stopping_ = true;
    wakeup_.signal();
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) {
        thread_.join();
    }
}

void X11CaptureStream::run(CaptureFilter filter, CaptureStreamConfig config,
                           CaptureStreamHandlers handlers, std::promise<void> started) {
    nameThisThread("pavix-capture");
    std::optional<X11Display> display;
    std::unique_ptr<X11Grabber> grabber;
    try {
        display.emplace(displayName_);
        // Held for the whole stream: every request of this connection is made on this thread.
        X11ErrorTrap trap(display->get());
        grabber = makeGrabber(*display, filter, config);
        started.set_value();
        try {
            loop(*display, *grabber, config, handlers);
        } catch (const CaptureError& error) {
            if (handlers.error) {
                handlers.error(error);
            }
        } catch (const std::exception& error) {
            if (handlers.error) {
                handlers.error(CaptureError(CaptureError::kSystemStoppedStream, error.what()));
            }
        }
        grabber.reset();  // its X resources go while the trap still holds
    } catch (...) {
        grabber.reset();
        running_ = false;
        started.set_exception(std::current_exception());
        return;
    }
    running_ = false;
}

void X11CaptureStream::loop(X11Display& display, X11Grabber& grabber,
                            const CaptureStreamConfig& config,
                            const CaptureStreamHandlers& handlers) {
    std::optional<CursorOverlay> cursor;
    if (config.showsCursor) {
        cursor.emplace(display.get(), display.root());
    }
    // As many buffers as the writer may hold (those waiting and the one it encodes), and the
    // one being filled.
    X11FramePool pool(CaptureWriter::defaultQueueDepth + 2);
    X11FrameScaler scaler(config.draft);
    const auto interval = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(std::max(config.minimumFrameInterval, 1.0 / 240)));
    const bool yuv = config.layout == PixelLayout::i420;
    const int stride = yuv ? config.width : config.width * 4;
    const std::size_t frameBytes =
        yuv ? std::size_t(stride) * config.height * 3 / 2 : std::size_t(stride) * config.height;
    bool visible = true;
    bool owed = true;  // a complete frame is due even without damage (first or dropped frame)
    int pictureWidth = 0, pictureHeight = 0;  // of the last picture read
    auto next = Clock::now();

    while (!stopping_) {
        next = CaptureTicks::following(next, interval, Clock::now());
        // Handle notifications until the tick is due.
        while (!stopping_) {
            while (XPending(display.get()) > 0) {
                XEvent event;
                XNextEvent(display.get(), &event);
                if (!grabber.handle(event) && cursor) {
                    cursor->handle(event);
                }
            }
            auto now = Clock::now();
            if (now >= next) {
                break;
            }
            wakeup_.wait(display.fd(), next - now);
        }
        if (stopping_) {
            break;
        }

        auto state = grabber.state();
        if (state == X11Grabber::SourceState::vanished) {
            throw CaptureError(CaptureError::kNoCaptureSource, "The captured source is gone.");
        }
        bool nowVisible = state == X11Grabber::SourceState::visible;
        if (nowVisible != visible) {
            visible = nowVisible;
            owed = true;
            if (handlers.visibility) {
                handlers.visibility(visible);
            }
        }
        if (!visible) {
            continue;  // a hidden window has no content: nothing, rather than black frames
        }

        bool changed = grabber.takeChanged();
        if (cursor) {
            auto origin = grabber.origin();
            changed =
                cursor->update(origin.window, origin.x, origin.y, pictureWidth, pictureHeight) ||
                changed;
        }
        if (!changed && !owed) {
            if (handlers.frame) {
                handlers.frame(
                    {config.width, config.height, stride, nullptr, monotonicNs(), false});
            }
            continue;
        }
        // The cursor is drawn on the grabbed picture itself, so a moved cursor needs a fresh
        // picture too.
        XShmImage* image = grabber.grab();
        std::int64_t capturedAt = monotonicNs();
        auto buffer = image ? pool.acquire(frameBytes) : nullptr;
        if (!buffer) {
            owed = true;  // unreadable this tick, or the consumer holds every buffer
            continue;
        }
        if (cursor) {
            if (image->width() != pictureWidth || image->height() != pictureHeight) {
                auto origin = grabber.origin();
                cursor->update(origin.window, origin.x, origin.y, image->width(), image->height());
            }
            cursor->blend(image->data(), image->width(), image->height(), image->stride());
        }
        pictureWidth = image->width();
        pictureHeight = image->height();
        if (!yuv) {
            scaler.scale(image->data(), image->width(), image->height(), image->stride(),
                         buffer->data(), config.width, config.height, stride);
        } else {
            // Converted (and fitted, when the sizes differ) in one pass straight from the
            // grabbed picture: it is read once, and the encoder gets its own layout.
            std::uint8_t* y = buffer->data();
            std::uint8_t* u = y + std::size_t(stride) * config.height;
            std::uint8_t* v = u + std::size_t(stride / 2) * (config.height / 2);
            scaler.scaleToI420(image->data(), image->width(), image->height(), image->stride(),
                               config.width, config.height, y, stride, u, v, stride / 2);
        }
        owed = false;
        if (handlers.frame) {
            VideoFrame frame{config.width,      config.height, stride,
                             std::move(buffer), capturedAt,    /*complete=*/true};
            frame.layout = config.layout;
            handlers.frame(frame);
        }
    }
}

}  // namespace pavix
