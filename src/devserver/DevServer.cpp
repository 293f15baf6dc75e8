#include "devserver/DevServer.h"

#include "devserver/AgentKey.h"
#include "devserver/AgentRoutes.h"
#include "devserver/HttpSupport.h"
#include "devserver/ServiceRoutes.h"
#include "devserver/SocketControl.h"

#include <sys/socket.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace pavix::devserver {

DevServer::DevServer(Options options) : opt_(std::move(options)) {
    if (opt_.dataDir.empty())
        opt_.dataDir = Options::defaultDataDir();
    std::filesystem::create_directories(opt_.dataDir);
    std::filesystem::permissions(opt_.dataDir, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::replace);
    agentKey_ = AgentKey::loadOrCreate(opt_.dataDir);
    db_ = std::make_unique<Database>(opt_.dataDir + "/devserver.sqlite3");
    tokens_ = std::make_unique<TokenStore>(
        *db_, Lifetimes{opt_.codeTtlMs, opt_.accessTtlMs, opt_.refreshTtlMs, opt_.refreshGraceMs});
    uploads_ = std::make_unique<UploadStore>(*db_, opt_.dataDir);
    diagnostics_ = std::make_unique<DiagnosticsLog>(*db_);
    settings_ = {opt_.minimumAppVersion, opt_.latestAppVersion, opt_.sessionsDisabled,
                 opt_.pollHoldMs, opt_.captureMs};
    for (auto& ruleText : opt_.faults) {
        std::string why;
        auto rule = FaultRule::parse(ruleText, &why);
        if (!rule)
            throw std::invalid_argument("fault: " + why);
        faults_.add(*rule);
    }
    service_ = std::make_unique<ServiceRoutes>(*this);
    agent_ = std::make_unique<AgentRoutes>(*this);
    install();
}

DevServer::~DevServer() {
    stop();
}

std::string DevServer::baseUrl() const {
    return "http://127.0.0.1:" + std::to_string(port_);
}

LiveSettings DevServer::settings() {
    std::lock_guard lock(settingsMutex_);
    return settings_;
}

void DevServer::setSettings(const LiveSettings& s) {
    std::lock_guard lock(settingsMutex_);
    settings_ = s;
}

namespace {

// The request as if its X-Pavix-Offset were `by` bytes further on; unchanged without one.
httplib::Request shifted(const httplib::Request& req, int by) {
    httplib::Request moved = req;
    const std::string offset = req.get_header_value("X-Pavix-Offset");
    if (!offset.empty() && offset.size() <= 12 &&
        offset.find_first_not_of("0123456789") == std::string::npos) {
        moved.headers.erase("X-Pavix-Offset");
        moved.headers.emplace("X-Pavix-Offset", std::to_string(std::stoll(offset) + by));
    }
    return moved;
}

}  // namespace

DevServer::Handler DevServer::guarded(Handler handler) {
    return [this, handler = std::move(handler)](const httplib::Request& req,
                                                httplib::Response& res) {
        faults_.count(req.path, req.body.size());
        if (auto fault = faults_.take(req.method, req.path)) {
            switch (fault->action) {
                case FaultRule::Action::Status:
                    HttpSupport::send(
                        res, Reply::error(fault->status, fault->error, {{"fault", fault->id}}));
                    return;
                case FaultRule::Action::Drop:
                    SocketControl::drop(SocketControl::find(req));
                    HttpSupport::send(res, Reply::error(500, "fault_dropped"));
                    return;
                case FaultRule::Action::Stall:
                    std::this_thread::sleep_for(std::chrono::milliseconds(fault->stallMs));
                    break;
                case FaultRule::Action::Truncate:
                    HttpSupport::setTruncateCurrent(true);
                    break;
                case FaultRule::Action::DropReply:
                    handler(req, res);
                    SocketControl::drop(SocketControl::find(req));
                    return;
                case FaultRule::Action::NonJson:
                    handler(req, res);
                    res.set_content("<html><body>Service unavailable</body></html>", "text/html");
                    return;
                case FaultRule::Action::Shift:
                    handler(shifted(req, fault->shiftBytes), res);
                    return;
            }
        }
        handler(req, res);
        HttpSupport::setTruncateCurrent(false);
    };
}

void DevServer::install() {
    http_.new_task_queue = [] { return new httplib::ThreadPool(64); };
    // Headers and body go out in separate writes: without TCP_NODELAY every reply waits for the
    // client's delayed ACK (about 40 ms a request).
    http_.set_tcp_nodelay(true);
    http_.set_keep_alive_max_count(1000);
    http_.set_keep_alive_timeout(10);
    http_.set_read_timeout(30);
    http_.set_write_timeout(30);
    http_.set_payload_max_length(opt_.benchSink ? (512u << 20) : (8u << 20));
    http_.set_error_handler(httplib::Server::HandlerWithResponse([](const httplib::Request&,
                                                                    httplib::Response& res) {
        if (!res.body.empty())
            return httplib::Server::HandlerResponse::Unhandled;
        HttpSupport::send(res, Reply::error(res.status, HttpSupport::codeForStatus(res.status)));
        return httplib::Server::HandlerResponse::Handled;
    }));
    http_.set_exception_handler(
        [](const httplib::Request&, httplib::Response& res, std::exception_ptr ep) {
            std::string what = "unknown";
            try {
                std::rethrow_exception(ep);
            } catch (const std::exception& e) {
                what = e.what();
            } catch (...) {
            }
            HttpSupport::setTruncateCurrent(false);
            HttpSupport::send(res, Reply::error(500, "internal_error", {{"detail", what}}));
        });
    if (opt_.verbose) {
        http_.set_logger([](const httplib::Request& req, const httplib::Response& res) {
            std::fprintf(stderr, "%s %s -> %d\n", req.method.c_str(), req.path.c_str(), res.status);
        });
    }
    service_->install(http_);
    agent_->install(http_);
}

int DevServer::start() {
    std::signal(SIGPIPE, SIG_IGN);
    if (opt_.port == 0) {
        port_ = http_.bind_to_any_port(opt_.host);
    } else {
        port_ = http_.bind_to_port(opt_.host, opt_.port) ? opt_.port : -1;
    }
    if (port_ <= 0) {
        throw std::runtime_error("cannot listen on " + opt_.host + ":" + std::to_string(opt_.port));
    }
    ::listen(http_.listeningSocket(), 1024);  // raises the library's backlog of 5
    thread_ = std::thread([this] { http_.listen_after_bind(); });
    // stop() only takes effect once the accept loop runs; wait for it so that an early stop is
    // never lost.
    while (!http_.is_running())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return port_;
}

void DevServer::stop() {
    commands_.shutdown();
    http_.stop();
    if (thread_.joinable())
        thread_.join();
}

void DevServer::wait() {
    if (thread_.joinable())
        thread_.join();
}

}  // namespace pavix::devserver
