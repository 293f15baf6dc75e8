#pragma once

#include <exception>
#include <string>

namespace pavix::test {

// What `run` fails with, as its message; "" when it returns.
template <class Error = std::exception, class Run>
std::string failureOf(Run&& run) {
    try {
        run();
    } catch (const Error& e) {
        return e.what();
    }
    return "";
}

}  // namespace pavix::test
