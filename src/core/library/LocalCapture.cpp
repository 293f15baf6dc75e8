#include "core/library/LocalCapture.h"

#include <algorithm>

#include "core/session/DeviceIdentity.h"

namespace pavix {
namespace {

const nlohmann::json& required(const nlohmann::json& json, const char* key) {
    auto found = json.find(key);
    if (found == json.end() || found->is_null()) {
        throw DecodeError::missing();
    }
    return *found;
}

// A missing or null optional key is absent.
const nlohmann::json* optional(const nlohmann::json& json, const char* key) {
    auto found = json.find(key);
    return found == json.end() || found->is_null() ? nullptr : &*found;
}

std::int64_t integer(const nlohmann::json& value) {
    if (!value.is_number_integer()) {
        throw DecodeError::wrongFormat();
    }
    return value.get<std::int64_t>();
}

std::string text(const nlohmann::json& value) {
    if (!value.is_string()) {
        throw DecodeError::wrongFormat();
    }
    return value.get<std::string>();
}

}  // namespace

const char* LocalCapture::stageText(Stage stage) {
    switch (stage) {
        case Stage::recording:
            return "recording";
        case Stage::finalizing:
            return "finalizing";
        case Stage::saved:
            return "saved";
        case Stage::uploading:
            return "uploading";
        case Stage::uploaded:
            return "uploaded";
        case Stage::interrupted:
            return "interrupted";
    }
    return "interrupted";
}

std::optional<LocalCapture::Stage> LocalCapture::stageFromText(const std::string& text) {
    for (auto stage : {Stage::recording, Stage::finalizing, Stage::saved, Stage::uploading,
                       Stage::uploaded, Stage::interrupted}) {
        if (text == stageText(stage)) {
            return stage;
        }
    }
    return std::nullopt;
}

bool LocalCapture::canRetry(const std::string& server,
                            const std::optional<std::string>& device) const {
    return stage == Stage::saved && durationMs.has_value() && serverOrigin == server &&
           deviceId.has_value() && device.has_value() && *deviceId == *device;
}

nlohmann::json LocalCapture::toJson() const {
    nlohmann::json json = {{"id", id},
                           {"createdAt", createdAt},
                           {"stage", stageText(stage)},
                           {"width", width},
                           {"height", height}};
    if (durationMs) {
        json["durationMs"] = *durationMs;
    }
    if (serverOrigin) {
        json["serverOrigin"] = *serverOrigin;
    }
    if (deviceId) {
        json["deviceId"] = *deviceId;
    }
    if (layers) {
        json["layers"] = layers->payload();
    }
    return json;
}

LocalCapture LocalCapture::fromJson(const nlohmann::json& json) {
    if (!json.is_object()) {
        throw DecodeError::wrongFormat();
    }
    LocalCapture capture;
    capture.id = text(required(json, "id"));
    const auto& created = required(json, "createdAt");
    if (!created.is_number()) {
        throw DecodeError::wrongFormat();
    }
    capture.createdAt = created.get<double>();
    auto stage = stageFromText(text(required(json, "stage")));
    if (!stage) {
        throw DecodeError::wrongFormat();
    }
    capture.stage = *stage;
    capture.width = integer(required(json, "width"));
    capture.height = integer(required(json, "height"));
    if (const auto* value = optional(json, "durationMs")) {
        capture.durationMs = integer(*value);
    }
    if (const auto* value = optional(json, "serverOrigin")) {
        capture.serverOrigin = text(*value);
    }
    if (const auto* value = optional(json, "deviceId")) {
        capture.deviceId = text(*value);
    }
    if (const auto* value = optional(json, "layers")) {
        try {
            capture.layers = CaptureLayers::fromPayload(*value);
        } catch (const std::exception&) {
            throw DecodeError::wrongFormat();
        }
    }
    return capture;
}

}  // namespace pavix
