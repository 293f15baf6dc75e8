#pragma once

#include <asio/any_io_executor.hpp>
#include <asio/awaitable.hpp>
#include <asio/cancellation_signal.hpp>
#include <functional>
#include <memory>

namespace pavix {

// The handle of one long-lived coroutine. It owns the coroutine's cancellation signal:
// cancel() is cooperative, and the coroutine ends at its next suspension point. Replacing or
// destroying the handle cancels the task it held. Used on the executor that runs the task.
class Task {
  public:
    using ErrorHandler = std::function<void(std::exception_ptr)>;

    Task() = default;
    Task(Task&& other) noexcept = default;
    Task& operator=(Task&& other) noexcept;
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
    ~Task() { cancel(); }

    // Starts `body` on `executor`. An exception other than cancellation that escapes the body
    // goes to `onError`.
    static Task spawn(const asio::any_io_executor& executor, asio::awaitable<void> body,
                      ErrorHandler onError = {});

    void cancel();
    bool running() const { return state_ && !state_->finished; }
    explicit operator bool() const { return running(); }

  private:
    struct State {
        asio::cancellation_signal signal;
        bool finished = false;
        bool cancelled = false;
    };
    std::shared_ptr<State> state_;
};

}  // namespace pavix
