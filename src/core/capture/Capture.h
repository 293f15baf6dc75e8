#pragma once

#include <asio/any_io_executor.hpp>
#include <asio/awaitable.hpp>
#include <asio/thread_pool.hpp>
#include <chrono>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/app/Defaults.h"
#include "core/capture/CaptureEncoding.h"
#include "core/capture/CaptureLayers.h"
#include "core/capture/CapturePlatform.h"
#include "core/capture/CaptureRect.h"
#include "core/capture/CaptureSource.h"
#include "core/capture/PreviewFeed.h"
#include "core/runtime/Log.h"
#include "core/runtime/SharedOutcome.h"
#include "core/runtime/Task.h"
#include "core/runtime/Timing.h"
#include "platform/ShareableContent.h"
#include "platform/VideoFrame.h"

namespace pavix {

class CaptureStream;
class CaptureWriter;

// Records one window or display into one video file: picks the largest size the machine can
// encode, falls back to the next smaller one when the encoder refuses a size, feeds the
// stream's frames to a CaptureWriter, samples a recorded window's layers, turns a stream that
// ends by itself into one sentence, and on stop completes and validates the file.
//
// Lives on the model executor: every method is called there and every field is touched only
// there. Stream and writer callbacks arrive on their own threads and are posted over. Blocking
// work (opening the encoder, stopping the stream, completing and reading back the file) runs on
// the worker pool.
class Capture {
  public:
    struct Parts {
        asio::any_io_executor executor;
        asio::thread_pool* pool = nullptr;
        CapturePlatform platform;
        ShareableContent* content = nullptr;
        Defaults* defaults = nullptr;  // "captureMaxWidth"
        Log* log = nullptr;
        Timing timing;
        std::string libraryLabel = "Videos/Pavix";
    };

    // The encoder refused the chosen size before the first frame was written.
    struct EncoderRejected : std::runtime_error {
        explicit EncoderRejected(std::exception_ptr error);
        std::exception_ptr underlying;
    };

    // What a source is recorded through: the filter, the recorded part of the screen when a
    // window is recorded with its pop-ups, and the size of the content in points.
    struct Framing {
        CaptureFilter filter;
        std::optional<CaptureRect> region;
        double width = 0;
        double height = 0;
        std::optional<CaptureRect> windowFrame;  // the recorded window's frame, when listed
    };

    // How long a still picture waits for its frame.
    static constexpr std::chrono::milliseconds stillTimeout{3'000};

    static constexpr const char* alreadyRecordingMessage = "Already recording";
    static constexpr const char* cannotRecordMessage =
        "This source cannot be recorded. Choose another window or display.";
    static constexpr const char* cannotEncodeMessage =
        "This computer cannot encode a video of this source.";
    static constexpr const char* didNotStartMessage =
        "Recording did not start. Check screen recording permission.";
    static constexpr const char* incompleteMessage = "The saved capture is incomplete.";
    static constexpr const char* existsMessage =
        "This capture already exists locally. It will not be overwritten.";
    static constexpr const char* notRecordingMessage = "No capture is running.";

    explicit Capture(Parts parts);
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    // Starts recording `source` into `file`, which must not exist yet. Returns once frames are
    // being written. Throws PavixError with the user's sentence, or the stream's CaptureError
    // when the stream cannot start.
    asio::awaitable<void> start(CaptureSource source, std::filesystem::path file);

    // Stops the stream, completes the file, checks its duration by reading it back, makes it
    // owner-only and returns its path. Concurrent calls share one stop.
    asio::awaitable<std::filesystem::path> stop();

    // Measures on the worker pool what the encoder costs on this machine, as the start of a
    // 1920×1080 source would, so that the start after an approval need not wait for it (the
    // probe remembers the figures). Only the first call does anything.
    void prepareEncoder();

    // One PNG picture of `source` at its own size, from a stream of its own. Throws when the
    // source cannot be captured.
    asio::awaitable<std::vector<std::uint8_t>> still(CaptureSource source);
    // The window's live preview of `source`, fitted into `maxWidth` × `maxHeight` pixels, its
    // new pictures sent to `sink` on the stream's thread; none ends it. A capture that starts
    // ends the preview before its own stream starts, and none is shown while a capture runs.
    void preview(const std::optional<CaptureSource>& source, int maxWidth, int maxHeight,
                 PreviewFeed::Sink sink);

    // How a source is recorded, given the current windows and displays: a window that is on
    // screen and belongs to an application is recorded with that application's pop-ups in a
    // region around it on its display; other windows alone; a display as it is.
    static Framing withPopups(const CaptureSource& source, const ShareableContentSnapshot& content);

    // Whether a capture is starting, running or stopping.
    bool running() const { return current_ != nullptr || starting_ || stopping_ != nullptr; }
    const std::optional<CaptureEncoding>& encoding() const { return encoding_; }
    std::int64_t width() const { return encoding_ ? encoding_->size.width : 0; }
    std::int64_t height() const { return encoding_ ? encoding_->size.height : 0; }
    const std::optional<std::filesystem::path>& file() const { return file_; }
    std::int64_t durationMs() const { return durationMs_; }
    const std::optional<CaptureRect>& region() const { return region_; }
    // The layer track of the current or last window recording.
    const CaptureLayers& layers() const { return layers_; }
    // The first failure of the running (or last) capture.
    std::exception_ptr failure() const { return failure_; }

    bool showsCursor = true;
    std::function<void(const std::string&)> onFailure;
    std::function<void(std::exception_ptr)> onFailureError;

  private:
    struct Attempt;

    asio::awaitable<void> startWith(const CaptureEncoding& encoding, const Framing& framing);
    asio::awaitable<void> discard(std::shared_ptr<Attempt> attempt);
    asio::awaitable<void> performStop(std::shared_ptr<SharedOutcome<std::filesystem::path>> done);
    asio::awaitable<void> watchLayers(std::uint32_t windowID, CaptureRect region);
    void streamFailed(const std::shared_ptr<Attempt>& attempt, std::exception_ptr error);
    void writerFailed(const std::shared_ptr<Attempt>& attempt, std::exception_ptr error);
    void report(std::exception_ptr error);
    std::string describe(std::exception_ptr error) const;
    void log(const std::string& line) const;
    // The stream filter of a one-picture capture: a window alone, a display as it is.
    static CaptureFilter stillFilter(const CaptureSource& source);

    Parts parts_;
    std::shared_ptr<Attempt> current_;  // the running capture, from its first frame to its stop
    bool starting_ = false;
    bool encoderPrepared_ = false;
    std::exception_ptr failure_;
    std::optional<std::chrono::steady_clock::time_point> started_;
    std::int64_t durationMs_ = 0;
    std::shared_ptr<SharedOutcome<std::filesystem::path>> stopping_;
    Task stopTask_;
    std::optional<std::filesystem::path> file_;
    std::optional<CaptureRect> region_;
    CaptureLayers layers_;
    Task layerWatch_;
    std::optional<CaptureEncoding> encoding_;
    // Posted callbacks check this before touching the capture.
    std::shared_ptr<Capture*> self_;
    // Shared with the pool job that waits for it to stop before a capture starts.
    std::shared_ptr<PreviewFeed> preview_;
};

}  // namespace pavix
