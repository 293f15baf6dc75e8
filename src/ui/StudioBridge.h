#pragma once

#include <QObject>
#include <asio/any_io_executor.hpp>
#include <asio/awaitable.hpp>
#include <functional>
#include <mutex>
#include <optional>

#include "core/session/StudioSnapshot.h"

namespace pavix {

class Studio;

// The views' side of the Studio. The model runs on its own executor; every change reaches the
// window thread as a snapshot, and every operation a view asks for is handed to the model
// executor. Changes that come faster than the window takes them are merged: a view always
// gets the latest snapshot, never a stale one.
//
// Made before the model executor runs; the model executor must have stopped before the
// bridge is destroyed.
class StudioBridge : public QObject {
    Q_OBJECT

  public:
    using Operation = std::function<asio::awaitable<void>(Studio&)>;

    StudioBridge(Studio& studio, asio::any_io_executor model, QObject* parent = nullptr);

    const StudioSnapshot& snapshot() const { return snapshot_; }

    // Runs `operation` on the model executor.
    void call(std::function<void(Studio&)> operation);
    // Spawns the coroutine of `operation` on the model executor; `done` (optional) runs on
    // the window thread when it ended.
    void spawn(Operation operation, std::function<void()> done = {});

  Q_SIGNALS:
    void changed();

  private:
    void publish();  // model executor
    void deliver();  // window thread

    Studio& studio_;
    asio::any_io_executor model_;
    StudioSnapshot snapshot_;
    std::mutex mutex_;
    std::optional<StudioSnapshot> pending_;
};

}  // namespace pavix
