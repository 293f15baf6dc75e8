#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/EncoderProbe.h"
#include "platform/VideoEncoder.h"

namespace pavix::testing {

// What a FakeVideoEncoder saw. Shared with the test, since the writer owns the encoder.
struct FakeVideoEncoderLog {
    std::mutex mutex;
    std::condition_variable changed;

    // Scripted behaviour.
    bool openResult = true;
    std::exception_ptr openError;
    std::function<bool(std::int64_t appendIndex)> appendResult;  // default: true
    std::function<void(std::int64_t appendIndex)> appendThrows;  // may throw
    bool finishResult = true;
    std::exception_ptr finishError;
    bool blocked = false;  // while true, append waits (an encoder that is behind)

    // Record.
    std::string path;
    std::optional<VideoEncoderSettings> settings;
    std::vector<std::int64_t> appendedPts;  // ptsNs of each append call
    std::optional<std::int64_t> finishedAt;
    int cancels = 0;
    int inAppend = 0;  // appends waiting behind `blocked`

    void block() {
        std::lock_guard lock(mutex);
        blocked = true;
    }
    void unblock() {
        std::lock_guard lock(mutex);
        blocked = false;
        changed.notify_all();
    }
    // Waits until `count` appends have been called (returns false after 5 s).
    bool waitForAppends(std::size_t count) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(5),
                                [&] { return appendedPts.size() >= count; });
    }
    bool waitForBlockedAppend() {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(5), [&] { return inAppend > 0; });
    }
};

class FakeVideoEncoder : public VideoEncoder {
  public:
    explicit FakeVideoEncoder(std::shared_ptr<FakeVideoEncoderLog> log) : log_(std::move(log)) {}

    bool open(const std::string& path, const VideoEncoderSettings& settings) override {
        std::lock_guard lock(log_->mutex);
        log_->path = path;
        log_->settings = settings;
        if (log_->openError) {
            std::rethrow_exception(log_->openError);
        }
        return log_->openResult;
    }
    bool append(const VideoFrame&, std::int64_t ptsNs) override {
        std::unique_lock lock(log_->mutex);
        ++log_->inAppend;
        log_->changed.notify_all();
        log_->changed.wait(lock, [&] { return !log_->blocked; });
        --log_->inAppend;
        const auto index = static_cast<std::int64_t>(log_->appendedPts.size());
        log_->appendedPts.push_back(ptsNs);
        log_->changed.notify_all();
        if (log_->appendThrows) {
            log_->appendThrows(index);
        }
        return log_->appendResult ? log_->appendResult(index) : true;
    }
    bool finish(std::int64_t endNs) override {
        std::lock_guard lock(log_->mutex);
        log_->finishedAt = endNs;
        if (log_->finishError) {
            std::rethrow_exception(log_->finishError);
        }
        return log_->finishResult;
    }
    void cancel() override {
        std::lock_guard lock(log_->mutex);
        ++log_->cancels;
    }

  private:
    std::shared_ptr<FakeVideoEncoderLog> log_;
};

// A probe that answers from a rule and remembers what it was asked. Frames cost no CPU time,
// as on a hardware encoder.
class FakeEncoderProbe : public EncoderProbe {
  public:
    std::function<bool(const VideoEncoderSettings&)> rule = [](const auto&) { return true; };
    std::vector<VideoEncoderSettings> asked;

    bool canOpen(const VideoEncoderSettings& settings) override {
        asked.push_back(settings);
        return rule(settings);
    }
    // CPU seconds a frame costs; by default nothing, as for a hardware encoder. Asked on the
    // worker pool.
    std::function<std::optional<double>(const VideoEncoderSettings&)> cost = [](const auto&) {
        return std::optional<double>();
    };
    std::optional<double> cpuSecondsPerFrame(const VideoEncoderSettings& settings) override {
        std::lock_guard lock(costMutex_);
        costAsked_.push_back(settings);
        return cost(settings);
    }
    std::vector<VideoEncoderSettings> costAsked() {
        std::lock_guard lock(costMutex_);
        return costAsked_;
    }

  private:
    std::mutex costMutex_;
    std::vector<VideoEncoderSettings> costAsked_;
};

}  // namespace pavix::testing
