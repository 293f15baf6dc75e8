#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace pavix {

// The paired device's credential. Expiry times are milliseconds since 1970-01-01 UTC.
struct DeviceIdentity {
    std::string deviceId;
    std::string accessToken;
    double accessExpiresAt = 0;
    std::string refreshToken;
    double refreshExpiresAt = 0;

    // The five keys in this order.
    std::string toJson() const;
    // Reads the five keys from an object that may hold others (a pairing or refresh reply).
    // Throws DecodeError when a key is missing or has another type.
    static DeviceIdentity fromJson(const nlohmann::json& object);
    static DeviceIdentity fromJson(const std::string& text);

    bool operator==(const DeviceIdentity&) const = default;
};

// Data that does not have the shape a value needs.
class DecodeError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
    static DecodeError missing() {
        return DecodeError("The data couldn't be read because it is missing.");
    }
    static DecodeError wrongFormat() {
        return DecodeError("The data couldn't be read because it isn't in the correct format.");
    }
};

}  // namespace pavix
