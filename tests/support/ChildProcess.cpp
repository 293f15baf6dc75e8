#include "support/ChildProcess.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace pavix::test {

ChildProcess::ChildProcess(std::vector<std::string> arguments,
                           std::map<std::string, std::string> environment) {
    int out[2], err[2];
    if (::pipe(out) != 0 || ::pipe(err) != 0) {
        throw std::runtime_error("pipe failed");
    }
    pid_ = ::fork();
    if (pid_ < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid_ == 0) {
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        ::close(out[0]);
        ::close(out[1]);
        ::close(err[0]);
        ::close(err[1]);
        for (const auto& [name, value] : environment) {
            ::setenv(name.c_str(), value.c_str(), 1);
        }
        std::vector<char*> argv;
        for (auto& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        ::execvp(argv[0], argv.data());  // a bare name is looked up on the PATH
        ::_exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);
    readers_.emplace_back([this, fd = out[0]] { read(fd); });
    readers_.emplace_back([this, fd = err[0]] { read(fd); });
}

ChildProcess::~ChildProcess() {
    if (!status_) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    for (auto& reader : readers_) {
        reader.join();
    }
}

void ChildProcess::read(int fd) {
    std::string pending;
    char buffer[4096];
    for (;;) {
        ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got <= 0) {
            break;
        }
        pending.append(buffer, static_cast<std::size_t>(got));
        std::size_t newline;
        while ((newline = pending.find('\n')) != std::string::npos) {
            std::lock_guard lock(mutex_);
            lines_.push_back(pending.substr(0, newline));
            pending.erase(0, newline + 1);
            changed_.notify_all();
        }
    }
    ::close(fd);
    std::lock_guard lock(mutex_);
    if (!pending.empty()) {
        lines_.push_back(pending);
    }
    --openStreams_;
    changed_.notify_all();
}

std::optional<std::string> ChildProcess::waitForLine(const std::string& fragment,
                                                     std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    std::optional<std::string> found;
    changed_.wait_for(lock, limit, [&] {
        for (const auto& line : lines_) {
            if (line.find(fragment) != std::string::npos) {
                found = line;
                return true;
            }
        }
        return openStreams_ == 0;
    });
    return found;
}

std::vector<std::string> ChildProcess::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

std::string ChildProcess::output() const {
    std::string all;
    for (const auto& line : lines()) {
        all += line + "\n";
    }
    return all;
}

void ChildProcess::signal(int number) {
    ::kill(pid_, number);
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds limit) {
    if (status_) {
        return status_;
    }
    auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        int status = 0;
        pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == pid_) {
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            // The readers may not have taken the last lines yet: without this, a caller that
            // reads the output right after the exit could miss them. A descendant that keeps
            // the streams open is given a few seconds, not the whole limit.
            std::unique_lock lock(mutex_);
            changed_.wait_for(lock, std::chrono::seconds(5), [this] { return openStreams_ == 0; });
            return status_;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        }
        // waitpid has no time-out of its own; a short poll is the portable way to bound it.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

}  // namespace pavix::test
