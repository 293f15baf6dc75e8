#include "devserver/AppVersion.h"

#include <algorithm>
#include <vector>

namespace pavix::devserver::AppVersion {

namespace {

// The numbers of a version as their digits without leading zeros: a number may have more
// digits than any integer type holds.
std::vector<std::string_view> parts(std::string_view t) {
    std::vector<std::string_view> out;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= t.size(); ++i) {
        if (i == t.size() || t[i] == '.') {
            auto part = t.substr(start, i - start);
            while (part.size() > 1 && part.front() == '0') {
                part.remove_prefix(1);
            }
            out.push_back(part);
            start = i + 1;
        }
    }
    return out;
}

int compareNumbers(std::string_view x, std::string_view y) {
    if (x.size() != y.size()) {
        return x.size() < y.size() ? -1 : 1;
    }
    const int order = x.compare(y);
    return order < 0 ? -1 : order > 0 ? 1 : 0;
}

}  // namespace

bool isValid(std::string_view t) {
    if (t.empty() || t.size() > 64)
        return false;
    bool digitSeen = false;
    for (char c : t) {
        if (c == '.') {
            if (!digitSeen)
                return false;
            digitSeen = false;
        } else if (c >= '0' && c <= '9') {
            digitSeen = true;
        } else {
            return false;
        }
    }
    return digitSeen;
}

int compare(std::string_view a, std::string_view b) {
    auto pa = parts(a), pb = parts(b);
    size_t n = std::max(pa.size(), pb.size());
    for (size_t i = 0; i < n; ++i) {
        const auto x = i < pa.size() ? pa[i] : std::string_view("0");
        const auto y = i < pb.size() ? pb[i] : std::string_view("0");
        if (int order = compareNumbers(x, y); order != 0)
            return order;
    }
    return 0;
}

bool isCurrent(std::string_view version, std::string_view minimum) {
    if (version == "dev")
        return true;
    if (!isValid(version))
        return false;
    return compare(version, minimum) >= 0;
}

}  // namespace pavix::devserver::AppVersion
