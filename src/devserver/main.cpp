// pavix-devserver: the local Pavix service (serve, the default) and its agent command line.
#include "devserver/AgentCli.h"
#include "devserver/DevServer.h"
#include "devserver/Options.h"
#include "devserver/UrlCodec.h"

#include <csignal>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

using namespace pavix::devserver;

namespace {

int serve(const std::vector<std::string>& args) {
    Options opt;
    try {
        opt = Options::parse(args);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "pavix-devserver: %s\n\n%s", e.what(), Options::usage());
        return 2;
    }
    // SIGINT and SIGTERM end the service; they are taken with sigwait on this thread.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    try {
        DevServer server(opt);
        int port = server.start();
        std::string base = server.baseUrl();
        std::printf("pavix-devserver listening on 127.0.0.1:%d\n", port);
        std::printf("port %d\n", port);
        std::printf("server %s\n", base.c_str());
        // The console's address carries the agent key: it is for this machine's user alone.
        std::printf("console %s/?key=%s\n", base.c_str(), server.agentKey().c_str());
        std::printf("data %s\n", server.options().dataDir.c_str());
        if (opt.printCode) {
            auto code = server.tokens().createCode();
            std::printf("code %s\n", code.code.c_str());
            std::printf("link %s\n", UrlCodec::setupLink(base, code.code).c_str());
        }
        std::printf("ready\n");
        std::fflush(stdout);
        int sig = 0;
        sigwait(&stopSignals, &sig);
        std::fprintf(stderr, "pavix-devserver: stopping\n");
        server.stop();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "pavix-devserver: %s\n", e.what());
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (!args.empty() && (args[0] == "--help" || args[0] == "-h" || args[0] == "help")) {
        std::fputs(Options::usage(), stdout);
        return 0;
    }
    if (!args.empty() && args[0] == "agent") {
        return AgentCli::run({args.begin() + 1, args.end()}, std::cout, std::cerr);
    }
    if (!args.empty() && args[0] == "serve")
        args.erase(args.begin());
    return serve(args);
}
