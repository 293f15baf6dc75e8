#include "core/runtime/Task.h"

#include <asio/bind_cancellation_slot.hpp>
#include <asio/co_spawn.hpp>
#include <asio/post.hpp>

namespace pavix {

Task& Task::operator=(Task&& other) noexcept {
    if (this != &other) {
        cancel();
        state_ = std::move(other.state_);
    }
    return *this;
}

Task Task::spawn(const asio::any_io_executor& executor, asio::awaitable<void> body,
                 ErrorHandler onError) {
    Task task;
    task.state_ = std::make_shared<State>(executor);
    auto state = task.state_;
    asio::co_spawn(
        executor, std::move(body),
        asio::bind_cancellation_slot(
            state->signal.slot(), [state, onError = std::move(onError)](std::exception_ptr error) {
                state->finished = true;
                if (!error || !onError) {
                    return;
                }
                try {
                    std::rethrow_exception(error);
                } catch (const std::system_error& e) {
                    if (e.code() == asio::error::operation_aborted) {
                        return;  // cancelled: the normal way for a task to end
                    }
                    onError(error);
                } catch (...) {
                    onError(error);
                }
            }));
    // co_spawn has queued the body's first step (or run it already, when called on the
    // executor's own thread); this marker runs after it.
    asio::post(executor, [state] { state->started = true; });
    return task;
}

void Task::cancel() {
    if (state_ && !state_->finished && !state_->cancelled) {
        state_->cancelled = true;
        if (state_->started) {
            state_->signal.emit(asio::cancellation_type::terminal);
            return;
        }
        asio::post(state_->executor, [state = state_] {
            if (!state->finished) {
                state->signal.emit(asio::cancellation_type::terminal);
            }
        });
    }
}

}  // namespace pavix
