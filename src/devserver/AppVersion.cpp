#include "devserver/AppVersion.h"

#include <cstdint>
#include <vector>

namespace pavix::devserver::AppVersion {

namespace {

std::vector<int64_t> parts(std::string_view t) {
    std::vector<int64_t> out;
    int64_t cur = 0;
    for (char c : t) {
        if (c == '.') {
            out.push_back(cur);
            cur = 0;
        } else {
            cur = cur * 10 + (c - '0');
        }
    }
    out.push_back(cur);
    return out;
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
        int64_t x = i < pa.size() ? pa[i] : 0;
        int64_t y = i < pb.size() ? pb[i] : 0;
        if (x != y)
            return x < y ? -1 : 1;
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
