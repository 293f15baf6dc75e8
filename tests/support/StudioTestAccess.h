#pragma once

#include <asio/post.hpp>
#include <future>

#include "core/session/Studio.h"

namespace pavix {

// Puts a Studio in states that recording reaches, so the command loop's rules can be tested
// on their own.
struct StudioTestAccess {
    // An agent's recording of `record` that runs without a capture behind it.
    static void setRecording(Studio& studio, const std::string& record) {
        studio.transition([&](RecordingLifecycle& l) {
            return l.approve(true) && l.beginStart(RecordingLifecycle::Owner::agent) &&
                   l.started(record);
        });
    }

    // Occupies the library's strand until `released` is ready, as a disk that stopped
    // answering does.
    static void blockLibrary(Studio& studio, std::shared_future<void> released) {
        asio::post(studio.journalStrand_, [released] { released.wait(); });
    }
};

}  // namespace pavix
