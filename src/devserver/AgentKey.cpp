#include "devserver/AgentKey.h"

#include <fcntl.h>
#include <unistd.h>

#include <httplib.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "devserver/Ids.h"

namespace pavix::devserver::AgentKey {
namespace {

std::string pathIn(const std::string& dataDir) {
    return dataDir + "/" + kFileName;
}

// The value of cookie `name` in a Cookie header ("a=1; b=2").
std::optional<std::string> cookie(const std::string& header, const std::string& name) {
    std::size_t at = 0;
    while (at < header.size()) {
        auto end = header.find(';', at);
        if (end == std::string::npos) {
            end = header.size();
        }
        auto pair = header.substr(at, end - at);
        auto first = pair.find_first_not_of(' ');
        if (first != std::string::npos && pair.compare(first, name.size() + 1, name + "=") == 0) {
            return pair.substr(first + name.size() + 1);
        }
        at = end + 1;
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> read(const std::string& dataDir) {
    std::ifstream in(pathIn(dataDir));
    std::string key;
    if (!(in >> key) || key.empty()) {
        return std::nullopt;
    }
    return key;
}

std::string loadOrCreate(const std::string& dataDir) {
    if (auto key = read(dataDir)) {
        return *key;
    }
    const auto key = Ids::token("pvx_ak_");
    const auto path = pathIn(dataDir);
    // O_EXCL: a key that another start wrote meanwhile is the one to use.
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        if (errno == EEXIST) {
            if (auto kept = read(dataDir)) {
                return *kept;
            }
        }
        throw std::runtime_error("cannot keep the agent key in " + path + ": " +
                                 std::strerror(errno));
    }
    const auto text = key + "\n";
    const bool written = ::write(fd, text.data(), text.size()) == ssize_t(text.size());
    ::close(fd);
    if (!written) {
        throw std::runtime_error("cannot keep the agent key in " + path);
    }
    return key;
}

bool same(const std::string& a, const std::string& b) {
    unsigned char differ = a.size() == b.size() ? 0 : 1;
    for (std::size_t i = 0; i < a.size(); ++i) {
        differ |= static_cast<unsigned char>(a[i] ^ (i < b.size() ? b[i] : 0));
    }
    return differ == 0;
}

bool carried(const httplib::Request& request, const std::string& key) {
    if (request.get_header_value_count(kHeader) == 1 &&
        same(request.get_header_value(kHeader), key)) {
        return true;
    }
    for (std::size_t i = 0; i < request.get_header_value_count("Cookie"); ++i) {
        auto value = cookie(request.get_header_value("Cookie", i), kCookie);
        if (value && same(*value, key)) {
            return true;
        }
    }
    return false;
}

}  // namespace pavix::devserver::AgentKey
