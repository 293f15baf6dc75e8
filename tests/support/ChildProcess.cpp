#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>

extern char** environ;

namespace pavix::test {
namespace {

// A pipe whose ends are closed when it goes away, unless they were released.
struct Pipe {
    int ends[2] = {-1, -1};
    Pipe() {
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
        }
    }
    ~Pipe() {
        for (int fd : ends) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }
    int release(int which) { return std::exchange(ends[which], -1); }
};

// posix_spawn's file actions, destroyed with the object.
struct FileActions {
    posix_spawn_file_actions_t actions;
    FileActions() { posix_spawn_file_actions_init(&actions); }
    ~FileActions() { posix_spawn_file_actions_destroy(&actions); }
};

// This process's environment with `added` laid over it, as "NAME=value" entries.
std::vector<std::string> environmentWith(const std::map<std::string, std::string>& added) {
    std::map<std::string, std::string> environment;
    for (char** entry = environ; *entry; ++entry) {
        std::string text(*entry);
        auto equals = text.find('=');
        if (equals != std::string::npos) {
            environment[text.substr(0, equals)] = text.substr(equals + 1);
        }
    }
    for (const auto& [name, value] : added) {
        environment[name] = value;
    }
    std::vector<std::string> entries;
    for (const auto& [name, value] : environment) {
        entries.push_back(name + "=" + value);
    }
    return entries;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> list;
    for (auto& text : texts) {
        list.push_back(text.data());
    }
    list.push_back(nullptr);
    return list;
}

}  // namespace

ChildProcess::ChildProcess(std::vector<std::string> arguments,
                           std::map<std::string, std::string> environment, bool holdInput) {
    auto entries = environmentWith(environment);
    auto envp = pointers(entries);
    auto argv = pointers(arguments);

    Pipe out;
    std::optional<Pipe> in;
    FileActions files;
    posix_spawn_file_actions_adddup2(&files.actions, out.ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&files.actions, out.ends[1], STDERR_FILENO);
    if (holdInput) {
        in.emplace();
        posix_spawn_file_actions_adddup2(&files.actions, in->ends[0], STDIN_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&files.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    int failed = ::posix_spawnp(&pid_, argv[0], &files.actions, nullptr, argv.data(), envp.data());
    if (failed != 0) {
        throw std::runtime_error("cannot start " + arguments.at(0) + ": " + std::strerror(failed));
    }
    pidfd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
    if (pidfd_ < 0) {
        int code = errno;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        throw std::runtime_error(std::string("pidfd_open: ") + std::strerror(code));
    }
    output_ = out.release(0);
    if (in) {
        input_ = in->release(1);
    }
    reader_ = std::thread([this] { read(); });
}

ChildProcess::~ChildProcess() {
    if (!status_) {
        ::kill(pid_, SIGKILL);
        int ignored = 0;
        while (::waitpid(pid_, &ignored, 0) < 0 && errno == EINTR) {
        }
    }
    if (input_ >= 0) {
        ::close(input_);
    }
    // The output ends once every process holding it (the child, and anything it started that
    // kept it) is gone.
    reader_.join();
    ::close(output_);
    ::close(pidfd_);
}

void ChildProcess::read() {
    std::string pending;
    char buffer[4096];
    for (;;) {
        ssize_t got = ::read(output_, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
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
    std::lock_guard lock(mutex_);
    if (!pending.empty()) {
        lines_.push_back(pending);
    }
    closed_ = true;
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
        return closed_;
    });
    return found;
}

std::optional<std::string> ChildProcess::nextLine(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, limit, [&] { return next_ < lines_.size() || closed_; }) ||
        next_ == lines_.size()) {
        return std::nullopt;
    }
    return lines_[next_++];
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
    if (!status_) {
        ::kill(pid_, number);
    }
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds limit) {
    if (status_) {
        return status_;
    }
    // The process descriptor turns readable when the child ends: a wait with a time-out.
    pollfd ended{pidfd_, POLLIN, 0};
    int ready;
    while ((ready = ::poll(&ended, 1, static_cast<int>(limit.count()))) < 0 && errno == EINTR) {
    }
    if (ready <= 0) {
        return std::nullopt;
    }
    int status = 0;
    pid_t done;
    while ((done = ::waitpid(pid_, &status, 0)) < 0 && errno == EINTR) {
    }
    if (done != pid_) {
        return std::nullopt;
    }
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    // The reader may not have taken the last lines yet: without this, a caller that reads the
    // output right after the exit could miss them. A descendant that keeps the output open is
    // given a few seconds, not the whole limit.
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(5), [this] { return closed_; });
    return status_;
}

}  // namespace pavix::test
