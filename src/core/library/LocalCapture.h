#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "core/capture/CaptureLayers.h"

namespace pavix {

// One recording of the local library: its video file and how far it got.
struct LocalCapture {
    enum class Stage { recording, finalizing, saved, uploading, uploaded, interrupted };

    std::string id;        // canonical upper-case hyphenated UUID; also names the files
    double createdAt = 0;  // seconds since 2001-01-01 00:00:00 UTC
    Stage stage = Stage::recording;
    std::optional<std::int64_t> durationMs;  // absent until known, and when zero or less
    std::int64_t width = 0;
    std::int64_t height = 0;
    std::optional<std::string> serverOrigin;
    std::optional<std::string> deviceId;
    std::optional<CaptureLayers> layers;

    // "Pavix-" + id + ".mp4".
    std::string fileName() const { return "Pavix-" + id + ".mp4"; }
    // id + ".json": the side-car, deliberately without the prefix of the video.
    std::string manifestName() const { return id + ".json"; }

    // Whether this computer's present pairing may retry the upload.
    bool canRetry(const std::string& server, const std::optional<std::string>& device) const;

    nlohmann::json toJson() const;
    // Throws DecodeError for a missing required key, a wrong type or an unknown stage.
    static LocalCapture fromJson(const nlohmann::json& json);

    static const char* stageText(Stage stage);
    static std::optional<Stage> stageFromText(const std::string& text);
    // Seconds between 1970-01-01 and 2001-01-01, the reference date of `createdAt`.
    static constexpr double kReferenceDateOffset = 978'307'200.0;
};

}  // namespace pavix
