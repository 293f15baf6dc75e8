#include "core/session/DeviceIdentity.h"

namespace pavix {
namespace {

const nlohmann::json& field(const nlohmann::json& object, const char* key) {
    auto found = object.find(key);
    if (found == object.end() || found->is_null()) {
        throw DecodeError::missing();
    }
    return *found;
}

std::string text(const nlohmann::json& object, const char* key) {
    const auto& value = field(object, key);
    if (!value.is_string()) {
        throw DecodeError::wrongFormat();
    }
    return value.get<std::string>();
}

double number(const nlohmann::json& object, const char* key) {
    const auto& value = field(object, key);
    if (!value.is_number()) {
        throw DecodeError::wrongFormat();
    }
    return value.get<double>();
}

}  // namespace

std::string DeviceIdentity::toJson() const {
    nlohmann::ordered_json out;
    out["deviceId"] = deviceId;
    out["accessToken"] = accessToken;
    out["accessExpiresAt"] = accessExpiresAt;
    out["refreshToken"] = refreshToken;
    out["refreshExpiresAt"] = refreshExpiresAt;
    return out.dump();
}

DeviceIdentity DeviceIdentity::fromJson(const nlohmann::json& object) {
    if (!object.is_object()) {
        throw DecodeError::wrongFormat();
    }
    DeviceIdentity identity;
    identity.deviceId = text(object, "deviceId");
    identity.accessToken = text(object, "accessToken");
    identity.accessExpiresAt = number(object, "accessExpiresAt");
    identity.refreshToken = text(object, "refreshToken");
    identity.refreshExpiresAt = number(object, "refreshExpiresAt");
    return identity;
}

DeviceIdentity DeviceIdentity::fromJson(const std::string& text) {
    auto parsed = nlohmann::json::parse(text, nullptr, false);
    if (parsed.is_discarded()) {
        throw DecodeError::wrongFormat();
    }
    return fromJson(parsed);
}

}  // namespace pavix
