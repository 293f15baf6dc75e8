#pragma once

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

    void block();
    void unblock();
    // Waits until `count` appends have been called (returns false after 5 s).
    bool waitForAppends(std::size_t count);
    bool waitForBlockedAppend();
};

class FakeVideoEncoder : public VideoEncoder {
  public:
    explicit FakeVideoEncoder(std::shared_ptr<FakeVideoEncoderLog> log) : log_(std::move(log)) {}

    bool open(const std::string& path, const VideoEncoderSettings& settings) override;
    bool append(const VideoFrame& frame, std::int64_t ptsNs) override;
    bool finish(std::int64_t endNs) override;
    void cancel() override;

  private:
    std::shared_ptr<FakeVideoEncoderLog> log_;
};

// A probe that answers from a rule and remembers what it was asked.
class FakeEncoderProbe : public EncoderProbe {
  public:
    std::function<bool(const VideoEncoderSettings&)> rule = [](const auto&) { return true; };
    std::vector<VideoEncoderSettings> asked;

    // CPU seconds a frame costs; by default nothing, as a hardware encoder.
    std::function<std::optional<double>(const VideoEncoderSettings&)> cost = [](const auto&) {
        return std::optional<double>();
    };

    bool canOpen(const VideoEncoderSettings& settings) override {
        asked.push_back(settings);
        return rule(settings);
    }
    std::optional<double> cpuSecondsPerFrame(const VideoEncoderSettings& settings) override {
        return cost(settings);
    }
};

}  // namespace pavix::testing
