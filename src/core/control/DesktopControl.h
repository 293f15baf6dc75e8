#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include "core/capture/CaptureStill.h"
#include "core/control/InputDriver.h"
#include "core/control/OutlineBuilder.h"
#include "core/control/OutlineSnapshot.h"
#include "core/control/RecordedPicture.h"
#include "platform/AccessibilityReader.h"
#include "platform/AccessibleActions.h"
#include "platform/DesktopInput.h"
#include "platform/ShareableContent.h"
#include "platform/TextRecognizer.h"

namespace pavix {

// What the agent's actions and reads left for drawing over the recording: the pointer's samples
// and the places where the user's own name showed, in points of the recorded picture (see
// RecordedPicture). Each entry's "atMs" counts from the start of the session's input driver, as
// the samples do.
struct ControlTelemetry {
    nlohmann::json pointerTrail = nlohmann::json::array();       // {"x", "y", "atMs", "kind"}
    nlohmann::json identitySightings = nlohmann::json::array();  // {"atMs", "rects"}
};

// The platform parts a control session works with; they outlive it.
struct ControlParts {
    AccessibilityReader& reader;
    AccessibleActions& actions;
    DesktopInput& input;
    ShareableContent& content;
    // The visual outline's parts: a picture of the window and the recogniser of its text, both
    // used on the control thread. Either missing: windows are read from their accessible tree
    // only.
    WindowPicture picture = {};
    TextRecognizer* recognizer = nullptr;
};

// The agent's control session over the one window the user shared: it refuses the
// applications that are never operated, reads the window's outline and keeps the last one, so
// that the agent's references name elements of what it last read, and operates them through
// its input driver.
//
// The windows of canvas applications (VisualOutline::isCanvasApp), and any window when the
// agent asks for it with "readPage"'s {"visual": true}, are also read from their picture: the
// text recognised in it joins the outline as targets that are clicked where they show.
//
// Every call blocks on the accessibility bus and the window system: the session lives on the
// control thread, which runs its methods one at a time.
class DesktopControl {
  public:
    // The control methods; the command loop hands these to the session.
    static bool serves(const std::string& method);

    // Opens the session for `windowID`. Throws PavixError with the agent's
    // "local_method_forbidden: …" sentence when accessibility is off or the window's
    // application is one that is never operated, and with a plain sentence when the window is
    // gone.
    DesktopControl(ControlParts parts, std::uint32_t windowID, OutlineOptions options = {},
                   InputPacing pacing = {});

    std::uint32_t windowID() const { return windowID_; }

    // The identifiers the user added to the canvas applications ("visualOnlyApps"); they count
    // from the next read on. Any thread.
    void useCanvasApps(std::vector<std::string> ids);

    // Runs one control method with its positional arguments; throws PavixError with the
    // sentence for the agent.
    nlohmann::json handle(const std::string& method, const nlohmann::json& args);

    // The recording of the window ended: the front goes back to the window that had it
    // before the session brought its own forward.
    void endRecording() { driver_->handFrontBack(); }

    // Where the recording of the window lies on the screen: the region while the window is
    // recorded with its pop-ups, none while it is recorded alone or not at all. The telemetry
    // taken from then on is in points of that picture. Any thread.
    void place(std::optional<CaptureRect> region);

    // The last outline read, if any.
    const std::optional<OutlineSnapshot>& snapshot() const { return snapshot_; }

    // The pointer samples and the sightings of the user's name since the last call, in points
    // of the recorded picture. Any thread.
    ControlTelemetry takeTelemetry();

  private:
    // The shared window as it is now; its frame is kept for the telemetry of this call.
    ShareableWindow locate();
    // Reads the outline, with the window's picture for a canvas application or when `forced`.
    const OutlineSnapshot& read(bool forced = false);
    // The text lines of the window's picture, in screen points.
    std::vector<RecognizedText> see(const ShareableWindow& window);
    const OutlineTarget& target(const nlohmann::json& ref) const;
    nlohmann::json pointer(const nlohmann::json& args);
    nlohmann::json formInput(const nlohmann::json& args);
    nlohmann::json typeText(const nlohmann::json& args);
    nlohmann::json scrollBy(const nlohmann::json& args);
    nlohmann::json redact(const nlohmann::json& args);
    ScreenPoint windowPoint(const nlohmann::json& options, const CaptureRect& window) const;
    void publishTrail();
    void noteSightings(const OutlineSnapshot& snapshot);

    ControlParts parts_;
    std::uint32_t windowID_;
    OutlineOptions options_;
    pid_t pid_ = 0;
    std::unique_ptr<InputDriver> driver_;
    std::optional<OutlineSnapshot> snapshot_;
    std::size_t trailSent_ = 0;
    struct Sighting {
        std::chrono::steady_clock::time_point at;
        std::vector<CaptureRect> rects;  // points of the recorded picture
    };
    std::mutex telemetryMutex_;           // guards what follows: taken from another thread
    std::optional<CaptureRect> located_;  // the window's frame when last located, screen points
    RecordedPicture picture_;
    std::vector<PointerSample> trail_;  // points of the recorded picture
    std::vector<Sighting> sightings_;
    std::mutex canvasMutex_;  // guards what follows: set from another thread
    std::vector<std::string> canvasApps_;
};

}  // namespace pavix
