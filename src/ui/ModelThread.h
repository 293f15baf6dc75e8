#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <optional>
#include <thread>

#include "core/runtime/ThreadName.h"

namespace pavix {

// The model executor of the application: one thread of its own runs every operation of the
// Studio, so that neither the window nor the network waits for the other. Stopping ends the
// loop and joins the thread; whatever the Studio owns must be destroyed after that.
class ModelThread {
  public:
    ModelThread() = default;
    ~ModelThread() { stop(); }
    ModelThread(const ModelThread&) = delete;
    ModelThread& operator=(const ModelThread&) = delete;

    asio::io_context& context() { return io_; }
    asio::any_io_executor executor() { return io_.get_executor(); }

    void start() {
        if (!thread_.joinable()) {
            thread_ = std::thread([this] {
                nameThisThread("pavix-model");
                io_.run();
            });
        }
    }
    void stop() {
        guard_.reset();
        io_.stop();
        if (thread_.joinable()) {
            thread_.join();
        }
    }

  private:
    asio::io_context io_;
    std::optional<asio::executor_work_guard<asio::io_context::executor_type>> guard_{
        io_.get_executor()};
    std::thread thread_;
};

}  // namespace pavix
