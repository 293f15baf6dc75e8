#include "core/session/ConsoleAddress.h"

#include "core/app/ServiceAddresses.h"
#include "core/net/Url.h"

namespace pavix {

std::string consoleURL(const std::string& view, const std::optional<std::string>& configured,
                       const std::string& server) {
    std::string base;
    auto parsedServer = Url::parse(server);
    if (configured) {
        base = *configured;
    } else if (parsedServer && parsedServer->host == ServiceAddresses::kAgentHost) {
        base = ServiceAddresses::kConsole;
    } else if (parsedServer && !parsedServer->host.empty()) {
        base = server;  // a self-hosted or development server serves its own console
    } else {
        base = ServiceAddresses::kConsole;
    }
    auto first = base.find_first_not_of('/');
    auto last = base.find_last_not_of('/');
    base = first == std::string::npos ? "" : base.substr(first, last - first + 1);
    auto candidate = base + "/#" + view;
    if (Url::parse(candidate)) {
        return candidate;
    }
    return std::string(ServiceAddresses::kConsole) + "/#" + view;
}

}  // namespace pavix
