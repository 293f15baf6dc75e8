#pragma once

#include <asio/awaitable.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>
#include <exception>
#include <optional>
#include <system_error>

namespace pavix {

// The outcome of one operation that several coroutines on the same executor await: each waiter
// gets a copy of the value, or the same error. The waiters park on a timer that never expires
// and are all woken by cancelling it. Cancelling one waiter abandons only its own wait.
template <class T>
class SharedOutcome {
  public:
    explicit SharedOutcome(const asio::any_io_executor& executor)
        : timer_(executor, asio::steady_timer::time_point::max()) {}

    void resolve(T value) {
        value_ = std::move(value);
        done_ = true;
        timer_.cancel();
    }
    void reject(std::exception_ptr error) {
        error_ = std::move(error);
        done_ = true;
        timer_.cancel();
    }
    bool done() const { return done_; }

    asio::awaitable<T> wait() {
        co_await waitUntilDone();
        co_return *value_;
    }

    // For an outcome with a single waiter: the value is moved out instead of copied.
    asio::awaitable<T> take() {
        co_await waitUntilDone();
        co_return std::move(*value_);
    }

  private:
    // Parks until resolved or rejected; rethrows the rejection.
    asio::awaitable<void> waitUntilDone() {
        while (!done_) {
            try {
                co_await timer_.async_wait(asio::use_awaitable);
            } catch (const std::system_error&) {
                if (!done_) {
                    throw;  // this waiter was cancelled
                }
            }
        }
        if (error_) {
            std::rethrow_exception(error_);
        }
    }

    asio::steady_timer timer_;
    std::optional<T> value_;
    std::exception_ptr error_;
    bool done_ = false;
};

}  // namespace pavix
