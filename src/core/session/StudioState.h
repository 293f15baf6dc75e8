#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/app/UpdateDecision.h"
#include "core/capture/CaptureSource.h"
#include "core/library/LocalCapture.h"

namespace pavix {

// The settings the model reads from the user defaults where it uses them, as the settings
// window shows and changes them. Empty text and no width mean the key is absent.
struct Preferences {
    bool betaUpdates = false;                  // "betaUpdates"
    std::string consoleURL;                    // "consoleURL"
    std::optional<long long> captureMaxWidth;  // "captureMaxWidth"
    std::string visualOnlyApps;                // "visualOnlyApps": desktop ids, comma-separated

    bool operator==(const Preferences&) const = default;
};

// Everything Studio publishes to its observers. A plain value: observers get a copy of it
// after every change.
struct StudioState {
    std::string server;
    std::string code;
    std::string status = "Choose a source, then pair with your agent.";
    std::vector<CaptureSource> sources;
    std::vector<LocalCapture> recent;  // the local library, newest first
    std::string selection;
    bool paired = false;
    bool connected = false;
    bool busy = false;
    bool consent = false;
    bool recording = false;
    bool manual = false;          // the recording in progress was started by the user
    std::string recordingSource;  // title of the source being recorded
    bool uploading = false;
    std::string uploadRecord;                    // the record whose upload runs, while one does
    double uploadProgress = 0.0;                 // its share of bytes the service holds, 0 to 1
    std::optional<std::filesystem::path> saved;  // the video of the last finished recording
    bool allowControl = false;
    bool diagnosticsOptIn = false;
    bool autoTrashUploaded = true;
    bool showHUD = true;
    Preferences preferences;
    UpdateDecision update;
    std::string lastErrorCode;
};

}  // namespace pavix
