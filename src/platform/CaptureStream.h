#pragma once

#include <functional>
#include <optional>

#include "core/capture/CaptureError.h"
#include "core/capture/CaptureFilter.h"
#include "core/capture/CaptureRect.h"
#include "platform/VideoFrame.h"

namespace pavix {

struct CaptureStreamConfig {
    // The size of the delivered pictures in pixels (even numbers). Content of another size is
    // scaled to fit with its aspect kept, centred on black.
    int width = 0;
    int height = 0;
    bool showsCursor = true;
    // Pictures for a preview: reduced quickly and roughly rather than filtered as for a video.
    bool draft = false;
    // The layout of the delivered pictures: BGRA, or the encoder's own 4:2:0 for a recording,
    // converted once on the capture thread straight from the grabbed picture.
    PixelLayout layout = PixelLayout::bgra;
    // The shortest time between two frames; 1/60 s gives up to 60 frames a second.
    double minimumFrameInterval = 1.0 / 60.0;
    // For an application-region filter: the recorded part of the screen, in root coordinates.
    // When absent, the window with a margin around it, clipped to its display, is recorded.
    std::optional<CaptureRect> sourceRect;
};

struct CaptureStreamHandlers {
    // Every tick: a complete frame when the content changed, else an idle frame
    // (`complete` false, no pixels). Pixels are laid out as asked; in BGRA the fourth byte is
    // opaque or undefined.
    std::function<void(const VideoFrame&)> frame;
    // The stream stopped by itself: the source vanished (-3815) or the window system failed.
    // No frame follows.
    std::function<void(const CaptureError&)> error;
    // The recorded window was minimised or hidden (false), or shown again (true). No frames are
    // delivered while it is hidden: it has no content then.
    std::function<void(bool visible)> visibility;
};

// A stream of pictures of one window, display or application region. Handlers run on the
// stream's own capture thread; they must return quickly and must not destroy the stream (they
// may call `stop`).
class CaptureStream {
  public:
    virtual ~CaptureStream() = default;
    // Returns once the stream runs; throws CaptureError when it cannot start (-3815 when the
    // source does not exist, -3802 when it cannot be captured now, for instance a minimised
    // window).
    virtual void start(const CaptureFilter& filter, const CaptureStreamConfig& config,
                       CaptureStreamHandlers handlers) = 0;
    // Ends the stream; no handler runs after it returns (unless called from a handler). Safe to
    // call when the stream is not running.
    virtual void stop() = 0;
};

}  // namespace pavix
