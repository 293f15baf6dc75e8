#pragma once

#include <asio/awaitable.hpp>
#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>
#include <cstdint>
#include <system_error>

namespace pavix {

// Wakes every coroutine waiting for the next change of some state on the same executor. The
// waiters park on a timer that never expires and are woken by cancelling it; cancelling one
// waiter abandons only its own wait.
class ChangeSignal {
  public:
    explicit ChangeSignal(const asio::any_io_executor& executor)
        : timer_(executor, asio::steady_timer::time_point::max()) {}

    void notify() {
        ++serial_;
        timer_.cancel();
    }

    // Returns after the next notify().
    asio::awaitable<void> wait() {
        const auto seen = serial_;
        while (seen == serial_) {
            try {
                co_await timer_.async_wait(asio::use_awaitable);
            } catch (const std::system_error&) {
                if (seen == serial_) {
                    throw;  // this waiter was cancelled
                }
            }
        }
    }

  private:
    asio::steady_timer timer_;
    std::uint64_t serial_ = 0;
};

}  // namespace pavix
