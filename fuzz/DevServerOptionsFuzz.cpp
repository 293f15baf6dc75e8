// pavix-devserver's start-up flags, NUL-separated as the shell passes them.

#include <stdexcept>

#include "FuzzCheck.h"
#include "devserver/AppVersion.h"
#include "devserver/FaultSwitch.h"
#include "devserver/Options.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace pavix::devserver;
    std::vector<std::string> arguments;
    if (size > 0) {
        arguments = pavix::fuzz::pieces(pavix::fuzz::text(data, size));
    }
    Options options;
    try {
        options = Options::parse(arguments);
    } catch (const std::invalid_argument&) {
        return 0;
    }
    PAVIX_FUZZ_CHECK(options.port >= 0 && options.port <= 65535, "a port out of range");
    PAVIX_FUZZ_CHECK(options.pollHoldMs >= 0 && options.pollHoldMs <= 600000,
                     "a poll hold out of range");
    PAVIX_FUZZ_CHECK(options.codeTtlMs > 0 && options.accessTtlMs > 0 && options.refreshTtlMs > 0,
                     "a lifetime that is not positive");
    PAVIX_FUZZ_CHECK(AppVersion::isValid(options.minimumAppVersion) &&
                         AppVersion::isValid(options.latestAppVersion),
                     "a configured version that is not a version");
    // The service compares every client against the configured minimum.
    (void)AppVersion::isCurrent(options.latestAppVersion, options.minimumAppVersion);
    (void)AppVersion::compare(options.latestAppVersion, options.minimumAppVersion);
    for (const auto& text : options.faults) {
        std::string why;
        PAVIX_FUZZ_CHECK(FaultRule::parse(text, &why).has_value(),
                         "an armed fault that is invalid");
    }
    return 0;
}
