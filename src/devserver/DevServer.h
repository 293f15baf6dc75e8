#pragma once

#include "devserver/CommandQueue.h"
#include "devserver/Database.h"
#include "devserver/DiagnosticsLog.h"
#include "devserver/FaultSwitch.h"
#include "devserver/Options.h"
#include "devserver/TokenStore.h"
#include "devserver/UploadStore.h"

#include <httplib.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace pavix::devserver {

class ServiceRoutes;
class AgentRoutes;

// httplib::Server with access to its listening socket: the library listens with a backlog of 5,
// which several devices polling while the agent sends commands overflow.
class HttpServer : public httplib::Server {
  public:
    int listeningSocket() const { return svr_sock_; }
};

// The settings the agent may change while the service runs.
struct LiveSettings {
    std::string minimumAppVersion;
    std::string latestAppVersion;
    bool sessionsDisabled = false;
    int64_t pollHoldMs = 25000;
    std::optional<int64_t> captureMs;
};

// The whole service: stores, routes and the HTTP server on 127.0.0.1. Usable in-process (tests,
// benchmark) or from main.
class DevServer {
  public:
    using Handler = httplib::Server::Handler;

    explicit DevServer(Options options);
    ~DevServer();
    DevServer(const DevServer&) = delete;
    DevServer& operator=(const DevServer&) = delete;

    // Binds and starts serving on a thread of its own; returns the port. Throws when it cannot
    // bind.
    int start();
    void stop();
    // Blocks until the server stops.
    void wait();

    int port() const { return port_; }
    // "http://127.0.0.1:PORT", the base address the app is given.
    std::string baseUrl() const;
    const Options& options() const { return opt_; }
    // The key every agent call carries (AgentKey); kept in the data folder.
    const std::string& agentKey() const { return agentKey_; }
    LiveSettings settings();
    void setSettings(const LiveSettings& s);

    TokenStore& tokens() { return *tokens_; }
    CommandQueue& commands() { return commands_; }
    UploadStore& uploads() { return *uploads_; }
    FaultSwitch& faults() { return faults_; }
    DiagnosticsLog& diagnostics() { return *diagnostics_; }

    // Wraps a route handler with the fault switch.
    Handler guarded(Handler handler);

  private:
    void install();

    Options opt_;
    std::string agentKey_;
    std::unique_ptr<Database> db_;
    std::unique_ptr<TokenStore> tokens_;
    CommandQueue commands_;
    std::unique_ptr<UploadStore> uploads_;
    std::unique_ptr<DiagnosticsLog> diagnostics_;
    FaultSwitch faults_;
    std::unique_ptr<ServiceRoutes> service_;
    std::unique_ptr<AgentRoutes> agent_;
    HttpServer http_;
    std::thread thread_;
    int port_ = -1;
    std::mutex settingsMutex_;
    LiveSettings settings_;
};

}  // namespace pavix::devserver
