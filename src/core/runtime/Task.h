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
//
// The body always starts: a coroutine cancelled before its first step would be ended by the
// runtime without running a line of it, and with it the clean-up that a body owes its state
// (a record put back, a phase ended). A task cancelled that early gets the signal through the
// executor, behind its first step; once it has run, the signal is delivered at once, so that
// a body that cancels its own task and then resets its cancellation state stays reset.
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
        explicit State(asio::any_io_executor e) : executor(std::move(e)) {}
        asio::any_io_executor executor;
        asio::cancellation_signal signal;
        bool started = false;
        bool finished = false;
        bool cancelled = false;
    };
    std::shared_ptr<State> state_;
};

}  // namespace pavix
