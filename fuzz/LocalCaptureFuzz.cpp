// A side-car of the local library (<id>.json beside its video), read the way the library reads
// it at start-up, with the layer track it may carry.

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "FuzzCheck.h"
#include "core/capture/CaptureLayers.h"
#include "core/library/LocalCapture.h"
#include "core/session/DeviceIdentity.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace pavix;
    const auto json = nlohmann::json::parse(fuzz::text(data, size), nullptr, false);
    if (json.is_discarded()) {
        return 0;
    }

    try {
        const auto capture = LocalCapture::fromJson(json);
        // What the library writes back after recovering or uploading reads as the same record.
        const auto written = capture.toJson();
        const auto reread = LocalCapture::fromJson(nlohmann::json::parse(written.dump()));
        PAVIX_FUZZ_CHECK(reread.toJson() == written, "a side-car that changes when saved again");
        PAVIX_FUZZ_CHECK(reread.stage == capture.stage && reread.id == capture.id &&
                             reread.durationMs == capture.durationMs &&
                             reread.layers == capture.layers,
                         "a record that reads back differently");
        (void)capture.canRetry("https://agent.pavix.app", capture.deviceId);
        (void)capture.fileName();
    } catch (const DecodeError&) {
    }

    // The layer track alone, as the upload's media description carries it.
    const auto* track = &json;
    if (json.is_object() && json.contains("layers")) {
        track = &json["layers"];
    }
    try {
        const auto layers = CaptureLayers::fromPayload(*track);
        const auto again = CaptureLayers::fromPayload(layers.payload());
        PAVIX_FUZZ_CHECK(again == layers, "a layer track that reads back differently");
    } catch (const std::invalid_argument&) {
    }
    return 0;
}
