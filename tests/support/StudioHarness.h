#pragma once

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
Timing fastTiming();

// A Studio on the test's thread, with fake platform parts and a scripted service on loopback.
// The model executor runs only while a test awaits something.
class StudioHarness {
  public:
    // `capture` gives the Studio platform parts for recordings and stills (none by default).
    explicit StudioHarness(Timing timing = fastTiming(), CapturePlatform capture = {});
    ~StudioHarness();

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
               std::chrono::milliseconds limit = std::chrono::seconds(10));

    // Runs the executor until `condition` holds; false when `limit` passed first.
    bool runUntil(const std::function<bool()>& condition,
                  std::chrono::milliseconds limit = std::chrono::seconds(10));
    // Runs the executor for `duration`.
    void runFor(std::chrono::milliseconds duration);

    // Pairs with a code against the scripted service and checks that it connected.
    void pairWithCode(const std::string& code = "ABCD-1234");

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
    void drive(const std::function<bool()>& condition, std::chrono::milliseconds limit);

    asio::executor_work_guard<asio::io_context::executor_type> guard_{io.get_executor()};
    asio::thread_pool pool_{2};
    asio::thread_pool controlThread_{1};
    HttpClient http_;
    std::unique_ptr<Studio> studio_;
};

}  // namespace pavix::test
