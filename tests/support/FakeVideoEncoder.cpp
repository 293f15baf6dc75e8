#include "support/FakeVideoEncoder.h"

#include <chrono>

namespace pavix::testing {

void FakeVideoEncoderLog::block() {
    std::lock_guard lock(mutex);
    blocked = true;
}

void FakeVideoEncoderLog::unblock() {
    std::lock_guard lock(mutex);
    blocked = false;
    changed.notify_all();
}

bool FakeVideoEncoderLog::waitForAppends(std::size_t count) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(5),
                            [&] { return appendedPts.size() >= count; });
}

bool FakeVideoEncoderLog::waitForBlockedAppend() {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(5), [&] { return inAppend > 0; });
}

bool FakeVideoEncoder::open(const std::string& path, const VideoEncoderSettings& settings) {
    std::lock_guard lock(log_->mutex);
    log_->path = path;
    log_->settings = settings;
    if (log_->openError) {
        std::rethrow_exception(log_->openError);
    }
    return log_->openResult;
}

bool FakeVideoEncoder::append(const VideoFrame&, std::int64_t ptsNs) {
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

bool FakeVideoEncoder::finish(std::int64_t endNs) {
    std::lock_guard lock(log_->mutex);
    log_->finishedAt = endNs;
    if (log_->finishError) {
        std::rethrow_exception(log_->finishError);
    }
    return log_->finishResult;
}

void FakeVideoEncoder::cancel() {
    std::lock_guard lock(log_->mutex);
    ++log_->cancels;
}

}  // namespace pavix::testing
