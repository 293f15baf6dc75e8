#include "core/capture/CaptureWriter.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "core/runtime/ThreadName.h"
#include "core/session/PavixError.h"

namespace pavix {
namespace {

std::int64_t steadyNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

VideoEncoderSettings CaptureWriter::settings(const CaptureEncoding& encoding) {
    // Sizes beyond a 32-bit integer are a programming fault.
    if (encoding.size.width > INT_MAX || encoding.size.height > INT_MAX) {
        std::fprintf(stderr, "pavix: CaptureWriter: size %lldx%lld out of range\n",
                     static_cast<long long>(encoding.size.width),
                     static_cast<long long>(encoding.size.height));
        std::abort();
    }
    VideoEncoderSettings settings;
    settings.width = static_cast<int>(encoding.size.width);
    settings.height = static_cast<int>(encoding.size.height);
    settings.bitrate = encoding.bitrate;
    settings.frameRate = frameRate;
    settings.maxKeyFrameIntervalNs = maxKeyFrameIntervalNs;
    settings.requiresHardware = encoding.requiresHardware;
    settings.effort = encoding.effort;
    return settings;
}

bool CaptureWriter::canEncode(const CaptureEncoding& encoding,
                              std::optional<std::int64_t> captureMaxWidth, EncoderProbe& probe) {
    if (captureMaxWidth && *captureMaxWidth < encoding.size.width) {
        return false;  // the user's cap, without touching the encoder
    }
    return probe.canOpen(settings(encoding));
}

EncoderBudget::Plan CaptureWriter::plan(const std::vector<CaptureEncoding>& candidates,
                                        std::optional<std::int64_t> captureMaxWidth,
                                        EncoderProbe& probe) {
    std::vector<CaptureEncoding> kept;
    for (const auto& candidate : candidates) {
        if (canEncode(candidate, captureMaxWidth, probe)) {
            kept.push_back(candidate);
        }
    }
    auto cost = [&probe](const CaptureEncoding& encoding) {
        return probe.cpuSecondsPerFrame(settings(encoding));
    };
    return EncoderBudget::plan(kept, cost, std::thread::hardware_concurrency(), frameRate);
}

std::int64_t CaptureWriter::now() {
    // On Linux the steady clock is CLOCK_MONOTONIC, the clock of VideoFrame::captureTimeNs.
    return steadyNs();
}

CaptureWriter::CaptureWriter(const std::string& path, const CaptureEncoding& encoding,
                             std::unique_ptr<VideoEncoder> encoder, std::size_t queueDepth)
    : encoding_(encoding),
      encoder_(std::move(encoder)),
      queue_(std::max<std::size_t>(queueDepth, 1)) {
    if (!encoder_->open(path, settings(encoding_))) {
        throw PavixError(cannotEncodeMessage);
    }
    encoderOpen_ = true;
    thread_ = std::thread([this] { run(); });
    threadId_ = thread_.get_id();
}

CaptureWriter::~CaptureWriter() {
    cancel();
    if (thread_.joinable()) {
        if (threadId_ == std::this_thread::get_id()) {
            thread_.detach();  // destroyed from its own callback
        } else {
            thread_.join();
        }
    }
}

void CaptureWriter::setOnFirstFrame(std::function<void()> callback) {
    std::lock_guard lock(mutex_);
    onFirstFrame_ = std::move(callback);
}

void CaptureWriter::setOnFailure(std::function<void(std::exception_ptr)> callback) {
    std::lock_guard lock(mutex_);
    onFailure_ = std::move(callback);
}

CaptureWriter::Counters CaptureWriter::counters() const {
    std::lock_guard lock(mutex_);
    return counters_;
}

void CaptureWriter::append(const VideoFrame& frame) {
    std::lock_guard lock(mutex_);
    if (finishing_ || failed_) {
        return;
    }
    if (!frame.holdsPicture() || frame.captureTimeNs < 0) {
        ++counters_.framesInvalid;
        return;
    }
    if (!frame.complete) {
        ++counters_.framesIncomplete;
        return;
    }
    const std::int64_t time = frame.captureTimeNs;
    if (lastTaken_ && time <= *lastTaken_) {
        ++counters_.framesOutOfOrder;
        return;
    }
    // The timeline starts at the first acceptable frame, even if that frame is then shed.
    if (!sessionStarted_) {
        sessionStarted_ = true;
        origin_ = time;
    }
    if (count_ == queue_.size()) {
        ++counters_.framesShed;
        return;
    }
    Pending& slot = queue_[(head_ + count_) % queue_.size()];
    slot.frame = frame;
    slot.ptsNs = time - origin_;
    ++count_;
    lastTaken_ = time;
    work_.notify_one();
}

void CaptureWriter::failLocked(std::exception_ptr error,
                               std::function<void(std::exception_ptr)>& notify) {
    if (failed_) {
        return;  // only the first failure counts
    }
    failed_ = error;
    notify = onFailure_;
    // Nothing more is encoded: drop what waits.
    for (; count_ > 0; --count_, head_ = (head_ + 1) % queue_.size()) {
        queue_[head_].frame = VideoFrame{};
    }
}

void CaptureWriter::run() {
    nameThisThread("pavix-writer");
    std::unique_lock lock(mutex_);
    for (;;) {
        work_.wait(lock, [this] { return stop_ || count_ > 0; });
        if (count_ == 0) {
            break;  // stopped, nothing left
        }
        Pending item = std::move(queue_[head_]);
        queue_[head_].frame = VideoFrame{};
        head_ = (head_ + 1) % queue_.size();
        --count_;
        if (failed_) {
            continue;
        }
        lock.unlock();

        bool ok = false;
        std::exception_ptr error;
        const std::int64_t started = steadyNs();
        try {
            ok = encoder_->append(item.frame, item.ptsNs);
        } catch (...) {
            error = std::current_exception();
        }
        const std::int64_t spent = steadyNs() - started;
        const std::int64_t time = item.frame.captureTimeNs;
        item.frame = VideoFrame{};  // hand the picture back before waiting again

        std::function<void()> firstFrame;
        std::function<void(std::exception_ptr)> failure;
        lock.lock();
        counters_.encodeNsTotal += spent;
        counters_.encodeNsMax = std::max(counters_.encodeNsMax, spent);
        if (ok) {
            const bool first = !lastAppended_;
            lastAppended_ = time;
            ++counters_.framesAppended;
            if (first) {
                firstFrame = onFirstFrame_;
            }
        } else {
            failLocked(error ? error : std::make_exception_ptr(PavixError(notEncodedMessage)),
                       failure);
        }
        if (firstFrame || failure) {
            lock.unlock();
            if (firstFrame) {
                firstFrame();
            }
            if (failure) {
                failure(failed_);  // failed_ never changes once set
            }
            lock.lock();
        }
    }
}

void CaptureWriter::stopThread(bool discard) {
    {
        std::unique_lock lock(mutex_);
        finishing_ = true;
        if (discard) {
            for (; count_ > 0; --count_, head_ = (head_ + 1) % queue_.size()) {
                queue_[head_].frame = VideoFrame{};
            }
        }
        stop_ = true;
        work_.notify_all();
    }
    // From a callback on the encoding thread the thread cannot be joined; it ends by itself
    // once the callback returns, and the destructor joins it.
    if (thread_.joinable() && threadId_ != std::this_thread::get_id()) {
        thread_.join();
    }
}

void CaptureWriter::closeEncoder() {
    if (encoderOpen_) {
        encoderOpen_ = false;
        encoder_->cancel();
    }
}

void CaptureWriter::finish(std::int64_t endNs) {
    const bool onEncodingThread = threadId_ == std::this_thread::get_id();
    if (closing_.exchange(true)) {
        // Another finish or a cancel came first: share its outcome.
        if (onEncodingThread) {
            return;  // it may be waiting for this very thread
        }
        std::unique_lock lock(mutex_);
        closedChanged_.wait(lock, [this] { return closed_; });
        if (outcome_) {
            std::rethrow_exception(outcome_);
        }
        return;
    }
    // Frames already taken are still encoded, as an asset writer appends what it was given;
    // except when finishing from a callback on the encoding thread, which cannot wait for
    // itself.
    stopThread(onEncodingThread);

    bool started = false;
    std::int64_t last = 0;
    std::int64_t origin = 0;
    std::exception_ptr failure;
    {
        std::lock_guard lock(mutex_);
        started = sessionStarted_ && lastAppended_.has_value();
        last = lastAppended_.value_or(0);
        origin = origin_;
        failure = failed_;
    }

    std::exception_ptr outcome;
    try {
        if (started && !failure && encoderOpen_) {
            encoderOpen_ = false;
            const std::int64_t end = std::max(last, endNs);
            if (!encoder_->finish(end - origin)) {
                throw PavixError(notSavedMessage);
            }
        } else {
            closeEncoder();
            if (failure) {
                std::rethrow_exception(failure);
            }
            throw PavixError(noFramesMessage);
        }
    } catch (...) {
        outcome = std::current_exception();
    }
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
        outcome_ = outcome;
        closedChanged_.notify_all();
    }
    if (outcome) {
        std::rethrow_exception(outcome);
    }
}

void CaptureWriter::cancel() {
    if (closing_.exchange(true)) {
        return;
    }
    stopThread(true);
    closeEncoder();
    std::lock_guard lock(mutex_);
    closed_ = true;
    outcome_ = std::make_exception_ptr(PavixError(noFramesMessage));
    closedChanged_.notify_all();
}

}  // namespace pavix
