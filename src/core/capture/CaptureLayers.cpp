#include "core/capture/CaptureLayers.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace pavix {
namespace {

// Four decimals, halves away from zero.
double rounded(double value) {
    return std::round(value * 10000) / 10000;
}

}  // namespace

CaptureRect CaptureLayers::region(const CaptureRect& window, const CaptureRect& display,
                                  double margin) {
    CaptureRect clipped = window.outset(margin).intersection(display);
    if (clipped.empty()) {
        return window;
    }
    return clipped.integral();
}

std::vector<CaptureLayers::Rect> CaptureLayers::rects(const std::vector<Window>& windows,
                                                      const CaptureRect& region) {
    std::vector<Rect> result;
    if (!(region.width > 0) || !(region.height > 0)) {
        return result;
    }
    for (const auto& window : windows) {
        CaptureRect clip = window.frame.intersection(region);
        if (clip.empty() || clip.width < smallestClip || clip.height < smallestClip) {
            continue;
        }
        result.push_back({rounded((clip.x - region.x) / region.width),
                          rounded((clip.y - region.y) / region.height),
                          rounded(clip.width / region.width), rounded(clip.height / region.height),
                          rounded(window.radius / region.width), window.kind});
    }
    return result;
}

std::vector<CaptureLayers::Window> CaptureLayers::sampled(const std::vector<LayerWindow>& windows) {
    std::vector<Window> result;
    for (const auto& window : windows) {
        if (window.width <= smallestSampledSide || window.height <= smallestSampledSide) {
            continue;
        }
        bool popup = window.kind == LayerWindow::Kind::popup;
        result.push_back({{window.x, window.y, window.width, window.height},
                          popup ? popupRadius : 0.0,
                          popup ? "popup" : "window"});
    }
    return result;
}

bool CaptureLayers::note(std::int64_t atMs, const std::vector<Rect>& rects, std::int64_t interval) {
    if (samples.size() >= maximumSamples) {
        return false;
    }
    if (!samples.empty() && samples.back().rects == rects) {
        return false;
    }
    std::int64_t at = atMs;
    if (!samples.empty()) {
        const auto& last = samples.back();
        bool disappeared = std::any_of(last.rects.begin(), last.rects.end(), [&](const Rect& old) {
            return std::find(rects.begin(), rects.end(), old) == rects.end();
        });
        if (disappeared) {
            // The change happened somewhere within the last interval; the earlier time keeps a
            // closed pop-up from lingering in the track.
            at = std::max(last.atMs, atMs - interval);
        }
    }
    samples.push_back({std::max<std::int64_t>(at, 0), rects});
    return true;
}

nlohmann::json CaptureLayers::payload() const {
    auto list = nlohmann::json::array();
    for (const auto& sample : samples) {
        auto rects = nlohmann::json::array();
        for (const auto& rect : sample.rects) {
            rects.push_back({{"x", rect.x},
                             {"y", rect.y},
                             {"width", rect.width},
                             {"height", rect.height},
                             {"radius", rect.radius},
                             {"kind", rect.kind}});
        }
        list.push_back({{"atMs", sample.atMs}, {"rects", std::move(rects)}});
    }
    return {{"samples", std::move(list)}};
}

CaptureLayers CaptureLayers::fromPayload(const nlohmann::json& json) {
    try {
        CaptureLayers layers;
        for (const auto& sample : json.at("samples")) {
            const auto& atMs = sample.at("atMs");
            if (!atMs.is_number_integer()) {  // a float such as 1e300 fits no integer
                throw std::invalid_argument(
                    "malformed layer track: a sample's time is not a "
                    "whole number of milliseconds");
            }
            Sample read{atMs.get<std::int64_t>(), {}};
            for (const auto& rect : sample.at("rects")) {
                read.rects.push_back(
                    {rect.at("x").get<double>(), rect.at("y").get<double>(),
                     rect.at("width").get<double>(), rect.at("height").get<double>(),
                     rect.at("radius").get<double>(), rect.at("kind").get<std::string>()});
            }
            layers.samples.push_back(std::move(read));
        }
        return layers;
    } catch (const nlohmann::json::exception& error) {
        throw std::invalid_argument(std::string("malformed layer track: ") + error.what());
    }
}

}  // namespace pavix
