// The capture's pure rules: which sources are offered, the disk and presence guards and their
// sentences, the sizes and bit rates a source is encoded at, and the layer track.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>

#include "core/capture/CaptureEncoding.h"
#include "core/capture/CaptureError.h"
#include "core/capture/CaptureGuards.h"
#include "core/capture/CaptureLayers.h"
#include "core/capture/CaptureSources.h"
#include "core/capture/CaptureTicks.h"
#include "core/capture/CaptureWriter.h"
#include "core/capture/EncoderBudget.h"
#include "support/FakeVideoEncoder.h"

namespace pavix {
namespace {

ShareableWindow window(std::uint32_t id, std::string title, double width, double height,
                       std::optional<std::string> app = "Text Editor", std::int32_t pid = 100) {
    ShareableWindow w;
    w.id = id;
    w.title = std::move(title);
    w.appName = std::move(app);
    w.appId = "org.example.Editor";
    w.pid = pid;
    w.width = width;
    w.height = height;
    w.onScreen = true;
    return w;
}

// A source as one line: id, title, what its filter captures, its size and the ids it watches.
std::vector<std::string> described(const std::vector<CaptureSource>& sources) {
    std::vector<std::string> lines;
    auto ids = [](const std::vector<std::uint32_t>& list) {
        std::string text;
        for (auto id : list) {
            text += " " + std::to_string(id);
        }
        return text;
    };
    for (const auto& s : sources) {
        const auto& f = s.filter;
        lines.push_back(s.id + " | " + s.title + " | " +
                        (f.kind == CaptureFilter::Kind::window ? "window " : "display ") +
                        std::to_string(f.windowID) + " " + std::to_string(f.displayID) + " " +
                        f.appId + " | " + std::to_string(s.width) + "x" + std::to_string(s.height) +
                        " |" + ids(s.windowIDs) + " |" + ids(s.displayIDs));
    }
    return lines;
}

TEST(CaptureSources, ListsTitledWindowsOfAtLeast320By200ButItsOwnThenDisplays) {
    ShareableContentSnapshot content;
    content.windows = {window(11, "Notes", 320, 200),
                       window(12, "Too narrow", 319, 600),
                       window(13, "Too short", 800, 199),
                       window(14, "", 800, 600),
                       window(15, "Huge", std::numeric_limits<double>::infinity(), 600),
                       window(16, "Unknown size", std::nan(""), 600),
                       window(17, "Report", 1024.6, 768.2, std::nullopt),
                       window(18, "Pavix", 900, 600, "Pavix", 999),
                       window(19, "Pavix Capture Demo", 800, 500, "Pavix", 999)};
    content.displays = {{4242, 0, 0, 1920, 1080}};
    EXPECT_EQ(
        described(CaptureSources::list(content, 999)),
        (std::vector<std::string>{
            "window-11 | Text Editor — Notes | window 11 0 org.example.Editor | 320x200 | 11 |",
            "window-17 | App — Report | window 17 0 org.example.Editor | 1024x768 | 17 |",
            "window-19 | Pavix — Pavix Capture Demo | window 19 0 org.example.Editor | "
            "800x500 | 19 |",
            "display-4242 | Entire display 4242 (includes other visible apps) | display 0 "
            "4242  | 1920x1080 | | 4242"}));
    EXPECT_EQ(CaptureSources::list(content, 0).size(), 5u);  // none is its own

    // A picked window keeps the id rule but says only that it was selected; a window without a
    // title is named by the fallback.
    auto picked = CaptureSources::pickedWindowSource(window(23, "", 640, 480));
    EXPECT_EQ(picked.id, "window-23");
    EXPECT_EQ(picked.title, "Selected window");
    EXPECT_EQ(CaptureSources::windowSource(window(23, "", 640, 480)).title,
              "Text Editor \u2014 Window");
}

TEST(CaptureSources, DefaultIsTheLastTitleElseTheFirstWindowElseTheFirstDisplay) {
    ShareableContentSnapshot content;
    content.windows = {window(31, "First", 800, 600), window(32, "Second", 800, 600)};
    content.displays = {{9, 0, 0, 1920, 1080}};
    auto sources = CaptureSources::list(content, 0);
    EXPECT_EQ(CaptureSources::defaultSource(sources, "Text Editor \u2014 Second")->id, "window-32");
    EXPECT_EQ(CaptureSources::defaultSource(sources, "Gone \u2014 Window")->id, "window-31");
    EXPECT_EQ(CaptureSources::defaultSource(sources, std::nullopt)->id, "window-31");
    EXPECT_EQ(CaptureSources::defaultSource({sources[2]}, std::nullopt)->id, "display-9");
    EXPECT_EQ(CaptureSources::defaultSource({}, "x"), std::nullopt);
}

TEST(CaptureGuards, FreeSpaceAndPresenceOfTheSource) {
    using CaptureGuards::presence;
    EXPECT_EQ(CaptureGuards::startBlocked(524'288'000, "Videos/Pavix"), std::nullopt);
    EXPECT_EQ(CaptureGuards::startBlocked(524'287'999, "Videos/Pavix"),
              "Not enough free disk space to record safely (need 500 MB in Videos/Pavix).");
    EXPECT_EQ(CaptureGuards::startBlocked(std::nullopt, "Videos/Pavix"),
              "Could not check free disk space for Videos/Pavix.");
    // A running recording stops only below 150 MiB known free.
    EXPECT_EQ(CaptureGuards::recordingBlocked(157'286'400), std::nullopt);
    EXPECT_EQ(CaptureGuards::recordingBlocked(157'286'399),
              "Disk almost full. Recording stopped and the local capture was saved.");
    EXPECT_EQ(CaptureGuards::recordingBlocked(std::nullopt), std::nullopt);

    // Displays are checked before windows; the first window with the id decides.
    EXPECT_EQ(presence({}, {7}, {}, {7}), SourcePresence::present);
    EXPECT_EQ(presence({}, {7}, {}, {8}), SourcePresence::displayDisconnected);
    EXPECT_EQ(presence({5}, {7}, {{5, true}}, {}), SourcePresence::displayDisconnected);
    EXPECT_EQ(presence({5}, {}, {{4, true}}, {1}), SourcePresence::windowClosed);
    EXPECT_EQ(presence({5}, {}, {{5, false}}, {1}), SourcePresence::windowHidden);
    EXPECT_EQ(presence({5}, {}, {{5, true}, {5, false}}, {1}), SourcePresence::present);
    EXPECT_EQ(CaptureGuards::message(SourcePresence::present), std::nullopt);
    EXPECT_NE(CaptureGuards::message(SourcePresence::windowClosed)->find("window closed"),
              std::string::npos);
}

TEST(CaptureGuards, ServerCodesAndCaptureFailuresBecomeSentences) {
    using CaptureGuards::describe;
    EXPECT_EQ(describe("app_update_required", 426),
              "This version of Pavix is too old for the server. Update Pavix from "
              "pavix.app/download, then share again. Local videos are preserved.");
    // Codes are compared exactly; anything else falls back on the status.
    EXPECT_EQ(describe("Pairing_Code_Invalid", 0),
              "Connection unavailable. Try sharing again; your local files are preserved.");
    EXPECT_EQ(describe("something_new", 418),
              "Server refused the request (418). Try sharing again; your local files are "
              "preserved.");
    EXPECT_EQ(describe(CaptureError(-3806, "detail"), "Videos/Pavix"),
              "The selected source is no longer available. Recording stopped; any saved capture "
              "remains in Videos/Pavix.");
    EXPECT_EQ(describe(CaptureError(-3999, "detail"), "Videos/Pavix"),
              "Capture failed (-3999). Any saved video remains in Videos/Pavix.");
    EXPECT_EQ(describe(std::runtime_error("plain failure"), "Videos/Pavix"), "plain failure");
}

CaptureEncoding enc(std::int64_t w, std::int64_t h, std::int64_t bitrate, bool hardware) {
    return CaptureEncoding{CaptureGeometry{w, h}, bitrate, hardware};
}

TEST(CaptureGeometry, ShrinksToTheSmallerRatioAndRefusesWhatIsNotFiniteAndPositive) {
    EXPECT_EQ(CaptureGeometry::make(50000, 10, 1.0), std::nullopt);  // height shrinks below 2
    EXPECT_EQ(CaptureGeometry::make(5000, 10, 1.0), (CaptureGeometry{2560, 4}));
    EXPECT_EQ(CaptureGeometry::make(3840, 1080, 1.0, 1920, 1080), (CaptureGeometry{1920, 540}));
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (double bad : {0.0, -1.0, nan, std::numeric_limits<double>::infinity()}) {
        EXPECT_EQ(CaptureGeometry::make(bad, 600), std::nullopt) << bad;
        EXPECT_EQ(CaptureGeometry::make(800, bad), std::nullopt) << bad;
        EXPECT_EQ(CaptureGeometry::make(800, 600, bad), std::nullopt) << bad;
        EXPECT_TRUE(CaptureEncoding::candidates(bad, 600, 1).empty()) << bad;
    }
    // A finite size whose pixel size overflows.
    EXPECT_EQ(CaptureGeometry::make(1e308, 600, 1e10), std::nullopt);
}

TEST(CaptureEncoding, BitRatesStepDeliberatelyAt921600Pixels) {
    EXPECT_EQ(CaptureEncoding::bitrateFor(2560, 1440), 6'000'000);
    EXPECT_EQ(CaptureEncoding::bitrateFor(1920, 1080), 4'000'000);
    EXPECT_EQ(CaptureEncoding::bitrateFor(1280, 720), 2'778'000);
    EXPECT_EQ(CaptureEncoding::bitrateFor(1280, 722), 1'783'000);
    EXPECT_EQ(CaptureEncoding::bitrateFor(2, 2), 1'000);
    EXPECT_EQ(CaptureEncoding::bitrateFor(2073601, 1), 3'375'000);  // top tier
}

// One candidate a cap (2560×1440, 1920×1080, 1280×720), largest first, none twice and none
// enlarged; a size needs the hardware encoder only above the pixels of 1920×1080.
TEST(CaptureEncoding, CandidatesAreTheSourceUnderEachCapLargestFirstWithoutDuplicates) {
    const std::vector<std::tuple<const char*, std::array<double, 3>, std::vector<CaptureEncoding>>>
        cases{{"a Retina display",
               {1512, 982, 2.0},
               {enc(2216, 1440, 5'194'000, true), enc(1662, 1080, 3'463'000, false),
                enc(1108, 720, 2'422'000, false)}},
              {"odd", {1001, 601, 1.0}, {enc(1000, 600, 1'848'000, false)}},
              {"the smallest", {3, 3, 1.0}, {enc(2, 2, 1'000, false)}},
              {"too small", {1, 1, 1.0}, {}},
              {"the same size under two caps",
               {1600, 900, 1.0},
               {enc(1600, 900, 2'778'000, false), enc(1280, 720, 2'778'000, false)}},
              {"exactly full HD",
               {1920, 1080, 1.0},
               {enc(1920, 1080, 4'000'000, false), enc(1280, 720, 2'778'000, false)}},
              {"two columns more than full HD",
               {1922, 1080, 1.0},
               {enc(1922, 1080, 3'379'000, true), enc(1920, 1078, 3'993'000, false),
                enc(1280, 718, 2'770'000, false)}},
              {"below 2 rows under every cap", {2073601, 1, 1.0}, {}}};
    for (const auto& [name, source, expected] : cases) {
        const auto [width, height, scale] = source;
        EXPECT_EQ(CaptureEncoding::candidates(width, height, scale), expected) << name;
    }
}

TEST(CaptureEncoding, TheFirstCandidateUnderTheUsersCapThatTheEncoderTakesIsChosen) {
    auto candidates = CaptureEncoding::candidates(1512, 982, 2.0);
    std::vector<std::int64_t> asked;
    auto chosen = CaptureEncoding::choose(candidates, [&](const CaptureEncoding& e) {
        asked.push_back(e.size.width);
        return !e.requiresHardware;
    });
    ASSERT_TRUE(chosen);
    EXPECT_EQ(chosen->size, (CaptureGeometry{1662, 1080}));
    EXPECT_EQ(asked, (std::vector<std::int64_t>{2216, 1662}));
    EXPECT_EQ(CaptureEncoding::choose(candidates, [](const auto&) { return false; }), std::nullopt);

    // "captureMaxWidth" is read first: a wider candidate never reaches the encoder; an equal
    // one does, with the encoding's real settings.
    testing::FakeEncoderProbe probe;
    probe.rule = [](const VideoEncoderSettings& s) { return !s.requiresHardware; };
    EXPECT_FALSE(CaptureWriter::canEncode(candidates[0], 2215, probe));
    EXPECT_TRUE(probe.asked.empty());
    EXPECT_TRUE(CaptureWriter::canEncode(candidates[1], 1662, probe));
    EXPECT_FALSE(CaptureWriter::canEncode(candidates[0], std::nullopt, probe));
    ASSERT_EQ(probe.asked.size(), 2u);
    const auto& s = probe.asked[1];
    EXPECT_EQ(s.width, 2216);
    EXPECT_EQ(s.height, 1440);
    EXPECT_EQ(s.bitrate, 5'194'000);
    EXPECT_EQ(s.frameRate, 60);
    EXPECT_EQ(s.maxKeyFrameIntervalNs, 2'000'000'000);
    EXPECT_TRUE(s.requiresHardware);
}

// Costs in CPU seconds per second of video per million pixels, at 60 fps; a size needing
// hardware costs nothing.
TEST(EncoderBudget, TheLargestSizeAndEffortThatHoldsTheFrameRateWithinHalfTheMachine) {
    struct Case {
        const char* name;
        unsigned processors;
        double full, reduced;
        bool hardware;         // the 2560×1440 candidate is among the kept
        const char* expected;  // "WxH effort" of the chosen encoding, then fall-backs
        bool fits;
        int asked;  // costs measured
    };
    const Case cases[] = {
        {"four processors hold 1080p at full effort", 4, 0.6, 0.4, false,
         "1920x1080 full, 1280x720 full", true, 2},
        {"two fall back to reduced effort", 2, 0.6, 0.4, false, "1920x1080 reduced, 1280x720 full",
         true, 3},
        {"one keeps full effort at a smaller size", 1, 0.5, 0.4, false, "1280x720 full", true, 3},
        {"nothing fits: the smallest at reduced effort", 1, 2.0, 1.5, false, "1280x720 reduced",
         false, 4},
        {"an unknown processor count counts as one", 0, 0.5, 0.4, false, "1280x720 full", true, 3},
        {"a hardware encoder costs the processors nothing", 2, 0.6, 0.4, true,
         "2560x1440 full, 1920x1080 reduced, 1280x720 full", true, 4},
    };
    for (const auto& c : cases) {
        auto kept = CaptureEncoding::candidates(2560, 1440, 1.0);
        ASSERT_EQ(kept.size(), 3u);
        if (!c.hardware) {
            kept.erase(kept.begin());
        }
        int asked = 0;
        auto cost = [&](const CaptureEncoding& e) -> std::optional<double> {
            ++asked;
            if (e.requiresHardware) {
                return std::nullopt;
            }
            const double perMillion = e.effort == EncoderEffort::full ? c.full : c.reduced;
            return double(e.size.width * e.size.height) / 1e6 * perMillion / 60;
        };
        const auto plan = EncoderBudget::plan(kept, cost, c.processors, 60);
        std::string chosen;
        for (const auto& e : plan.encodings) {
            chosen += (chosen.empty() ? "" : ", ") + std::to_string(e.size.width) + "x" +
                      std::to_string(e.size.height) +
                      (e.effort == EncoderEffort::full ? " full" : " reduced");
        }
        EXPECT_EQ(chosen, c.expected) << c.name;
        EXPECT_EQ(plan.fits, c.fits) << c.name;
        EXPECT_EQ(asked, c.asked) << c.name;
        EXPECT_DOUBLE_EQ(plan.budget, 0.5 * std::max(1u, c.processors)) << c.name;
        EXPECT_EQ(CaptureWriter::settings(plan.encodings.front()).effort,
                  plan.encodings.front().effort)
            << c.name;
    }
    EXPECT_TRUE(EncoderBudget::plan(
                    {}, [](const auto&) { return 1.0; }, 2, 60)
                    .encodings.empty());

    auto two = CaptureEncoding::candidates(1920, 1080, 1.0);
    auto fixed = [](double full, double reduced) {
        return [=](const CaptureEncoding& e) {
            return std::optional(e.effort == EncoderEffort::full ? full : reduced);
        };
    };
    EXPECT_EQ(EncoderBudget::describe(EncoderBudget::plan(two, fixed(0.02, 0.014), 2, 60)),
              "encoder: 1920x1080 at reduced effort, 0.84 of 1.00 CPU s/s");
    EXPECT_EQ(EncoderBudget::describe(EncoderBudget::plan(two, fixed(0.03, 0.02), 2, 60)),
              "encoder: 1280x720 at reduced effort, 1.20 of 1.00 CPU s/s (over budget: frames "
              "may be shed)");
}

using Rect = CaptureLayers::Rect;

TEST(CaptureTicks, ALateTickIsTakenAtOnceAndOnlyAWholeTickBehindAreTicksSkipped) {
    using namespace std::chrono;
    const steady_clock::time_point due{seconds(100)};
    const auto interval = duration_cast<steady_clock::duration>(microseconds(16667));
    const struct {
        milliseconds seen;  // after `due`
        steady_clock::time_point next;
    } cases[] = {
        {milliseconds(3), due + interval},             // waiting for the next
        {milliseconds(20), due + interval},            // late by 3 ms: taken now, times kept
        {milliseconds(33), due + interval},            // late by almost a tick: still taken
        {milliseconds(34), due + milliseconds(34)},    // a whole tick behind: one skipped
        {milliseconds(500), due + milliseconds(500)},  // a long stall: no burst after it
    };
    for (const auto& c : cases) {
        EXPECT_EQ(CaptureTicks::following(due, interval, due + c.seen), c.next) << c.seen.count();
    }
}

TEST(CaptureLayers, RegionIsTheWindowWithAMarginClippedToItsDisplay) {
    CaptureRect display{0, 0, 1920, 1080};
    EXPECT_EQ(CaptureLayers::region({500, 300, 400, 300}, display),
              (CaptureRect{300, 100, 800, 700}));
    // Clipped at the display's edges, with whole-number edges.
    EXPECT_EQ(CaptureLayers::region({100.5, 50.25, 400, 300}, display),
              (CaptureRect{0, 0, 701, 551}));
    CaptureRect away{5000, 5000, 300, 200};  // far from the display: its own frame
    EXPECT_EQ(CaptureLayers::region(away, display), away);
    EXPECT_EQ(CaptureLayers::region({500, 300, 400, 300}, display, 0),
              (CaptureRect{500, 300, 400, 300}));
}

TEST(CaptureLayers, RectsAreRoundedFractionsOfTheRegionWithoutTinyWindowsOrSlivers) {
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
    EXPECT_EQ(CaptureLayers::rects(windows, region),
              (std::vector<Rect>{{0.25, 0.1667, 0.5, 0.5, 0, "window"},
                                 {0, 0.9167, 0.1875, 0.0833, 0.015, "popup"},
                                 {0, 0, 0.3333, 0.3333, 0, "window"}}));
    EXPECT_TRUE(CaptureLayers::rects(windows, {100, 100, 0, 600}).empty());
    EXPECT_TRUE(CaptureLayers::rects(windows, {100, 100, 800, -1}).empty());

    // Sampling drops windows under 21 points either way and rounds the corners of pop-ups.
    auto sampled = CaptureLayers::sampled({{1, 10, 10, 500, 400, LayerWindow::Kind::window},
                                           {2, 10, 10, 20, 300, LayerWindow::Kind::popup},
                                           {3, 10, 10, 300, 20, LayerWindow::Kind::window},
                                           {4, 60, 70, 21, 21, LayerWindow::Kind::popup}});
    ASSERT_EQ(sampled.size(), 2u);
    EXPECT_EQ(sampled[0].frame, (CaptureRect{10, 10, 500, 400}));
    EXPECT_EQ(sampled[0].kind, "window");
    EXPECT_EQ(sampled[0].radius, 0);
    EXPECT_EQ(sampled[1].frame, (CaptureRect{60, 70, 21, 21}));
    EXPECT_EQ(sampled[1].kind, "popup");
    EXPECT_EQ(sampled[1].radius, 12);
}

TEST(CaptureLayers, NoteKeepsOnlyChangesBackDatesDisappearancesAndHolds2000Samples) {
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

    CaptureLayers full;
    for (int i = 0; i < 2000; ++i) {
        ASSERT_TRUE(full.note(i * 33, {{i / 10000.0, 0, 0.5, 0.5, 0, "window"}}, 0));
    }
    EXPECT_FALSE(full.note(70000, {popup}));
    EXPECT_EQ(full.samples.size(), 2000u);
}

TEST(CaptureLayers, PayloadHasTheJsonShapeAndReadsBack) {
    CaptureLayers layers;
    layers.note(0, {{0.25, 0.1667, 0.5, 0.5, 0, "window"}});
    layers.note(66, {{0.25, 0.1667, 0.5, 0.5, 0, "window"}, {0, 0.9, 0.2, 0.1, 0.015, "popup"}});
    layers.note(99, {});
    auto payload = layers.payload();
    EXPECT_EQ(payload, nlohmann::json::parse(R"({"samples": [
        {"atMs": 0, "rects": [{"x": 0.25, "y": 0.1667, "width": 0.5, "height": 0.5,
                               "radius": 0.0, "kind": "window"}]},
        {"atMs": 66, "rects": [{"x": 0.25, "y": 0.1667, "width": 0.5, "height": 0.5,
                                "radius": 0.0, "kind": "window"},
                               {"x": 0.0, "y": 0.9, "width": 0.2, "height": 0.1,
                                "radius": 0.015, "kind": "popup"}]},
        {"atMs": 66, "rects": []}]})"));
    EXPECT_TRUE(payload["samples"][0]["atMs"].is_number_integer());
    EXPECT_EQ(CaptureLayers::fromPayload(payload), layers);
    EXPECT_TRUE(
        CaptureLayers::fromPayload(nlohmann::json::parse(R"({"samples": []})")).samples.empty());
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
