#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <asio/co_spawn.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/thread_pool.hpp>
#include <chrono>
#include <functional>
#include <memory>

#include "core/app/Defaults.h"
#include "core/net/HttpClient.h"
#include "core/session/Studio.h"
#include "support/FakeControl.h"
#include "support/FakeWindowFrames.h"
#include "support/Fakes.h"
#include "support/ScriptedService.h"
#include "support/TestServer.h"

namespace pavix::test {

// Shorter durations for tests.
inline Timing fastTiming() {
    Timing timing;
    timing.reconnectDelay = std::chrono::milliseconds(150);
    timing.watchInterval = std::chrono::milliseconds(50);
    timing.refreshFloor = std::chrono::milliseconds(50);
    timing.pollTimeout = std::chrono::milliseconds(5'000);
    timing.fileTimeout = std::chrono::milliseconds(10'000);
    return timing;
}

// A Studio on the test's thread, with fake platform parts and a scripted service on loopback.
// The model executor runs only while a test awaits something.
class StudioHarness {
  public:
    // `capture` gives the Studio platform parts for recordings and stills (none by default).
    explicit StudioHarness(Timing timing = fastTiming(), CapturePlatform capture = {}) {
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
    ~StudioHarness() {
        // Nothing may resume into the Studio once it is gone: stop the executor first.
        io.stop();
        studio_.reset();
        // Work offloaded to the pool may still touch the folder; a destructor must not throw.
        pool_.join();
        std::error_code ignored;
        std::filesystem::remove_all(library.parent_path(), ignored);
    }

    // Runs `operation` on the model executor to completion and returns its result.
    template <class T>
    T await(asio::awaitable<T> operation,
            std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        std::optional<T> value;
        std::exception_ptr error;
        bool done = false;
        asio::co_spawn(io, std::move(operation), [&](std::exception_ptr e, T v) {
            error = e;
            value = std::move(v);
            done = true;
        });
        drive([&] { return done; }, limit);
        if (error) {
            std::rethrow_exception(error);
        }
        return std::move(*value);
    }
    void await(asio::awaitable<void> operation,
               std::chrono::milliseconds limit = std::chrono::seconds(10)) {
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

    // Runs the executor until `condition` holds; false when `limit` passed first.
    bool runUntil(const std::function<bool()>& condition,
                  std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (!condition()) {
            if (std::chrono::steady_clock::now() >= deadline) {
                return false;
            }
            io.run_one_for(std::chrono::milliseconds(10));
        }
        return true;
    }
    // Runs the executor for `duration`.
    void runFor(std::chrono::milliseconds duration) {
        auto deadline = std::chrono::steady_clock::now() + duration;
        while (std::chrono::steady_clock::now() < deadline) {
            io.run_one_until(deadline);
        }
    }

    // Pairs with a code against the scripted service and checks that it connected.
    void pairWithCode(const std::string& code = "ABCD-1234") {
        studio().setCode(code);
        await(studio().pair());
        ASSERT_TRUE(studio().state().connected) << studio().state().status;
    }

    Studio& studio() { return *studio_; }

    TestServer server;
    ScriptedService service{server};
    asio::io_context io;
    FakeSecretStore secrets;
    FakeShareableContent content;
    FakeAccessibility accessibility;
    FakeActions actions;
    FakeDesktopInput input;
    FakeWindowFrames windowFrames;
    FakeVolume volume;
    FakeTrash trash;
    FakeClipboard clipboard;
    MemoryDefaults defaults;
    CapturingLog log;
    double nowMs = 1'800'000'000'000.0;
    std::filesystem::path library;  // this harness's own library folder

  private:
    void drive(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
        if (!runUntil(condition, limit)) {
            throw std::runtime_error("the operation did not finish in time");
        }
    }

    asio::executor_work_guard<asio::io_context::executor_type> guard_{io.get_executor()};
    asio::thread_pool pool_{2};
    asio::thread_pool controlThread_{1};
    HttpClient http_;
    std::unique_ptr<Studio> studio_;
};

}  // namespace pavix::test
