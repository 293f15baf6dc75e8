#include "support/FakeCapturePlatform.h"
#include <algorithm>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <system_error>

namespace pavix::testing {
namespace {

std::int64_t monotonicNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

void FakeStreamScript::fail(const CaptureError& error) {
    CaptureStreamHandlers handlers;
    {
        std::lock_guard lock(mutex);
        handlers = running;
        running = {};
    }
    if (handlers.error) {
        handlers.error(error);
    }
}

void FakeCaptureStream::start(const CaptureFilter& filter, const CaptureStreamConfig& config,
                              CaptureStreamHandlers handlers) {
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
            handlers.frame(
                {config.width, config.height, config.width * 4, pixels, monotonicNs(), true});
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

void FakeCaptureStream::stop() {
    stopping_ = true;
    if (producer_.joinable()) {
        producer_.join();
    }
    if (started_) {
        started_ = false;
        std::lock_guard lock(script_->mutex);
        ++script_->stops;
        --script_->live;
        if (script_->runningStream == number_) {
            script_->running = {};
        }
    }
}

bool FileVideoEncoder::open(const std::string& path, const VideoEncoderSettings& settings) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot create " + path);
    }
    const std::string header = "width " + std::to_string(settings.width) + "\n";
    [[maybe_unused]] auto written = ::write(fd, header.data(), header.size());
    ::close(fd);
    path_ = path;
    width_ = settings.width;
    std::lock_guard lock(script_->mutex);
    script_->openedWidths.push_back(settings.width);
    return true;
}

bool FileVideoEncoder::append(const VideoFrame&, std::int64_t) {
    std::lock_guard lock(script_->mutex);
    return script_->refuseWidths.count(width_) == 0;
}

bool FileVideoEncoder::finish(std::int64_t) {
    std::lock_guard lock(script_->mutex);
    ++script_->finishes;
    return true;
}

void FileVideoEncoder::cancel() {
    std::lock_guard lock(script_->mutex);
    ++script_->cancels;
}

}  // namespace pavix::testing
