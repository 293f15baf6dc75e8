#pragma once

#include <asio/awaitable.hpp>
#include <asio/cancellation_state.hpp>
#include <asio/cancellation_type.hpp>
#include <asio/error.hpp>
#include <asio/this_coro.hpp>
#include <memory>
#include <system_error>

namespace pavix {

// A stretch of a coroutine whose steps must all run: the clean-up after a failure or a cancel,
// which puts a record back or ends a phase. Beginning it clears a cancel already received;
// a cancel that arrives during it (the session ending while the clean-up waits for the disk)
// is held back instead of cutting the clean-up short and leaving a phase open for good. Each
// wait inside the stretch must be bounded by itself.
//
// A coroutine that goes on after its clean-up calls release(): a cancel held back takes
// effect there. One whose clean-up is its last step needs no release.
class CancellationHold {
  public:
    // Begins the stretch: `co_await hold.begin();`. It is the runtime's own step rather than a
    // coroutine, because awaiting a coroutine after a cancel throws before its first line.
    auto begin() const { return asio::this_coro::reset_cancellation_state(Filter{held_}); }

    // Ends the stretch; throws operation_aborted when a cancel arrived during it.
    asio::awaitable<void> release() {
        co_await asio::this_coro::reset_cancellation_state();
        if (*held_) {
            throw std::system_error(asio::error::operation_aborted);
        }
    }

  private:
    // Notes every cancel and lets none through.
    struct Filter {
        std::shared_ptr<bool> held;
        asio::cancellation_type_t operator()(asio::cancellation_type_t type) const {
            if (type != asio::cancellation_type::none) {
                *held = true;
            }
            return asio::cancellation_type::none;
        }
    };

    std::shared_ptr<bool> held_ = std::make_shared<bool>(false);
};

}  // namespace pavix
