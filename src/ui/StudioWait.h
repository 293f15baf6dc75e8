#pragma once

#include <asio/awaitable.hpp>
#include <functional>
#include <memory>

#include "core/runtime/SharedOutcome.h"
#include "core/session/Studio.h"

namespace pavix {

// Resumes once `condition` holds for the Studio's published state: at once when it already
// does, otherwise at the first change after which it does.
inline asio::awaitable<void> untilState(Studio& studio,
                                        std::function<bool(const StudioState&)> condition) {
    if (condition(studio.state())) {
        co_return;
    }
    auto reached = std::make_shared<SharedOutcome<bool>>(studio.environment().executor);
    studio.observe([reached, condition](const StudioState& state) {
        if (!reached->done() && condition(state)) {
            reached->resolve(true);
        }
    });
    co_await reached->wait();
}

}  // namespace pavix
