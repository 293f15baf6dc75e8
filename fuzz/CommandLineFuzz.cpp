// The pavix executable's arguments, as a browser or the user gives them: NUL-separated.

#include <stdexcept>

#include "FuzzCheck.h"
#include "core/app/CommandLine.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace pavix;
    std::vector<std::string> arguments;
    if (size > 0) {
        arguments = fuzz::pieces(fuzz::text(data, size));
    }
    CommandLine line;
    try {
        line = CommandLine::parse(arguments);
    } catch (const std::invalid_argument& refusal) {
        PAVIX_FUZZ_CHECK(std::string(refusal.what()).size() > 0, "a refusal without a sentence");
        return 0;
    }
    const int actions = int(line.pair) + int(line.record) + int(line.library) + int(line.support) +
                        int(line.retry.has_value()) + int(line.remove.has_value());
    PAVIX_FUZZ_CHECK(actions <= 1, "two actions accepted at once");
    PAVIX_FUZZ_CHECK(!line.link || actions == 0, "a setup link accepted beside an action");
    if (line.link) {
        PAVIX_FUZZ_CHECK(line.link->rfind("pavix-mac:", 0) == 0, "a setup link of another scheme");
    }
    for (const auto* value :
         {&line.server, &line.code, &line.snapshot, &line.retry, &line.remove}) {
        if (*value) {
            PAVIX_FUZZ_CHECK((*value)->rfind("--", 0) != 0, "a switch taken as a value");
        }
    }
    // What was accepted reads the same when given again.
    std::vector<std::string> again;
    auto add = [&](const char* name, const std::optional<std::string>& value) {
        if (value) {
            again.push_back(name);
            again.push_back(*value);
        }
    };
    add("--server", line.server);
    add("--code", line.code);
    add("--snapshot", line.snapshot);
    add("--retry", line.retry);
    add("--delete", line.remove);
    for (auto [flag, name] : {std::pair{line.record, "--record"},
                              {line.library, "--library"},
                              {line.support, "--support"},
                              {line.pair, "--pair"},
                              {line.approve, "--approve"},
                              {line.listSources, "--list-sources"},
                              {line.checkPermission, "--check-permission"},
                              {line.help, "--help"},
                              {line.version, "--version"}}) {
        if (flag) {
            again.push_back(name);
        }
    }
    if (line.link) {
        again.push_back(*line.link);
    }
    const auto reread = CommandLine::parse(again);
    PAVIX_FUZZ_CHECK(reread.server == line.server && reread.code == line.code &&
                         reread.snapshot == line.snapshot && reread.retry == line.retry &&
                         reread.remove == line.remove && reread.link == line.link &&
                         reread.record == line.record && reread.library == line.library &&
                         reread.support == line.support && reread.pair == line.pair &&
                         reread.approve == line.approve && reread.listSources == line.listSources &&
                         reread.checkPermission == line.checkPermission &&
                         reread.help == line.help && reread.version == line.version,
                     "accepted switches that read differently the second time");
    return 0;
}
