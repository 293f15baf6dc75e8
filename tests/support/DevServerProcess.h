#pragma once

// The development service as a child process, for the integration tests that run the real
// executables. Header-only: PAVIX_DEVSERVER_BINARY is defined for those tests alone.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/ChildProcess.h"

namespace pavix::test {

// A development service on a free port with its own data folder.
class DevServerProcess {
  public:
    explicit DevServerProcess(std::string binary = PAVIX_DEVSERVER_BINARY)
        : binary_(std::move(binary)), data_(scratch("devserver")) {
        process_ = std::make_unique<ChildProcess>(std::vector<std::string>{
            binary_, "--port", "0", "--data", data_, "--poll-hold-ms", "1000"});
        auto ready = process_->waitForLine("ready", std::chrono::seconds(20));
        if (!ready) {
            throw std::runtime_error("devserver did not start:\n" + process_->output());
        }
        server_ = value("server ");
        code_ = value("code ");
    }
    ~DevServerProcess() { std::filesystem::remove_all(data_); }

    const std::string& server() const { return server_; }
    const std::string& code() const { return code_; }

    // A fresh pairing code from the agent command line.
    std::string newCode() {
        auto out = agent({"pair-code"});
        auto at = out.find("code ");
        if (at == std::string::npos) {
            throw std::runtime_error("no code in: " + out);
        }
        return out.substr(at + 5, out.find('\n', at) - at - 5);
    }

    // Runs the agent command line and returns its output. A command line that does not end
    // (its own waits are at most a minute) is an error that says what it printed so far.
    std::string agent(std::vector<std::string> arguments) {
        std::vector<std::string> command = {binary_, "agent", "--server", server_, "--data", data_};
        command.insert(command.end(), arguments.begin(), arguments.end());
        ChildProcess cli(command);
        if (!cli.wait(std::chrono::seconds(90))) {
            throw std::runtime_error("agent " + arguments.front() +
                                     " did not end; it printed: " + cli.output());
        }
        return cli.output();
    }

    // The JSON envelope the agent command line printed; what it printed instead, under
    // "unparsed", so that a failing test shows it.
    static nlohmann::json envelope(const std::string& output) {
        auto at = output.find('{');
        auto parsed = at == std::string::npos
                          ? nlohmann::json()
                          : nlohmann::json::parse(output.substr(at), nullptr, false);
        return parsed.is_object() ? parsed : nlohmann::json{{"unparsed", output}};
    }

    static std::string scratch(const std::string& name) {
        char pattern[64];
        std::snprintf(pattern, sizeof pattern, "/tmp/pavix-%s.XXXXXX", name.c_str());
        return ::mkdtemp(pattern);
    }

  private:
    std::string value(const std::string& prefix) {
        for (const auto& line : process_->lines()) {
            if (line.rfind(prefix, 0) == 0) {
                return line.substr(prefix.size());
            }
        }
        throw std::runtime_error("devserver printed no " + prefix);
    }

    std::string binary_;
    std::string data_;
    std::string server_;
    std::string code_;
    std::unique_ptr<ChildProcess> process_;
};

}  // namespace pavix::test
