#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace pavix {

// A dotted version such as "1.10.2". Missing trailing parts count as zero, so 1.2 equals
// 1.2.0 and is below 1.2.1.
struct AppVersion {
    std::vector<std::int64_t> parts;

    // Splits on "." (empty pieces left out) and reads each piece as a decimal number: its
    // leading digits (with a leading "-"), 0 when it has none, the largest 64-bit number when
    // it has too many ("1.2beta" is 1.2, "1.x" is 1.0).
    explicit AppVersion(std::string_view text);

    friend bool operator<(const AppVersion& left, const AppVersion& right);
    friend bool operator>(const AppVersion& left, const AppVersion& right) { return right < left; }
    friend bool operator<=(const AppVersion& left, const AppVersion& right) {
        return !(right < left);
    }
    friend bool operator>=(const AppVersion& left, const AppVersion& right) {
        return !(left < right);
    }
    friend bool operator==(const AppVersion& left, const AppVersion& right) {
        return !(left < right) && !(right < left);
    }
};

}  // namespace pavix
