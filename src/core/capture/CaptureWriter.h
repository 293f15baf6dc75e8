#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/capture/CaptureEncoding.h"
#include "core/capture/EncoderBudget.h"
#include "platform/EncoderProbe.h"
#include "platform/VideoEncoder.h"
#include "platform/VideoFrame.h"

namespace pavix {

// Turns captured frames into one H.264 video file.
//
// The capture thread hands frames to `append`, which only checks them and passes them on: the
// encoding runs on the writer's own encoding thread. Only complete frames in strictly increasing
// time order are taken; the file's timeline starts at the first frame taken. When the encoding
// thread is behind (its small hand-over queue is full) a new frame is shed — dropped and counted
// — never queued without bound. The first failure is kept for good and reported once.
//
// `finish` and `cancel` block (they wait for the frame being encoded); call them off the model
// executor.
class CaptureWriter {
  public:
    static constexpr int frameRate = 60;
    static constexpr std::int64_t maxKeyFrameIntervalNs = 2'000'000'000;
    // Frames waiting for the encoding thread, beside the one it is encoding.
    static constexpr std::size_t defaultQueueDepth = 4;

    // What the user is told when the file cannot be made.
    static constexpr const char* cannotEncodeMessage = "This computer cannot encode the recording.";
    static constexpr const char* notEncodedMessage = "The recording could not be encoded.";
    static constexpr const char* noFramesMessage = "The recording has no frames.";
    static constexpr const char* notSavedMessage = "The recording could not be saved.";

    struct Counters {
        std::int64_t framesAppended = 0;    // encoded into the file
        std::int64_t framesShed = 0;        // dropped because the encoder was behind
        std::int64_t framesIncomplete = 0;  // idle frames, never written
        std::int64_t framesOutOfOrder = 0;  // time not after the previous frame's
        std::int64_t framesInvalid = 0;     // no picture, bad size or stride, negative time
        std::int64_t encodeNsTotal = 0;     // time spent in the encoder's append
        std::int64_t encodeNsMax = 0;
    };

    // The encoder settings for an encoding: its size and bit rate, 60 fps, key frames ≤ 2 s.
    static VideoEncoderSettings settings(const CaptureEncoding& encoding);

    // Whether this machine can encode `encoding`: the user default "captureMaxWidth"
    // first (when present and below the width, no), then a real encoder through `probe`.
    static bool canEncode(const CaptureEncoding& encoding,
                          std::optional<std::int64_t> captureMaxWidth, EncoderProbe& probe);

    // The encodings to try, in order, among `candidates`: those `canEncode` accepts, the first at
    // the largest size and effort that hold the frame rate on this machine's processors and the
    // probe's measured cost of a frame (measured once per effort, then remembered by the probe).
    // Blocking: call it off the model executor.
    static EncoderBudget::Plan plan(const std::vector<CaptureEncoding>& candidates,
                                    std::optional<std::int64_t> captureMaxWidth,
                                    EncoderProbe& probe);

    // The monotonic clock (CLOCK_MONOTONIC) in nanoseconds, the clock of frame times; the
    // session's end time for `finish`.
    static std::int64_t now();

    // Opens `encoder` on `path` with the encoding's settings and starts the encoding thread.
    // Blocking (opening an encoder takes tens of milliseconds): call it off the model executor.
    // Throws the encoder's own error, or PavixError "This computer cannot encode the recording.".
    CaptureWriter(const std::string& path, const CaptureEncoding& encoding,
                  std::unique_ptr<VideoEncoder> encoder,
                  std::size_t queueDepth = defaultQueueDepth);
    ~CaptureWriter();  // cancels a writer that was neither finished nor cancelled

    CaptureWriter(const CaptureWriter&) = delete;
    CaptureWriter& operator=(const CaptureWriter&) = delete;

    // Called once, on the encoding thread, when the first frame is in the file.
    void setOnFirstFrame(std::function<void()> callback);
    // Called once, on the encoding thread, with the first failure.
    void setOnFailure(std::function<void(std::exception_ptr)> callback);

    // Offers one frame. Any thread; never waits for the encoder.
    void append(const VideoFrame& frame);

    // Stops taking frames, lets the frames already taken be encoded and completes the file,
    // whose video lasts until the later of the last frame and `endNs` (monotonic clock).
    // Throws the first failure, PavixError "The recording has no frames." when nothing was
    // written (the file is then abandoned), or the encoder's error / "The recording could not
    // be saved." when completing fails. A second call gives the first call's outcome.
    void finish(std::int64_t endNs);

    // Stops taking frames, drops those not yet encoded and abandons the file; the partial
    // file is left to the caller. Later frames are ignored.
    void cancel();

    const CaptureEncoding& encoding() const { return encoding_; }
    Counters counters() const;

  private:
    struct Pending {
        VideoFrame frame;
        std::int64_t ptsNs = 0;
    };

    void run();
    void failLocked(std::exception_ptr error, std::function<void(std::exception_ptr)>& notify);
    void stopThread(bool discard);
    void closeEncoder();

    const CaptureEncoding encoding_;
    std::unique_ptr<VideoEncoder> encoder_;

    mutable std::mutex mutex_;      // guards everything below up to `thread_`
    std::condition_variable work_;  // the encoding thread waits for frames or a stop
    std::vector<Pending> queue_;    // ring of `queueDepth` slots
    std::size_t head_ = 0;
    std::size_t count_ = 0;
    bool finishing_ = false;
    bool stop_ = false;
    bool sessionStarted_ = false;
    std::int64_t origin_ = 0;                   // time of the first frame taken
    std::optional<std::int64_t> lastTaken_;     // time of the last frame queued
    std::optional<std::int64_t> lastAppended_;  // time of the last frame encoded
    std::exception_ptr failed_;
    std::function<void()> onFirstFrame_;
    std::function<void(std::exception_ptr)> onFailure_;
    Counters counters_;
    std::thread thread_;
    std::thread::id threadId_;  // the encoding thread's, fixed at construction

    // Closing: the first finish or cancel wins; the encoder is touched by that one only.
    std::atomic<bool> closing_ = false;
    bool encoderOpen_ = false;
    bool closed_ = false;         // under mutex_: the outcome below is known
    std::exception_ptr outcome_;  // under mutex_: the failure of the first finish, for later calls
    std::condition_variable closedChanged_;
};

}  // namespace pavix
