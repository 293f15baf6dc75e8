#pragma once

#include <asio/post.hpp>
#include <asio/this_coro.hpp>
#include <asio/thread_pool.hpp>
#include <memory>
#include <type_traits>
#include <variant>

#include "core/runtime/SharedOutcome.h"

namespace pavix {

// Runs blocking work on the worker pool and resumes the calling coroutine on its own executor
// with the result, or with the exception the work threw.
template <class F, class R = std::invoke_result_t<F&>>
asio::awaitable<R> offload(asio::thread_pool& pool, F work) {
    auto executor = co_await asio::this_coro::executor;
    using Stored = std::conditional_t<std::is_void_v<R>, std::monostate, R>;
    auto pending = std::make_shared<SharedOutcome<Stored>>(executor);
    asio::post(pool, [pending, executor, work = std::move(work)]() mutable {
        // The pool job gives its reference away with the posted handler, so that the pending
        // result (and its timer) is always released on the executor that owns it.
        try {
            if constexpr (std::is_void_v<R>) {
                work();
                asio::post(executor, [p = std::move(pending)] { p->resolve(std::monostate{}); });
            } else {
                auto result = work();
                asio::post(executor, [p = std::move(pending), r = std::move(result)]() mutable {
                    p->resolve(std::move(r));
                });
            }
        } catch (...) {
            asio::post(executor,
                       [p = std::move(pending), e = std::current_exception()] { p->reject(e); });
        }
    });
    if constexpr (std::is_void_v<R>) {
        co_await pending->take();
    } else {
        co_return co_await pending->take();
    }
}

}  // namespace pavix
