// The service client's reading of replies: any status with any body (the first byte picks the
// status), the 426 body naming the required version, and the pairing and refresh replies that
// carry the device credential.

#include <nlohmann/json.hpp>

#include "FuzzCheck.h"
#include "core/net/HttpRequest.h"
#include "core/session/DeviceIdentity.h"
#include "core/session/PavixHTTPError.h"
#include "core/session/ServiceRequests.h"

namespace {

constexpr int kStatuses[] = {200, 200, 200, 200, 400, 401, 403, 404, 409, 410,
                             413, 426, 429, 500, 502, 503, 504, 0,   201, 204};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace pavix;
    if (size == 0) {
        return 0;
    }
    HttpResponse response;
    response.status = kStatuses[data[0] % std::size(kStatuses)];
    response.body = fuzz::text(data + 1, size - 1);

    try {
        auto object = ServiceRequests::read(response);
        PAVIX_FUZZ_CHECK(response.status == 200, "a refusal read as a reply");
        PAVIX_FUZZ_CHECK(object.is_object(), "a reply that is not an object");
        // Pairing and refresh replies carry the credential; anything short of it is a
        // DecodeError, and what is read is written and read back unchanged.
        try {
            auto identity = DeviceIdentity::fromJson(object);
            auto again = DeviceIdentity::fromJson(identity.toJson());
            PAVIX_FUZZ_CHECK(again == identity, "a credential that does not survive its keyring");
        } catch (const DecodeError&) {
        }
    } catch (const InvalidReplyError&) {
        PAVIX_FUZZ_CHECK(response.status == 200, "a refusal read as an invalid reply");
    } catch (const PavixHTTPError& error) {
        PAVIX_FUZZ_CHECK(response.status != 200, "a 200 read as a refusal");
        PAVIX_FUZZ_CHECK(error.status() == static_cast<int>(response.status),
                         "a refusal with another status");
    }

    // The credential as the keyring hands it back: text of any shape.
    try {
        auto identity = DeviceIdentity::fromJson(response.body);
        PAVIX_FUZZ_CHECK(DeviceIdentity::fromJson(identity.toJson()) == identity,
                         "a saved credential that does not read back");
    } catch (const DecodeError&) {
    }

    // The 426 body: the version it names comes from the body, else the fixed wording.
    const auto required = ServiceRequests::requiredVersion(response.body);
    if (required != "a newer version") {
        const auto parsed = nlohmann::json::parse(response.body, nullptr, false);
        PAVIX_FUZZ_CHECK(parsed.is_object(), "a required version read from no object");
        auto named = [&](const char* key) {
            auto found = parsed.find(key);
            return found != parsed.end() && found->is_string() && *found == required;
        };
        PAVIX_FUZZ_CHECK(named("latestAppVersion") || named("minimumAppVersion"),
                         "a required version the body does not name");
    }
    return 0;
}
