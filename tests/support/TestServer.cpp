#include "support/TestServer.h"

namespace pavix::test {

std::string TestServer::Seen::header(const std::string& name) const {
    auto found = headers.find(name);
    return found == headers.end() ? "" : found->second;
}

bool TestServer::Seen::hasHeader(const std::string& name) const {
    return headers.find(name) != headers.end();
}

TestServer::TestServer() {
    server_.set_keep_alive_max_count(1000);
    // Every method and path lands in one handler; routing (unlike pre-routing) has the body.
    auto dispatch = [this](const httplib::Request& request, httplib::Response& response) {
        Handler handler;
        {
            std::lock_guard lock(mutex_);
            seen_.push_back({request.method, request.path, request.body, request.headers});
            auto found = handlers_.find(request.path);
            if (found != handlers_.end()) {
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

TestServer::~TestServer() {
    server_.stop();
    thread_.join();
}

void TestServer::on(const std::string& path, Handler handler) {
    std::lock_guard lock(mutex_);
    handlers_[path] = std::move(handler);
}

void TestServer::reply(const std::string& path, int status, const std::string& json) {
    on(path, [status, json](const httplib::Request&, httplib::Response& response) {
        response.status = status;
        response.set_content(json, "application/json");
    });
}

std::vector<TestServer::Seen> TestServer::requests() const {
    std::lock_guard lock(mutex_);
    return seen_;
}

std::vector<TestServer::Seen> TestServer::requests(const std::string& path) const {
    std::lock_guard lock(mutex_);
    std::vector<Seen> out;
    for (const auto& seen : seen_) {
        if (seen.path == path) {
            out.push_back(seen);
        }
    }
    return out;
}

void TestServer::clear() {
    std::lock_guard lock(mutex_);
    seen_.clear();
}

void TestServer::truncate(httplib::Response& response, std::size_t length, std::size_t bytes) {
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

}  // namespace pavix::test
