// The async runtime the model runs on: tasks and their cancellation, work offloaded to the
// pool, cancellable HTTP, the decoding of text and the names of threads.
#include <gtest/gtest.h>

#include <future>

#include "core/net/TransportError.h"
#include "core/runtime/Offload.h"
#include "core/runtime/Sleep.h"
#include "core/runtime/Task.h"
#include "core/runtime/Text.h"
#include "core/runtime/ThreadName.h"
#include "core/session/ErrorText.h"
#include "support/Failure.h"
#include "support/StudioHarness.h"

namespace pavix::test {
namespace {

using std::chrono::milliseconds;

TEST(Runtime, OffloadResumesOnTheModelThreadWithTheResultOrTheError) {
    StudioHarness h;
    asio::thread_pool pool(1);
    auto modelThread = std::this_thread::get_id();
    std::thread::id workThread, resumedOn;
    auto value = h.await([&]() -> asio::awaitable<int> {
        auto work = [&] {
            workThread = std::this_thread::get_id();
            return 42;
        };
        int result = co_await offload(pool, std::move(work));
        resumedOn = std::this_thread::get_id();
        co_return result;
    }());
    EXPECT_EQ(value, 42);
    EXPECT_NE(workThread, modelThread);
    EXPECT_EQ(resumedOn, modelThread);

    auto failing = [&]() -> asio::awaitable<void> {
        auto work = [] { throw std::runtime_error("disk on fire"); };
        co_await offload(pool, std::move(work));
    };
    EXPECT_EQ(failureOf<std::runtime_error>([&] { h.await(failing()); }), "disk on fire");
}

TEST(Runtime, CancellingATaskEndsItAtItsNextSuspension) {
    StudioHarness h;
    bool reachedEnd = false, cleanedUp = false;
    std::string errorSeen;
    // Coroutine lambdas are named: their captures live in the lambda object, which must
    // outlive the task.
    auto sleeper = [&]() -> asio::awaitable<void> {
        struct Cleanup {
            bool& flag;
            ~Cleanup() { flag = true; }
        } cleanup{cleanedUp};
        co_await sleepFor(std::chrono::hours(1));
        reachedEnd = true;
    };
    auto task = Task::spawn(h.io.get_executor(), sleeper(),
                            [&](std::exception_ptr e) { errorSeen = ErrorText::describe(e); });
    h.runFor(milliseconds(20));
    EXPECT_TRUE(task.running());
    task.cancel();
    ASSERT_TRUE(h.runUntil([&] { return !task.running(); }, milliseconds(1000)));
    EXPECT_FALSE(reachedEnd);
    EXPECT_TRUE(cleanedUp);
    EXPECT_EQ(errorSeen, "");  // cancellation is no error

    // Replacing a handle cancels the task it held.
    bool firstEnded = false;
    auto first = [&]() -> asio::awaitable<void> {
        try {
            co_await sleepFor(std::chrono::hours(1));
        } catch (...) {
            firstEnded = true;
            throw;
        }
    };
    Task holder = Task::spawn(h.io.get_executor(), first());
    h.runFor(milliseconds(10));
    holder = Task::spawn(h.io.get_executor(), []() -> asio::awaitable<void> { co_return; }());
    ASSERT_TRUE(h.runUntil([&] { return firstEnded; }, milliseconds(1000)));

    // A task cancelled before its first step still runs its body, clean-up included.
    bool started = false;
    cleanedUp = false;
    auto owing = [&]() -> asio::awaitable<void> {
        started = true;
        try {
            co_await sleepFor(std::chrono::hours(1));
        } catch (...) {
            cleanedUp = true;
            throw;
        }
    };
    auto early = Task::spawn(h.io.get_executor(), owing());
    early.cancel();
    ASSERT_TRUE(h.runUntil([&] { return !early.running(); }, milliseconds(1000)));
    EXPECT_TRUE(started);
    EXPECT_TRUE(cleanedUp);

    // Other errors reach the handler.
    auto boom = []() -> asio::awaitable<void> {
        co_await sleepFor(milliseconds(1));
        throw std::runtime_error("boom");
    };
    auto failing = Task::spawn(h.io.get_executor(), boom(),
                               [&](std::exception_ptr e) { errorSeen = ErrorText::describe(e); });
    ASSERT_TRUE(h.runUntil([&] { return errorSeen == "boom"; }));
}

TEST(Runtime, HttpRequestsAreCancelledPromptlyAndTimeOutAsTransportErrors) {
    StudioHarness h;
    std::atomic<bool> arrived{false};
    std::promise<void> answer;
    auto answered = answer.get_future().share();
    h.server.on("/slow", [&, answered](const httplib::Request&, httplib::Response& response) {
        arrived = true;
        answered.wait_for(std::chrono::seconds(5));
        response.set_content("{}", "application/json");
    });
    HttpClient http;
    HttpRequest request;
    request.url = h.server.base() + "/slow";
    std::string outcome;
    auto slow = [&]() -> asio::awaitable<void> {
        try {
            co_await http.send(request);
            outcome = "answered";
        } catch (...) {
            outcome = ErrorText::isCancellation(std::current_exception()) ? "cancelled" : "failed";
            throw;
        }
    };
    auto task = Task::spawn(h.io.get_executor(), slow());
    ASSERT_TRUE(h.runUntil([&] { return arrived.load(); }));
    task.cancel();
    // Well before the server would have answered.
    ASSERT_TRUE(h.runUntil([&] { return !outcome.empty(); }, milliseconds(1000)));
    EXPECT_EQ(outcome, "cancelled");

    // The client keeps working after an abandoned request; a request that outlasts its time-out
    // fails as a transport error, as does one it cannot send.
    request.timeout = milliseconds(200);
    try {
        h.await(http.send(request));
        FAIL() << "no time-out";
    } catch (const TransportError& e) {
        EXPECT_EQ(e.code(), TransportError::kTimedOut);
        EXPECT_STREQ(e.what(), "The request timed out.");
    }
    answer.set_value();
    h.server.reply("/quick", 200, R"({"ok":1})");
    request.url = h.server.base() + "/quick";
    auto response = h.await(http.send(request));
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, R"({"ok":1})");
    request.url = "ftp://127.0.0.1/file";
    EXPECT_THROW(h.await(http.send(request)), TransportError);
}

TEST(Runtime, TextDecodesWholeCharactersAndReplacesBrokenBytesOneByOne) {
    struct Case {
        std::string text;
        std::vector<char32_t> characters;
        std::optional<char32_t> single;
    };
    const Case cases[] = {
        {"", {}, std::nullopt},
        {"a", {U'a'}, U'a'},
        {"\xC3\xA9", {U'\u00E9'}, U'\u00E9'},                  // é
        {"\xE2\x82\xAC", {U'\u20AC'}, U'\u20AC'},              // €
        {"\xF0\x9F\x98\x80", {U'\U0001F600'}, U'\U0001F600'},  // an emoji
        {"ab", {U'a', U'b'}, std::nullopt},
        {"\xC3", {0xFFFD}, std::nullopt},                          // cut short
        {"\xC3(", {0xFFFD, U'('}, std::nullopt},                   // not a continuation byte
        {"\xC0\xAF", {0xFFFD, 0xFFFD}, std::nullopt},              // overlong "/"
        {"\xED\xA0\x80", {0xFFFD, 0xFFFD, 0xFFFD}, std::nullopt},  // a surrogate
        {"\xFFx", {0xFFFD, U'x'}, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Text::characters(c.text), c.characters) << ::testing::PrintToString(c.text);
        EXPECT_EQ(Text::singleCharacter(c.text), c.single) << ::testing::PrintToString(c.text);
    }
    EXPECT_EQ(Text::lowerAscii("Ctrl+Shift+\xC3\x89Z"), "ctrl+shift+\xC3\x89z");
}

TEST(ThreadName, AScopeNamesTheThreadsStartedInItAndGivesTheOldNameBack) {
    std::thread([] {
        nameThisThread("pavix-a-name-longer-than-fifteen");
        EXPECT_EQ(thisThreadName(), "pavix-a-name-lo");  // what Linux keeps
        std::string worker;
        {
            ThreadNameScope scope("pavix-encoder");
            // A thread started by a library inside the scope, with nothing of its own.
            std::thread([&] { worker = thisThreadName(); }).join();
        }
        EXPECT_EQ(worker, "pavix-encoder");
        EXPECT_EQ(thisThreadName(), "pavix-a-name-lo");
    }).join();
}

}  // namespace
}  // namespace pavix::test
