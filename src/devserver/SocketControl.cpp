#include "devserver/SocketControl.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace pavix::devserver::SocketControl {

namespace {

bool addressMatches(const sockaddr_storage& a, const std::string& ip, int port) {
    char buf[INET6_ADDRSTRLEN] = {};
    int p = -1;
    if (a.ss_family == AF_INET) {
        auto* in = reinterpret_cast<const sockaddr_in*>(&a);
        inet_ntop(AF_INET, &in->sin_addr, buf, sizeof buf);
        p = ntohs(in->sin_port);
    } else if (a.ss_family == AF_INET6) {
        auto* in = reinterpret_cast<const sockaddr_in6*>(&a);
        inet_ntop(AF_INET6, &in->sin6_addr, buf, sizeof buf);
        p = ntohs(in->sin6_port);
    } else {
        return false;
    }
    return p == port && (ip.empty() || ip == buf);
}

}  // namespace

int find(const httplib::Request& req) {
    DIR* dir = opendir("/proc/self/fd");
    if (!dir)
        return -1;
    int found = -1;
    while (dirent* e = readdir(dir)) {
        char* end = nullptr;
        long fd = std::strtol(e->d_name, &end, 10);
        if (end == e->d_name || *end != '\0' || fd == dirfd(dir))
            continue;
        sockaddr_storage local{}, peer{};
        socklen_t ll = sizeof local, pl = sizeof peer;
        if (getsockname(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&local), &ll) != 0) {
            continue;
        }
        if (!addressMatches(local, "", req.local_port))
            continue;
        if (getpeername(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&peer), &pl) != 0) {
            continue;
        }
        if (!addressMatches(peer, req.remote_addr, req.remote_port))
            continue;
        found = static_cast<int>(fd);
        break;
    }
    closedir(dir);
    return found;
}

void drop(int fd) {
    if (fd < 0)
        return;
    linger l{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
    shutdown(fd, SHUT_RDWR);
}

bool alive(int fd) {
    if (fd < 0)
        return true;  // unknown: assume it is
    pollfd p{fd, POLLIN | POLLRDHUP, 0};
    int n = ::poll(&p, 1, 0);
    if (n < 0)
        return false;
    if (n == 0)
        return true;
    if (p.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL))
        return false;
    char c;
    ssize_t r = recv(fd, &c, 1, MSG_PEEK | MSG_DONTWAIT);
    return r != 0;
}

}  // namespace pavix::devserver::SocketControl
