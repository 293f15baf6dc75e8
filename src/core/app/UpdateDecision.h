#pragma once

#include <string>

namespace pavix {

// Whether a newer Pavix is offered or required before new recordings may start.
struct UpdateDecision {
    enum class Kind { available, required, none, deferred };
    Kind kind = Kind::none;
    std::string version;  // for available and required

    static UpdateDecision available(std::string v) { return {Kind::available, std::move(v)}; }
    static UpdateDecision required(std::string v) { return {Kind::required, std::move(v)}; }
    static UpdateDecision none() { return {}; }
    static UpdateDecision deferred() { return {Kind::deferred, {}}; }

    bool operator==(const UpdateDecision&) const = default;
};

}  // namespace pavix
