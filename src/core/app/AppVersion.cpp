#include "core/app/AppVersion.h"

#include <algorithm>
#include <limits>

namespace pavix {
namespace {

std::int64_t readPiece(std::string_view piece) {
    bool negative = !piece.empty() && piece.front() == '-';
    if (negative) {
        piece.remove_prefix(1);
    }
    constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
    std::int64_t value = 0;
    for (char c : piece) {
        if (c < '0' || c > '9') {
            break;
        }
        const int digit = c - '0';
        if (value > (kMax - digit) / 10) {
            value = kMax;  // too long to read: as large as a version part gets
            break;
        }
        value = value * 10 + digit;
    }
    return negative ? -value : value;
}

}  // namespace

AppVersion::AppVersion(std::string_view text) {
    while (!text.empty()) {
        const auto dot = text.find('.');
        const auto piece = text.substr(0, dot);
        if (!piece.empty()) {
            parts.push_back(readPiece(piece));
        }
        if (dot == std::string_view::npos) {
            break;
        }
        text.remove_prefix(dot + 1);
    }
}

bool operator<(const AppVersion& left, const AppVersion& right) {
    const auto& a = left.parts;
    const auto& b = right.parts;
    for (std::size_t i = 0; i < std::max(a.size(), b.size()); ++i) {
        if (i < a.size() && i < b.size()) {
            if (a[i] != b[i]) {
                return a[i] < b[i];
            }
        } else if (i < a.size()) {
            if (a[i] != 0) {
                return false;  // the left goes on where the right has ended
            }
        } else if (b[i] != 0) {
            return b[i] > 0;  // the right goes on: more when its part is positive
        }
    }
    return false;
}

}  // namespace pavix
