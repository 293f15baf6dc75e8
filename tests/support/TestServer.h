#pragma once

#include <httplib.h>

#include <chrono>
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
        std::string header(const std::string& name) const {
            auto found = headers.find(name);
            return found == headers.end() ? "" : found->second;
        }
        bool hasHeader(const std::string& name) const { return headers.count(name) != 0; }
    };
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

    TestServer() {
        server_.set_keep_alive_max_count(1000);
        // Every method and path lands in one handler; routing (unlike pre-routing) has the body.
        auto dispatch = [this](const httplib::Request& request, httplib::Response& response) {
            Handler handler;
            {
                std::lock_guard lock(mutex_);
                seen_.push_back({request.method, request.path, request.body, request.headers});
                if (auto found = handlers_.find(request.path); found != handlers_.end()) {
                    handler = found->second;
                }
            }
            if (handler) {
                handler(request, response);
            } else {
                response.status = 404;
                response.set_content(R"({"error":"not_found"})", "application/json");
            }
        };
        server_.Post(".*", dispatch);
        server_.Get(".*", dispatch);
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        // stop() is lost on a server whose accept loop has not started yet, and this version of
        // httplib offers nothing to await: wait until it reports running.
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!server_.is_running() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    ~TestServer() {
        server_.stop();
        thread_.join();
    }

    // Answers `path` (exact match, any method) with `handler`, replacing an earlier one.
    void on(const std::string& path, Handler handler) {
        std::lock_guard lock(mutex_);
        handlers_[path] = std::move(handler);
    }
    // Answers `path` with a fixed status and JSON body.
    void reply(const std::string& path, int status, const std::string& json) {
        on(path, [status, json](const httplib::Request&, httplib::Response& response) {
            response.status = status;
            response.set_content(json, "application/json");
        });
    }

    std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }
    std::vector<Seen> requests() const {
        std::lock_guard lock(mutex_);
        return seen_;
    }
    std::vector<Seen> requests(const std::string& path) const {
        auto seen = requests();
        std::erase_if(seen, [&](const Seen& s) { return s.path != path; });
        return seen;
    }
    std::size_t count(const std::string& path) const { return requests(path).size(); }
    void clear() {
        std::lock_guard lock(mutex_);
        seen_.clear();
    }

    // Closes the connection after `bytes` of a `length`-byte body: a truncated reply.
    static void truncate(httplib::Response& response, std::size_t length, std::size_t bytes) {
        response.set_content_provider(
            length, "application/json",
            [bytes](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                if (offset >= bytes) {
                    return false;  // abandon the reply: httplib closes the connection
                }
                std::string part(bytes - offset, '{');
                sink.write(part.data(), part.size());
                return true;
            });
    }

  private:
    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
    mutable std::mutex mutex_;
    std::map<std::string, Handler> handlers_;
    std::vector<Seen> seen_;
};

}  // namespace pavix::test
