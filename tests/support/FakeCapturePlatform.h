#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "core/capture/CapturePlatform.h"
#include "support/FakeVideoEncoder.h"

namespace pavix::testing {

// What the fake streams were asked and what they do, shared by every stream the factory makes.
struct FakeStreamScript {
    std::mutex mutex;
    // Behaviour.
    std::optional<CaptureError> startError;
    bool deliverFrames = true;                     // a complete frame every 2 ms while running
    std::chrono::milliseconds firstFrameDelay{0};  // from the start to the first frame
    // The stream ends by itself after this many frames.
    std::optional<std::pair<int, CaptureError>> failAfterFrames;
    // Record.
    std::vector<CaptureFilter> filters;
    std::vector<CaptureStreamConfig> configs;
    int starts = 0;
    int stops = 0;
    int live = 0;                   // streams running now
    int mostLive = 0;               // the most that ever ran at once
    CaptureStreamHandlers running;  // handlers of the stream that runs now
    int runningStream = 0;          // which stream that is (each start takes the next number)

    // Ends the running stream as the window system would: its error handler, then no frame.
    void fail(const CaptureError& error) {
        CaptureStreamHandlers handlers;
        {
            std::lock_guard lock(mutex);
            handlers = std::exchange(running, {});
        }
        if (handlers.error) {
            handlers.error(error);
        }
    }
};

class FakeCaptureStream : public CaptureStream {
  public:
    explicit FakeCaptureStream(std::shared_ptr<FakeStreamScript> script)
        : script_(std::move(script)) {}
    ~FakeCaptureStream() override { stop(); }
    void start(const CaptureFilter& filter, const CaptureStreamConfig& config,
               CaptureStreamHandlers handlers) override {
        bool deliver = false;
        std::chrono::milliseconds delay{0};
        {
            std::lock_guard lock(script_->mutex);
            ++script_->starts;
            script_->filters.push_back(filter);
            script_->configs.push_back(config);
            if (script_->startError) {
                throw *script_->startError;
            }
            script_->running = handlers;
            number_ = script_->runningStream = script_->starts;
            script_->mostLive = std::max(script_->mostLive, ++script_->live);
            deliver = script_->deliverFrames;
            delay = script_->firstFrameDelay;
        }
        started_ = true;
        if (!deliver) {
            return;
        }
        auto pixels = std::make_shared<const std::vector<std::uint8_t>>(
            std::size_t(config.width) * config.height * 4, 0x80);
        producer_ = std::thread([this, pixels, config, handlers, delay] {
            const auto first = std::chrono::steady_clock::now() + delay;
            while (!stopping_ && std::chrono::steady_clock::now() < first) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            while (!stopping_) {
                {
                    // A stream that failed, or that a later one replaced, delivers nothing more.
                    std::lock_guard lock(script_->mutex);
                    if (script_->runningStream != number_ || !script_->running.frame) {
                        return;
                    }
                }
                const auto now = std::chrono::steady_clock::now().time_since_epoch();
                handlers.frame({config.width, config.height, config.width * 4, pixels,
                                std::chrono::duration_cast<std::chrono::nanoseconds>(now).count(),
                                true});
                std::optional<CaptureError> ending;
                {
                    std::lock_guard lock(script_->mutex);
                    auto& after = script_->failAfterFrames;
                    if (after && --after->first <= 0) {
                        ending = after->second;
                        after.reset();
                    }
                }
                if (ending) {
                    script_->fail(*ending);
                    return;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(2));  // the frame pacing
            }
        });
    }
    void stop() override {
        stopping_ = true;
        if (producer_.joinable()) {
            producer_.join();
        }
        if (std::exchange(started_, false)) {
            std::lock_guard lock(script_->mutex);
            ++script_->stops;
            --script_->live;
            if (script_->runningStream == number_) {
                script_->running = {};
            }
        }
    }

  private:
    std::shared_ptr<FakeStreamScript> script_;
    std::atomic<bool> stopping_{false};
    bool started_ = false;
    int number_ = 0;
    std::thread producer_;
};

// Encoders that create their file (exclusively, as the real one does), refuse the first frame
// at the scripted widths, and count the files they complete.
struct FakeEncoderScript {
    std::mutex mutex;
    std::set<int> refuseWidths;
    std::vector<int> openedWidths;
    std::vector<EncoderEffort> openedEfforts;
    int finishes = 0;
    int cancels = 0;
};

class FileVideoEncoder : public VideoEncoder {
  public:
    explicit FileVideoEncoder(std::shared_ptr<FakeEncoderScript> script)
        : script_(std::move(script)) {}
    bool open(const std::string& path, const VideoEncoderSettings& settings) override {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd < 0) {
            throw std::system_error(errno, std::generic_category(), "cannot create " + path);
        }
        const std::string header = "width " + std::to_string(settings.width) + "\n";
        [[maybe_unused]] auto written = ::write(fd, header.data(), header.size());
        ::close(fd);
        width_ = settings.width;
        std::lock_guard lock(script_->mutex);
        script_->openedWidths.push_back(settings.width);
        script_->openedEfforts.push_back(settings.effort);
        return true;
    }
    bool append(const VideoFrame&, std::int64_t) override {
        std::lock_guard lock(script_->mutex);
        return script_->refuseWidths.count(width_) == 0;
    }
    bool finish(std::int64_t) override {
        std::lock_guard lock(script_->mutex);
        ++script_->finishes;
        return true;
    }
    void cancel() override {
        std::lock_guard lock(script_->mutex);
        ++script_->cancels;
    }

  private:
    std::shared_ptr<FakeEncoderScript> script_;
    int width_ = 0;
};

class FakeMediaReader : public MediaReader {
  public:
    std::optional<double> duration(const std::string& path) override {
        std::lock_guard lock(mutex);
        ++reads;
        lastPath = path;
        return seconds;
    }
    std::mutex mutex;
    std::optional<double> seconds = 2.5;
    int reads = 0;
    std::string lastPath;
};

class FakeWindowLayers : public WindowLayers {
  public:
    std::vector<LayerWindow> windows(std::uint32_t) override {
        std::lock_guard lock(mutex);
        return current;
    }
    void set(std::vector<LayerWindow> next) {
        std::lock_guard lock(mutex);
        current = std::move(next);
    }
    std::mutex mutex;
    std::vector<LayerWindow> current;
};

// Every fake part of a capture, owned together, and the platform value made of them.
struct FakeCaptureParts {
    std::shared_ptr<FakeStreamScript> streams = std::make_shared<FakeStreamScript>();
    std::shared_ptr<FakeEncoderScript> encoders = std::make_shared<FakeEncoderScript>();
    FakeEncoderProbe probe;
    FakeMediaReader media;
    FakeWindowLayers layers;

    CapturePlatform platform() {
        CapturePlatform platform;
        platform.streams = [s = streams] { return std::make_unique<FakeCaptureStream>(s); };
        platform.encoders = [e = encoders] { return std::make_unique<FileVideoEncoder>(e); };
        platform.probe = &probe;
        platform.media = &media;
        platform.layers = &layers;
        return platform;
    }
};

}  // namespace pavix::testing
