// The visual outline of a real window that paints its words itself: the window's picture from
// the X server, read by Tesseract, gives the words where they were drawn, and the agent's
// click on one lands there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <regex>
#include <sstream>

#include "core/capture/CaptureStill.h"
#include "core/control/DesktopControl.h"
#include "core/session/PavixError.h"
#include "linux/AtspiActions.h"
#include "linux/AtspiTreeReader.h"
#include "linux/TesseractRecognizer.h"
#include "linux/X11CaptureStream.h"
#include "linux/X11DesktopInput.h"
#include "linux/X11ShareableContent.h"
#include "support/ChildProcess.h"
#include "support/X11TestWindow.h"

namespace pavix::test {
namespace {

using nlohmann::json;
using std::chrono::seconds;

struct Drawn {
    std::string text;
    double x = 0, y = 0;  // the centre of its ink, window points
};

// Where the outline puts `words` as text of the picture: its reference and window point.
struct Seen {
    std::string ref;
    int x = 0, y = 0;
};
std::optional<Seen> seen(const std::string& outline, const std::string& role,
                         const std::string& words) {
    std::smatch found;
    if (!std::regex_search(outline, found,
                           std::regex("\\[(ref_[0-9]+)\\] " + role + " \"" + words +
                                      "\" visual — visible at \\(([0-9]+),([0-9]+)\\)"))) {
        return std::nullopt;
    }
    return Seen{found[1], std::stoi(found[2]), std::stoi(found[3])};
}

class CanvasControl : public ::testing::Test {
  protected:
    CanvasControl() {
        auto line = fixture.waitForLine("window 0x", seconds(20));
        if (!line) {
            throw std::runtime_error("no fixture window: " + fixture.output());
        }
        windowID = std::stoul(line->substr(line->find("0x")), nullptr, 16);
        for (const auto& printed : fixture.lines()) {
            if (printed.rfind("word ", 0) == 0) {
                std::istringstream in(printed.substr(5));
                Drawn word;
                in >> word.text >> word.x >> word.y;
                drawn.push_back(word);
            }
        }
        // The window is there once the accessibility bus shows it and its picture shows the
        // largest word.
        EXPECT_TRUE(eventually(
            [&] {
                try {
                    control.emplace(parts(), windowID, OutlineOptions{}, InputPacing::none());
                    outline = read(true);
                    return seen(outline, "text", "Milestones").has_value();
                } catch (const PavixError&) {
                    return false;
                }
            },
            seconds(30)))
            << outline;
    }
    ~CanvasControl() override {
        control.reset();
        fixture.signal(SIGTERM);
        fixture.wait(seconds(10));
    }

    ControlParts parts() {
        ControlParts p{reader, actions, input, content};
        p.picture = [](std::uint32_t id, int width, int height) {
            X11CaptureStream stream;
            CaptureFilter filter;
            filter.windowID = id;
            return CaptureStill::firstFrame(stream, filter, width, height, seconds(5));
        };
        p.recognizer = &recognizer;
        return p;
    }
    std::string read(bool visual) {
        auto args = visual ? json::array({{{"visual", true}}}) : json::array();
        return control->handle("readPage", args).get<std::string>();
    }

    ChildProcess fixture{{PAVIX_CANVAS_FIXTURE_BINARY}, {}};
    std::uint32_t windowID = 0;
    std::vector<Drawn> drawn;
    AtspiTreeReader reader;
    AtspiActions actions;
    X11DesktopInput input;
    X11ShareableContent content;
    TesseractRecognizer recognizer;
    std::optional<DesktopControl> control;
    std::string outline;
};

TEST_F(CanvasControl, FindsTheDrawnWordsWhereTheyWereDrawnAndClicksThem) {
    ASSERT_EQ(drawn.size(), 6u) << fixture.output();
    for (const auto& word : drawn) {
        auto where = seen(outline, "text", word.text);
        ASSERT_TRUE(where) << word.text << " not in\n" << outline;
        EXPECT_LE(std::abs(where->x - word.x), 3) << word.text << "\n" << outline;
        EXPECT_LE(std::abs(where->y - word.y), 3) << word.text << "\n" << outline;
    }
    // A click on a word lands where it was drawn, in the canvas.
    const auto roadmap = *seen(outline, "text", "Roadmap");
    EXPECT_EQ(control->handle("pointer", json::array({"left_click", roadmap.ref})),
              (json{{"action", "left_click"}, {"element", "text \"Roadmap\""}}));
    auto click = fixture.waitForLine("click ", seconds(5));
    ASSERT_TRUE(click) << fixture.output();
    int x = 0, y = 0;
    std::istringstream(click->substr(6)) >> x >> y;
    EXPECT_LE(std::abs(x - roadmap.x), 1) << *click;
    EXPECT_LE(std::abs(y - roadmap.y), 1) << *click;

    // The word in the toolbar button's icon is the button's: pressed by a click on it.
    const auto exported = seen(outline, "button", "Export");
    ASSERT_TRUE(exported) << outline;
    control->handle("pointer", json::array({"left_click", exported->ref}));
    EXPECT_TRUE(fixture.waitForLine("pressed Export", seconds(5))) << fixture.output();
}

TEST_F(CanvasControl, ACanvasApplicationIsReadFromItsPictureUnasked) {
    EXPECT_THAT(read(false), ::testing::Not(::testing::HasSubstr(" visual — ")));
    // The fixture has no desktop entry: its window class names it.
    control->useCanvasApps({"pavix-canvas-fixture"});
    EXPECT_TRUE(seen(read(false), "text", "Milestones"));
}

TEST(TesseractRecognizer, SaysWhatIsMissing) {
    std::vector<std::uint8_t> pixels(64 * 32 * 4, 0xff);
    auto shared = std::make_shared<const std::vector<std::uint8_t>>(pixels);
    auto failure = [](TesseractRecognizer& recognizer, const VideoFrame& picture) {
        try {
            recognizer.recognize(picture);
        } catch (const TextRecognitionError& e) {
            return std::string(e.what());
        }
        return std::string();
    };
    TesseractRecognizer nowhere({"/nonexistent/tessdata"});
    EXPECT_EQ(failure(nowhere, {64, 32, 64 * 4, shared}),
              "Text recognition needs Tesseract's English data (the Debian package "
              "tesseract-ocr-eng): eng.traineddata is in none of /nonexistent/tessdata.");
    TesseractRecognizer recognizer;
    EXPECT_EQ(failure(recognizer, {64, 40, 64 * 4, shared}), "The window's picture is malformed.");
    EXPECT_EQ(failure(recognizer, {64, 32, 64 * 4, nullptr}), "The window's picture is malformed.");
    EXPECT_EQ(recognizer.recognize({64, 32, 64 * 4, shared}).size(), 0u);  // a blank picture
}

}  // namespace
}  // namespace pavix::test
