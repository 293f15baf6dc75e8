#pragma once

#include <asio/awaitable.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>
#include <exception>
#include <optional>

namespace pavix {

// A result that another thread produces and a coroutine on the model executor awaits. The
// producer hands the value over by posting resolve() or reject() to the executor; the waiting
// coroutine parks on a timer that never expires and is woken by cancelling it. Cancelling the
// awaiting coroutine abandons the wait (the result, when it comes, is dropped).
template <class T>
class Pending {
  public:
    explicit Pending(const asio::any_io_executor& executor)
        : timer_(executor, asio::steady_timer::time_point::max()) {}

    // Both run on the executor given at construction.
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

    asio::awaitable<T> wait() {
        while (!done_) {
            try {
                co_await timer_.async_wait(asio::use_awaitable);
            } catch (const std::system_error&) {
                if (!done_) {
                    throw;  // the waiting coroutine was cancelled
                }
            }
        }
        if (error_) {
            std::rethrow_exception(error_);
        }
        co_return std::move(*value_);
    }

  private:
    asio::steady_timer timer_;
    std::optional<T> value_;
    std::exception_ptr error_;
    bool done_ = false;
};

}  // namespace pavix
