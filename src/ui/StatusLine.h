#pragma once

#include <cstdio>
#include <string>

namespace pavix {

// One "pavix: " line on standard error: what the command-line runs tell the user.
inline void say(const std::string& line) {
    std::fprintf(stderr, "pavix: %s\n", line.c_str());
    std::fflush(stderr);
}

}  // namespace pavix
