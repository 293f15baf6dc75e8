#include "ui/StudioBridge.h"

#include <QMetaObject>
#include <asio/co_spawn.hpp>
#include <asio/post.hpp>

#include "core/session/ErrorText.h"
#include "core/session/Studio.h"

namespace pavix {
namespace {

// The operation's coroutine, with what it needs held by value: a coroutine frame must not
// refer to a closure that ends before it does.
asio::awaitable<void> runOperation(StudioBridge::Operation operation, Studio* studio) {
    try {
        co_await operation(*studio);
    } catch (...) {
        // Operations report their own failures in the status line; what escapes is logged.
        studio->environment().log->line("operation failed: " +
                                        ErrorText::describe(std::current_exception()));
    }
}

}  // namespace

StudioBridge::StudioBridge(Studio& studio, asio::any_io_executor model, QObject* parent)
    : QObject(parent), studio_(studio), model_(std::move(model)) {
    snapshot_ = StudioSnapshot::of(studio_);
    studio_.observe([this](const StudioState&) { publish(); });
}

void StudioBridge::call(std::function<void(Studio&)> operation) {
    asio::post(model_, [this, operation = std::move(operation)] { operation(studio_); });
}

void StudioBridge::spawn(Operation operation, std::function<void()> done) {
    asio::co_spawn(model_, runOperation(std::move(operation), &studio_),
                   [this, done = std::move(done)](std::exception_ptr) {
                       if (done) {
                           QMetaObject::invokeMethod(this, done, Qt::QueuedConnection);
                       }
                   });
}

void StudioBridge::publish() {
    auto next = StudioSnapshot::of(studio_);
    bool first = false;
    {
        std::lock_guard lock(mutex_);
        first = !pending_;
        pending_ = std::move(next);
    }
    if (first) {
        QMetaObject::invokeMethod(
            this, [this] { deliver(); }, Qt::QueuedConnection);
    }
}

void StudioBridge::deliver() {
    {
        std::lock_guard lock(mutex_);
        if (!pending_) {
            return;
        }
        snapshot_ = std::move(*pending_);
        pending_.reset();
    }
    Q_EMIT changed();
}

}  // namespace pavix
