// The update manifest (fetched from the download site, up to 64 KiB) and the versions the
// service names: read, compared and turned into the update decision.

#include <optional>
#include <regex>

#include "FuzzCheck.h"
#include "core/app/AppVersion.h"
#include "core/app/UpdatePolicy.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace pavix;
    const auto input = fuzz::text(data, size);

    const auto latest = UpdatePolicy::latestVersion(input);
    if (latest) {
        static const std::regex dotted("[0-9]+(\\.[0-9]+){1,3}");
        PAVIX_FUZZ_CHECK(std::regex_match(*latest, dotted), "a manifest version of another shape");
        const AppVersion version(*latest);
        PAVIX_FUZZ_CHECK(version.parts.size() >= 2 && version.parts.size() <= 4,
                         "a manifest version with another number of parts");
    }

    // Versions as the service's version reply and 426 bodies give them: any text. The order is
    // a strict weak order, and the decision follows it.
    const auto fields = fuzz::pieces(input);
    const std::string current = fields.size() > 0 ? fields[0] : "";
    const std::optional<std::string> minimum =
        fields.size() > 1 ? std::optional<std::string>(fields[1]) : std::nullopt;
    const std::optional<std::string> service =
        fields.size() > 2 ? std::optional<std::string>(fields[2]) : latest;
    const AppVersion a(current);
    const AppVersion b(minimum.value_or(""));
    const AppVersion c(service.value_or(""));
    PAVIX_FUZZ_CHECK(!(a < a), "a version below itself");
    PAVIX_FUZZ_CHECK(!(a < b && b < a), "two versions each below the other");
    PAVIX_FUZZ_CHECK(!(a < b && b < c) || a < c, "an order that is not transitive");
    PAVIX_FUZZ_CHECK((a == b) == (b == a), "an equality that is not symmetric");

    const auto decided = UpdatePolicy::decision(current, service, minimum, /*recording=*/false);
    const auto deferred = UpdatePolicy::decision(current, service, minimum, /*recording=*/true);
    PAVIX_FUZZ_CHECK(deferred == UpdateDecision::deferred(), "an update offered while recording");
    if (minimum && a < b) {
        PAVIX_FUZZ_CHECK(decided == UpdateDecision::required(service ? *service : *minimum),
                         "a version below the minimum that is not required to update");
    } else if (service && a < c) {
        PAVIX_FUZZ_CHECK(decided == UpdateDecision::available(*service),
                         "a newer version that is not offered");
    } else {
        PAVIX_FUZZ_CHECK(decided == UpdateDecision::none(), "an update offered for no reason");
    }
    return 0;
}
