#pragma once

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/this_coro.hpp>
#include <asio/thread_pool.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <variant>

#include "core/runtime/SharedOutcome.h"

namespace pavix {

// Blocking work that did not answer within its bound. The work itself goes on where it runs;
// only the wait for it ends.
struct OffloadTimeout : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Runs blocking work on `target` (the worker pool, or a strand of it that keeps the jobs in
// order) and resumes the calling coroutine on its own executor with the result, or with the
// exception the work threw. With a `bound`, the caller stops waiting after that long and gets
// OffloadTimeout with `timeoutMessage`.
template <class Target, class F, class R = std::invoke_result_t<F&>>
asio::awaitable<R> offloadTo(Target target, F work,
                             std::optional<std::chrono::milliseconds> bound = std::nullopt,
                             std::string timeoutMessage = "The work did not finish in time.") {
    auto executor = co_await asio::this_coro::executor;
    using Stored = std::conditional_t<std::is_void_v<R>, std::monostate, R>;
    auto pending = std::make_shared<SharedOutcome<Stored>>(executor);
    std::shared_ptr<asio::steady_timer> deadline;
    if (bound) {
        deadline = std::make_shared<asio::steady_timer>(executor, *bound);
        deadline->async_wait(
            [pending, message = std::move(timeoutMessage)](const std::error_code& error) {
                if (!error && !pending->done()) {
                    pending->reject(std::make_exception_ptr(OffloadTimeout(message)));
                }
            });
    }
    asio::post(target, [pending, deadline, executor, work = std::move(work)]() mutable {
        // The job moves its references into the handler it posts, so that the pending result
        // and its timer are always released on the executor that owns them.
        auto settle = [pending = std::move(pending), deadline = std::move(deadline)](auto apply) {
            if (!pending->done()) {
                apply(*pending);
            }
            if (deadline) {
                deadline->cancel();
            }
        };
        try {
            if constexpr (std::is_void_v<R>) {
                work();
                asio::post(executor, [s = std::move(settle)] {
                    s([](auto& p) { p.resolve(std::monostate{}); });
                });
            } else {
                auto result = std::make_shared<R>(work());
                asio::post(executor, [s = std::move(settle), result] {
                    s([&](auto& p) { p.resolve(std::move(*result)); });
                });
            }
        } catch (...) {
            asio::post(executor, [s = std::move(settle), e = std::current_exception()] {
                s([&](auto& p) { p.reject(e); });
            });
        }
    });
    if constexpr (std::is_void_v<R>) {
        co_await pending->take();
    } else {
        co_return co_await pending->take();
    }
}

// offloadTo on the worker pool.
template <class F, class R = std::invoke_result_t<F&>>
asio::awaitable<R> offload(asio::thread_pool& pool, F work) {
    co_return co_await offloadTo(pool.get_executor(), std::move(work));
}

}  // namespace pavix
