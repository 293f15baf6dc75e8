#pragma once

#include <map>
#include <mutex>

#include "platform/WindowFrames.h"

namespace pavix::test {

// Windows whose frames follow what is asked within the limits each one sets, on the screens
// given.
class FakeWindowFrames : public WindowFrames {
  public:
    struct Window {
        CaptureRect frame;
        bool resizable = true;
        WindowSize largest{1e9, 1e9};  // what the application accepts at most
        FrameInsets decorations{};     // what a recording of it leaves out
    };

    std::vector<ScreenFrame> screens() override {
        std::lock_guard lock(mutex_);
        return screens_;
    }
    std::optional<CaptureRect> frame(std::uint32_t id) override {
        std::lock_guard lock(mutex_);
        auto found = windows_.find(id);
        return found == windows_.end() ? std::nullopt : std::optional(found->second.frame);
    }
    bool resizable(std::uint32_t id) override {
        std::lock_guard lock(mutex_);
        auto found = windows_.find(id);
        return found != windows_.end() && found->second.resizable;
    }
    FrameInsets decorations(std::uint32_t id) override {
        std::lock_guard lock(mutex_);
        auto found = windows_.find(id);
        return found == windows_.end() ? FrameInsets{} : found->second.decorations;
    }
    std::optional<CaptureRect> setFrame(std::uint32_t id, const CaptureRect& frame) override {
        std::lock_guard lock(mutex_);
        auto found = windows_.find(id);
        if (found == windows_.end()) {
            return std::nullopt;
        }
        auto& w = found->second;
        w.frame = {frame.x, frame.y, std::min(frame.width, w.largest.width),
                   std::min(frame.height, w.largest.height)};
        return w.frame;
    }

    void set(std::vector<ScreenFrame> screens, std::map<std::uint32_t, Window> windows) {
        std::lock_guard lock(mutex_);
        screens_ = std::move(screens);
        windows_ = std::move(windows);
    }
    void close(std::uint32_t id) {
        std::lock_guard lock(mutex_);
        windows_.erase(id);
    }

  private:
    std::mutex mutex_;
    std::vector<ScreenFrame> screens_;
    std::map<std::uint32_t, Window> windows_;
};

}  // namespace pavix::test
