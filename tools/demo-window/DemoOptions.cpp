#include "DemoOptions.h"

#include <charconv>

namespace pavix::demo {
namespace {

// A whole decimal number in [1, limit], nothing else.
std::optional<int> positive(const std::string& text, int limit) {
    int value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < 1 || value > limit) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

DemoOptions DemoOptions::parse(const std::vector<std::string>& arguments) {
    DemoOptions options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const auto& name = arguments[i];
        if (name == "--help" || name == "-h") {
            options.help = true;
            continue;
        }
        if (name != "--title" && name != "--size" && name != "--seconds") {
            throw Invalid("unknown argument: " + name);
        }
        if (i + 1 == arguments.size()) {
            throw Invalid(name + " needs a value");
        }
        const auto& value = arguments[++i];
        if (name == "--title") {
            options.title = value;
        } else if (name == "--size") {
            // X limits window sizes to 16 bits; anything near that is a mistake here anyway.
            auto x = value.find('x');
            auto width =
                x == std::string::npos ? std::nullopt : positive(value.substr(0, x), 16384);
            auto height =
                x == std::string::npos ? std::nullopt : positive(value.substr(x + 1), 16384);
            if (!width || !height) {
                throw Invalid("--size wants WIDTHxHEIGHT, such as 960x600: " + value);
            }
            options.width = *width;
            options.height = *height;
        } else {
            auto seconds = positive(value, 24 * 3600);
            if (!seconds) {
                throw Invalid("--seconds wants a whole number of seconds: " + value);
            }
            options.seconds = *seconds;
        }
    }
    return options;
}

const char* DemoOptions::usage() {
    return "usage: pavix-demo-window [--title TEXT] [--size WIDTHxHEIGHT] [--seconds N]\n"
           "  Shows a window with moving content to record. Prints \"window 0x<id>\" once it\n"
           "  is shown; ends when closed, on SIGTERM or SIGINT, or after N seconds.\n"
           "  Defaults: --title \"Pavix demo\" --size 960x600, no time limit.\n";
}

}  // namespace pavix::demo
