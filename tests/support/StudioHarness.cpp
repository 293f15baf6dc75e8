#include "support/StudioHarness.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace pavix::test {

Timing fastTiming() {
    Timing timing;
    timing.reconnectDelay = std::chrono::milliseconds(150);
    timing.watchInterval = std::chrono::milliseconds(50);
    timing.refreshFloor = std::chrono::milliseconds(50);
    timing.pollTimeout = std::chrono::milliseconds(5'000);
    timing.fileTimeout = std::chrono::milliseconds(10'000);
    return timing;
}

StudioHarness::StudioHarness(Timing timing, CapturePlatform capture) {
    StudioEnvironment env;
    env.executor = io.get_executor();
    env.pool = &pool_;
    env.http = &http_;
    env.secrets = &secrets;
    env.defaults = &defaults;
    env.content = &content;
    env.volume = &volume;
    env.trash = &trash;
    env.clipboard = &clipboard;
    env.accessibility = &accessibility;
    env.accessibleActions = &actions;
    env.desktopInput = &input;
    env.windowFrames = &windowFrames;
    env.controlThread = &controlThread_;
    env.osVersion = "Test OS 1.0";
    env.capture = std::move(capture);
    env.log = &log;
    env.timing = timing;
    env.nowMs = [this] { return nowMs; };
    env.appVersion = "1.2.3";
    env.deviceName = "test-host";
    char pattern[] = "/tmp/pavix-library.XXXXXX";
    library = std::filesystem::path(::mkdtemp(pattern)) / "Pavix";
    env.libraryFolder = library;
    trash.folder = library.parent_path() / "Trash";
    studio_ = std::make_unique<Studio>(env);
    studio_->setServer(server.base());
}

StudioHarness::~StudioHarness() {
    // Nothing may resume into the Studio once it is gone: stop the executor first.
    io.stop();
    studio_.reset();
    // Work offloaded to the pool may still touch the folder; a destructor must not throw.
    pool_.join();
    std::error_code ignored;
    std::filesystem::remove_all(library.parent_path(), ignored);
}

void StudioHarness::await(asio::awaitable<void> operation, std::chrono::milliseconds limit) {
    std::exception_ptr error;
    bool done = false;
    asio::co_spawn(io, std::move(operation), [&](std::exception_ptr e) {
        error = e;
        done = true;
    });
    drive([&] { return done; }, limit);
    if (error) {
        std::rethrow_exception(error);
    }
}

void StudioHarness::drive(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    if (!runUntil(condition, limit)) {
        throw std::runtime_error("the operation did not finish in time");
    }
}

bool StudioHarness::runUntil(const std::function<bool()>& condition,
                             std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        io.run_one_for(std::chrono::milliseconds(10));
    }
    return true;
}

void StudioHarness::runFor(std::chrono::milliseconds duration) {
    auto deadline = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < deadline) {
        io.run_one_until(deadline);
    }
}

void StudioHarness::pairWithCode(const std::string& code) {
    studio().setCode(code);
    await(studio().pair());
    ASSERT_TRUE(studio().state().connected) << studio().state().status;
}

}  // namespace pavix::test
