#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "core/capture/CaptureFilter.h"
#include "platform/CaptureStream.h"

namespace pavix {

// A live, small picture of one source for the window's preview, from a stream of its own that
// delivers a picture only when the content changed (a still source costs nothing). Streams
// are started and stopped on a thread of the feed's own, so asking never blocks; `hideAndWait`
// is for a recording that must not begin while a preview stream runs.
class PreviewFeed {
  public:
    // Receives each new picture on the stream's thread; must return quickly.
    using Sink = std::function<void(const VideoFrame&)>;
    using Streams = std::function<std::unique_ptr<CaptureStream>()>;

    // A few pictures a second at most: enough to follow a window, and cheap.
    static constexpr double kInterval = 0.4;

    explicit PreviewFeed(Streams streams);
    ~PreviewFeed();
    PreviewFeed(const PreviewFeed&) = delete;
    PreviewFeed& operator=(const PreviewFeed&) = delete;

    // Shows `filter` in pictures of `width` × `height` pixels (even) sent to `sink`, replacing
    // what was shown. The same source at the same size keeps its stream while that runs; one
    // that could not start or ended by itself is started again. Returns at once.
    void show(const CaptureFilter& filter, int width, int height, Sink sink);
    // Ends the preview; returns at once.
    void hide();
    // Ends the preview and returns once no preview stream runs. Blocking.
    void hideAndWait();

  private:
    struct Request {
        CaptureFilter filter;
        int width = 0;
        int height = 0;
        Sink sink;
    };

    void run();
    void want(std::optional<Request> request);  // with the lock held

    Streams streams_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<Request> wanted_;
    std::uint64_t asked_ = 0;    // requests made
    std::uint64_t applied_ = 0;  // requests the thread has carried out
    bool live_ = false;          // a stream runs for the request carried out last
    bool quitting_ = false;
    std::thread thread_;
};

}  // namespace pavix
