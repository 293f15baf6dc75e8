#pragma once

#include <chrono>

namespace pavix::CaptureTicks {

// When the capture's next tick is due, after one that was due at `due`, seen at `now`. A tick
// that comes late (the display server was slow to answer, or the thread waited for a core) is
// taken at once and the next ones keep their times, so that a slow moment costs no frame. Only
// when more than a whole tick behind are the missed ones skipped: the next is due now, rather
// than all of them taken in a burst.
inline std::chrono::steady_clock::time_point following(std::chrono::steady_clock::time_point due,
                                                       std::chrono::steady_clock::duration interval,
                                                       std::chrono::steady_clock::time_point now) {
    const auto next = due + interval;
    return next + interval < now ? now : next;
}

}  // namespace pavix::CaptureTicks
