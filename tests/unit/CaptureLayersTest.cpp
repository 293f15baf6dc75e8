#include "core/capture/CaptureLayers.h"

#include <gtest/gtest.h>

namespace pavix {
namespace {

using Rect = CaptureLayers::Rect;

TEST(CaptureLayers, RegionIsTheWindowWithAMarginClippedToItsDisplay) {
    CaptureRect display{0, 0, 1920, 1080};
    EXPECT_EQ(CaptureLayers::region({500, 300, 400, 300}, display),
              (CaptureRect{300, 100, 800, 700}));
    // Clipped at the display's edges, with whole-number edges.
    EXPECT_EQ(CaptureLayers::region({100.5, 50.25, 400, 300}, display),
              (CaptureRect{0, 0, 701, 551}));
    // A window far from the display keeps its own frame.
    CaptureRect away{5000, 5000, 300, 200};
    EXPECT_EQ(CaptureLayers::region(away, display), away);
    EXPECT_EQ(CaptureLayers::region({500, 300, 400, 300}, display, 0),
              (CaptureRect{500, 300, 400, 300}));
}

TEST(CaptureLayers, RectsAreRoundedFractionsOfTheRegionAndDropSlivers) {
    CaptureRect region{100, 100, 800, 600};
    std::vector<CaptureLayers::Window> windows = {
        {{300, 200, 400, 300}, 0, "window"},
        {{50, 650, 200, 100}, 12, "popup"},     // clipped on the left and bottom
        {{2000, 2000, 100, 100}, 0, "window"},  // outside
        {{897, 300, 50, 50}, 0, "popup"},       // clipped to 3 points wide
        {{400, 697, 50, 50}, 0, "popup"},       // clipped to 3 points high
        {{300, 300, 1, 1}, 0, "window"},        // tiny
        {{100, 100, 800.0 / 3, 200}, 0, "window"},
    };
    auto rects = CaptureLayers::rects(windows, region);
    ASSERT_EQ(rects.size(), 3u);
    EXPECT_EQ(rects[0], (Rect{0.25, 0.1667, 0.5, 0.5, 0, "window"}));
    EXPECT_EQ(rects[1], (Rect{0, 0.9167, 0.1875, 0.0833, 0.015, "popup"}));
    EXPECT_EQ(rects[2], (Rect{0, 0, 0.3333, 0.3333, 0, "window"}));

    EXPECT_TRUE(CaptureLayers::rects(windows, {100, 100, 0, 600}).empty());
    EXPECT_TRUE(CaptureLayers::rects(windows, {100, 100, 800, -1}).empty());
}

TEST(CaptureLayers, SamplingDropsTinyWindowsAndRoundsPopupCorners) {
    std::vector<LayerWindow> listed = {
        {1, 10, 10, 500, 400, LayerWindow::Kind::window},
        {2, 10, 10, 20, 300, LayerWindow::Kind::popup},
        {3, 10, 10, 300, 20, LayerWindow::Kind::window},
        {4, 60, 70, 21, 21, LayerWindow::Kind::popup},
    };
    auto windows = CaptureLayers::sampled(listed);
    ASSERT_EQ(windows.size(), 2u);
    EXPECT_EQ(windows[0].frame, (CaptureRect{10, 10, 500, 400}));
    EXPECT_EQ(windows[0].kind, "window");
    EXPECT_EQ(windows[0].radius, 0);
    EXPECT_EQ(windows[1].frame, (CaptureRect{60, 70, 21, 21}));
    EXPECT_EQ(windows[1].kind, "popup");
    EXPECT_EQ(windows[1].radius, 12);
}

TEST(CaptureLayers, NoteKeepsOnlyChangesAndBackDatesDisappearances) {
    Rect window{0.1, 0.1, 0.5, 0.5, 0, "window"};
    Rect popup{0.3, 0.4, 0.2, 0.1, 0.015, "popup"};
    CaptureLayers layers;

    EXPECT_TRUE(layers.note(-5, {window}));
    EXPECT_FALSE(layers.note(40, {window}));
    EXPECT_TRUE(layers.note(100, {window, popup}));
    // The pop-up closes: dated one interval before it was seen gone.
    EXPECT_TRUE(layers.note(500, {window}));
    // Something disappears right after the previous sample: never before it.
    EXPECT_TRUE(layers.note(510, {window, popup}));
    EXPECT_TRUE(layers.note(520, {}));
    // A move is a disappearance of the old rectangle too.
    Rect moved = window;
    moved.x = 0.2;
    EXPECT_TRUE(layers.note(1000, {moved}));
    EXPECT_TRUE(layers.note(1100, {moved, popup}, 50));
    EXPECT_TRUE(layers.note(1300, {popup}, 50));

    std::vector<std::int64_t> times;
    for (const auto& sample : layers.samples) {
        times.push_back(sample.atMs);
    }
    EXPECT_EQ(times, (std::vector<std::int64_t>{0, 100, 467, 510, 510, 1000, 1100, 1250}));
    EXPECT_EQ(layers.samples[2].rects, std::vector<Rect>{window});
}

TEST(CaptureLayers, TrackHoldsAtMost2000Samples) {
    CaptureLayers layers;
    for (int i = 0; i < 2000; ++i) {
        ASSERT_TRUE(layers.note(i * 33, {{i / 10000.0, 0, 0.5, 0.5, 0, "window"}}, 0));
    }
    EXPECT_FALSE(layers.note(70000, {{0.9, 0.9, 0.1, 0.1, 0, "popup"}}));
    EXPECT_EQ(layers.samples.size(), 2000u);
}

TEST(CaptureLayers, PayloadHasTheJsonShapeAndReadsBack) {
    CaptureLayers layers;
    layers.note(0, {{0.25, 0.1667, 0.5, 0.5, 0, "window"}});
    layers.note(66, {{0.25, 0.1667, 0.5, 0.5, 0, "window"}, {0, 0.9, 0.2, 0.1, 0.015, "popup"}});
    layers.note(99, {});

    auto payload = layers.payload();
    auto expected = nlohmann::json::parse(R"({"samples": [
        {"atMs": 0, "rects": [{"x": 0.25, "y": 0.1667, "width": 0.5, "height": 0.5,
                               "radius": 0.0, "kind": "window"}]},
        {"atMs": 66, "rects": [{"x": 0.25, "y": 0.1667, "width": 0.5, "height": 0.5,
                                "radius": 0.0, "kind": "window"},
                               {"x": 0.0, "y": 0.9, "width": 0.2, "height": 0.1,
                                "radius": 0.015, "kind": "popup"}]},
        {"atMs": 66, "rects": []}]})");
    EXPECT_EQ(payload, expected);
    EXPECT_TRUE(payload["samples"][0]["atMs"].is_number_integer());
    EXPECT_EQ(CaptureLayers::fromPayload(payload), layers);
    EXPECT_EQ(
        CaptureLayers::fromPayload(nlohmann::json::parse(R"({"samples": []})")).samples.size(), 0u);
    // A time that is no whole number of milliseconds (1e300 fits no integer) is refused.
    for (const char* atMs : {R"("x")", "1e300", "12.5"}) {
        EXPECT_THROW(CaptureLayers::fromPayload(nlohmann::json::parse(
                         std::string(R"({"samples": [{"atMs": )") + atMs + R"(, "rects": []}]})")),
                     std::invalid_argument)
            << atMs;
    }
    EXPECT_THROW(CaptureLayers::fromPayload(nlohmann::json::object()), std::invalid_argument);
}

}  // namespace
}  // namespace pavix
