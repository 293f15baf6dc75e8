#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
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
    void fail(const CaptureError& error);
};

class FakeCaptureStream : public CaptureStream {
  public:
    explicit FakeCaptureStream(std::shared_ptr<FakeStreamScript> script)
        : script_(std::move(script)) {}
    ~FakeCaptureStream() override { stop(); }
    void start(const CaptureFilter& filter, const CaptureStreamConfig& config,
               CaptureStreamHandlers handlers) override;
    void stop() override;

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
    int finishes = 0;
    int cancels = 0;
};

class FileVideoEncoder : public VideoEncoder {
  public:
    explicit FileVideoEncoder(std::shared_ptr<FakeEncoderScript> script)
        : script_(std::move(script)) {}
    bool open(const std::string& path, const VideoEncoderSettings& settings) override;
    bool append(const VideoFrame& frame, std::int64_t ptsNs) override;
    bool finish(std::int64_t endNs) override;
    void cancel() override;

  private:
    std::shared_ptr<FakeEncoderScript> script_;
    std::string path_;
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
