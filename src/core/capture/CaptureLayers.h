#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/capture/CaptureRect.h"
#include "platform/WindowLayers.h"

namespace pavix {

// The layer track of a window recording: time-stamped rectangles saying where the recorded
// window and its pop-ups were inside the recorded region.
struct CaptureLayers {
    // Position and size are fractions of the recorded region, rounded to 4 decimals; `radius`
    // is the corner radius as a fraction of the region's width.
    struct Rect {
        double x = 0, y = 0, width = 0, height = 0, radius = 0;
        std::string kind;  // "window" or "popup"
        bool operator==(const Rect&) const = default;
    };

    struct Sample {
        std::int64_t atMs = 0;  // since the recording started, never negative
        std::vector<Rect> rects;
        bool operator==(const Sample&) const = default;
    };

    // A window as the sampling sees it, before it is made relative to the region.
    struct Window {
        CaptureRect frame;
        double radius = 0;
        std::string kind;
    };

    static constexpr std::size_t maximumSamples = 2000;
    static constexpr std::int64_t samplingIntervalMs = 33;
    static constexpr double defaultMargin = 200;
    static constexpr double popupRadius = 12;
    // Windows this size or smaller on either side are ignored by the sampling.
    static constexpr double smallestSampledSide = 20;
    // Rectangles clipped below this size on either side are dropped.
    static constexpr double smallestClip = 4;

    std::vector<Sample> samples;

    // The window's frame grown by `margin` on every side and clipped to its display, with
    // whole-number edges; the window's frame itself when that clip is empty.
    static CaptureRect region(const CaptureRect& window, const CaptureRect& display,
                              double margin = defaultMargin);

    // The windows' frames relative to `region`, in order; windows outside it or clipped to a
    // sliver are dropped. Empty when the region has no area.
    static std::vector<Rect> rects(const std::vector<Window>& windows, const CaptureRect& region);

    // The sampling's reading of the window system's list: tiny windows dropped, pop-ups given
    // their corner radius.
    static std::vector<Window> sampled(const std::vector<LayerWindow>& windows);

    // Appends a sample when it changes something and the track is not full; answers whether it
    // did. A sample in which something disappeared is dated one interval earlier, never before
    // the previous sample.
    bool note(std::int64_t atMs, const std::vector<Rect>& rects,
              std::int64_t interval = samplingIntervalMs);

    // {"samples": [{"atMs": 0, "rects": [{"x", "y", "width", "height", "radius", "kind"}]}]}
    nlohmann::json payload() const;
    // Reads the payload form back; throws std::invalid_argument when it is malformed.
    static CaptureLayers fromPayload(const nlohmann::json& json);

    bool operator==(const CaptureLayers&) const = default;
};

}  // namespace pavix
