#pragma once

#include <httplib.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace pavix::test {

// An HTTP server on loopback, in-process, answering each path with a scripted handler and
// recording every request it receives. Paths without a handler answer 404 with a JSON error.
class TestServer {
  public:
    struct Seen {
        std::string method;
        std::string path;
        std::string body;
        httplib::Headers headers;
        std::string header(const std::string& name) const;
        bool hasHeader(const std::string& name) const;
    };
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

    TestServer();
    ~TestServer();

    // Answers `path` (exact match, any method) with `handler`, replacing an earlier one.
    void on(const std::string& path, Handler handler);
    // Answers `path` with a fixed status and JSON body.
    void reply(const std::string& path, int status, const std::string& json);

    std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }
    int port() const { return port_; }
    std::vector<Seen> requests() const;
    std::vector<Seen> requests(const std::string& path) const;
    std::size_t count(const std::string& path) const { return requests(path).size(); }
    void clear();

    // Closes the connection after `bytes` of a `length`-byte body: a truncated reply.
    static void truncate(httplib::Response& response, std::size_t length, std::size_t bytes);

  private:
    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
    mutable std::mutex mutex_;
    std::map<std::string, Handler> handlers_;
    std::vector<Seen> seen_;
};

}  // namespace pavix::test
