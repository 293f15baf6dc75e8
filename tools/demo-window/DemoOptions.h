#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace pavix::demo {

// The command line of pavix-demo-window.
struct DemoOptions {
    // Thrown for arguments that do not fit the usage; the message names the culprit.
    struct Invalid : std::invalid_argument {
        using std::invalid_argument::invalid_argument;
    };

    std::string title = "Pavix demo";
    int width = 960;
    int height = 600;
    std::optional<int> seconds;  // none: until the window is closed or the process is signalled
    bool help = false;

    static DemoOptions parse(const std::vector<std::string>& arguments);
    static const char* usage();
};

}  // namespace pavix::demo
