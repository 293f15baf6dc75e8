#pragma once

#include <asio/awaitable.hpp>
#include <asio/steady_timer.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>
#include <chrono>

namespace pavix {

// Suspends the calling coroutine for `duration` on the monotonic clock. Cancelling the
// coroutine ends the sleep with an operation_aborted error.
inline asio::awaitable<void> sleepFor(std::chrono::steady_clock::duration duration) {
    asio::steady_timer timer(co_await asio::this_coro::executor, duration);
    co_await timer.async_wait(asio::use_awaitable);
}

}  // namespace pavix
