#include "core/capture/PreviewFeed.h"
#include "core/runtime/ThreadName.h"

namespace pavix {

PreviewFeed::PreviewFeed(Streams streams)
    : streams_(std::move(streams)), thread_([this] { run(); }) {}

PreviewFeed::~PreviewFeed() {
    {
        std::lock_guard lock(mutex_);
        quitting_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void PreviewFeed::show(const CaptureFilter& filter, int width, int height, Sink sink) {
    std::lock_guard lock(mutex_);
    if (wanted_ && wanted_->filter == filter && wanted_->width == width &&
        wanted_->height == height && (live_ || applied_ != asked_)) {
        wanted_->sink = std::move(sink);  // taken by the next stream; this one keeps its own
        return;
    }
    want(Request{filter, width, height, std::move(sink)});
}

void PreviewFeed::hide() {
    std::lock_guard lock(mutex_);
    if (wanted_) {
        want(std::nullopt);
    }
}

void PreviewFeed::hideAndWait() {
    std::unique_lock lock(mutex_);
    if (wanted_) {
        want(std::nullopt);
    }
    changed_.wait(lock, [this] { return applied_ == asked_; });
}

void PreviewFeed::want(std::optional<Request> request) {
    wanted_ = std::move(request);
    ++asked_;
    changed_.notify_all();
}

void PreviewFeed::run() {
    nameThisThread("pavix-preview");
    std::unique_ptr<CaptureStream> stream;
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return quitting_ || applied_ != asked_; });
        if (quitting_) {
            break;
        }
        const auto request = wanted_;
        const auto asked = asked_;
        lock.unlock();
        if (stream) {
            stream->stop();
            stream.reset();
        }
        if (request && streams_) {
            CaptureStreamConfig config;
            config.width = request->width;
            config.height = request->height;
            config.showsCursor = false;
            config.draft = true;
            config.minimumFrameInterval = kInterval;
            CaptureStreamHandlers handlers;
            handlers.frame = [sink = request->sink](const VideoFrame& frame) {
                if (frame.complete && sink) {
                    sink(frame);
                }
            };
            // A source that ends (a closed window) stops showing; asking again starts it anew.
            handlers.error = [this](const CaptureError&) {
                std::lock_guard lock(mutex_);
                live_ = false;
            };
            try {
                stream = streams_();
                stream->start(request->filter, config, std::move(handlers));
            } catch (const std::exception&) {
                stream.reset();  // a minimised or vanished source has no picture to show
            }
        }
        lock.lock();
        live_ = stream != nullptr;
        applied_ = asked;
        changed_.notify_all();
    }
    lock.unlock();
    if (stream) {
        stream->stop();
    }
}

}  // namespace pavix
