// Addresses from outside: the setup link a browser hands over (pavix-mac://pair?server=…&code=…),
// the server address it names or the user types, and the console address derived from it.

#include <optional>

#include "FuzzCheck.h"
#include "core/net/Url.h"
#include "core/session/ConsoleAddress.h"
#include "core/session/PavixError.h"
#include "core/session/ServiceRequests.h"

namespace {

bool same(const pavix::Url& a, const pavix::Url& b) {
    return a.scheme == b.scheme && a.hasAuthority == b.hasAuthority &&
           a.hasUserInfo == b.hasUserInfo && a.userInfo == b.userInfo && a.host == b.host &&
           a.port == b.port && a.path == b.path && a.query == b.query && a.fragment == b.fragment;
}

// The server address is checked the way pairing checks it; the endpoint it gives is an origin
// that reads back as itself.
void endpoint(const std::string& server) {
    using namespace pavix;
    try {
        const auto url = ServiceRequests::validatedEndpoint(server);
        PAVIX_FUZZ_CHECK(url.scheme == "https" || url.scheme == "http", "an endpoint of a scheme");
        const auto address = ServiceRequests::address(url, "poll");
        const auto reread = Url::parse(address);
        PAVIX_FUZZ_CHECK(reread.has_value(), "a service address that does not parse");
        PAVIX_FUZZ_CHECK(reread->host == url.host && reread->port == url.port,
                         "a service address on another host");
    } catch (const PavixError&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace pavix;
    const auto input = fuzz::text(data, size);

    const auto link = Url::parse(input);
    if (link) {
        // As written: the parts put together again give the text, and read the same.
        const auto text = link->toString();
        const auto again = Url::parse(text);
        PAVIX_FUZZ_CHECK(again.has_value(), "a parsed address whose text does not parse");
        PAVIX_FUZZ_CHECK(same(*link, *again), "an address that reads differently the second time");
        if (link->host.find(':') == std::string::npos && input.find('[') == std::string::npos) {
            PAVIX_FUZZ_CHECK(text == input, "an address not kept as written");
        }
        const auto items = link->queryItems();
        const auto server = link->queryItem("server");
        const auto code = link->queryItem("code");
        if (server) {
            endpoint(*server);
            (void)consoleURL("pairing", std::nullopt, *server);
        }
        if (code) {
            // A code travels back inside a query value: escaping it loses nothing.
            PAVIX_FUZZ_CHECK(percentDecode(percentEncode(*code)) == *code,
                             "a code changed by escaping");
        }
        (void)items;
    }

    endpoint(input);
    for (const char* view : {"pairing", "session", "recordings"}) {
        const auto fromServer = consoleURL(view, std::nullopt, input);
        PAVIX_FUZZ_CHECK(Url::parse(fromServer).has_value(), "a console address that is no URL");
        const auto configured = consoleURL(view, input, "https://agent.pavix.app");
        PAVIX_FUZZ_CHECK(Url::parse(configured).has_value(), "a console address that is no URL");
    }
    PAVIX_FUZZ_CHECK(percentDecode(percentEncode(input)) == input, "text changed by escaping");
    return 0;
}
