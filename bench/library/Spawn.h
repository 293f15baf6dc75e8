#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <vector>

namespace pavix::bench {

struct Finished {
    int status = -1;  // the exit status; -1 when the program could not run or was killed
    std::string output;
};

// Runs a program found on PATH with `args` (args[0] is its name), without a shell, and returns
// its exit status and everything it wrote to standard output. Standard error is inherited.
inline Finished runProgram(const std::vector<std::string>& args) {
    std::vector<std::string> owned(args);
    std::vector<char*> argv;
    for (auto& arg : owned) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);

    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
        return {};
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    pid_t pid = 0;
    int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    Finished finished;
    if (rc != 0) {
        ::close(out[0]);
        return finished;
    }
    char buffer[4096];
    for (;;) {
        auto n = ::read(out[0], buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        finished.output.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(out[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return finished;
        }
    }
    if (WIFEXITED(status)) {
        finished.status = WEXITSTATUS(status);
    }
    return finished;
}

// The digest `sha256sum FILE` prints; nothing when it fails.
inline std::optional<std::string> sha256sum(const std::string& file) {
    auto done = runProgram({"sha256sum", file});
    if (done.status != 0 || done.output.size() < 64) {
        return std::nullopt;
    }
    return done.output.substr(0, 64);
}

}  // namespace pavix::bench
