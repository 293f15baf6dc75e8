#pragma once

#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>

#include "core/runtime/Log.h"

namespace pavix {

// Log lines with a local time stamp, written to a C stream (standard error by default).
class StreamLog : public Log {
  public:
    explicit StreamLog(std::FILE* stream = stderr) : stream_(stream) {}

    void line(const std::string& text) override {
        auto now = std::chrono::system_clock::now();
        auto seconds = std::chrono::system_clock::to_time_t(now);
        auto millis =
            std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
            1000;
        std::tm local{};
        localtime_r(&seconds, &local);
        char stamp[32];
        std::strftime(stamp, sizeof stamp, "%H:%M:%S", &local);
        std::lock_guard lock(mutex_);
        std::fprintf(stream_, "%s.%03lld %s\n", stamp, static_cast<long long>(millis),
                     text.c_str());
        std::fflush(stream_);
    }

  private:
    std::FILE* stream_;
    std::mutex mutex_;
};

}  // namespace pavix
