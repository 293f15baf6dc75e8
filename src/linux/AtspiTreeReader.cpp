#include "linux/AtspiTreeReader.h"

#include <atspi/atspi.h>

#include <chrono>
#include <cmath>
#include <memory>

#include <unordered_map>

#include "linux/AtspiBatch.h"
#include "linux/AtspiCache.h"
#include "linux/AtspiCachedWalk.h"
#include "linux/AtspiCalls.h"
#include "linux/AtspiWalk.h"

namespace pavix {
namespace {

using namespace AtspiCalls;

// libatspi's objects for every element below `frame`, by path, in one call.
std::unordered_map<std::string, AtspiAccessible*> descendantsOf(
    AtspiAccessible* frame, std::vector<Ref<AtspiAccessible>>& keep) {
    std::unordered_map<std::string, AtspiAccessible*> found;
    Ref<AtspiCollection> collection(atspi_accessible_get_collection_iface(frame));
    if (!collection) {
        return found;
    }
    Ref<AtspiStateSet> anyStates(atspi_state_set_new(nullptr));
    Ref<AtspiMatchRule> everything(atspi_match_rule_new(
        anyStates.get(), ATSPI_Collection_MATCH_ALL, nullptr, ATSPI_Collection_MATCH_ALL, nullptr,
        ATSPI_Collection_MATCH_ALL, nullptr, ATSPI_Collection_MATCH_ALL, FALSE));
    GError* error = nullptr;
    GArray* matches = atspi_collection_get_matches(
        collection.get(), everything.get(), ATSPI_Collection_SORT_ORDER_CANONICAL, 0, TRUE, &error);
    if (!succeeded(error) || !matches) {
        return found;
    }
    for (guint i = 0; i < matches->len; ++i) {
        auto* accessible = g_array_index(matches, AtspiAccessible*, i);
        keep.emplace_back(accessible);  // the array's reference
        found.emplace(ATSPI_OBJECT(accessible)->path, accessible);
    }
    g_array_free(matches, TRUE);
    return found;
}

// How far apart two frames are: the sum of the differences of their edges.
double distance(const CaptureRect& a, const CaptureRect& b) {
    return std::abs(a.x - b.x) + std::abs(a.y - b.y) + std::abs(a.maxX() - b.maxX()) +
           std::abs(a.maxY() - b.maxY());
}

}  // namespace

void AtspiTreeReader::start() {
    if (!started_) {
        started_ = true;
        AtspiCalls::start(timeoutMs_);
    }
}

bool AtspiTreeReader::reachable() {
    start();
    Ref<AtspiAccessible> desktop(atspi_get_desktop(0));
    return desktop && childCount(desktop.get()) > 0;
}

std::optional<AccessibleElement> AtspiTreeReader::read(const Window& window,
                                                       const OutlineOptions& options) {
    start();
    using Clock = AtspiWalkBudget::Clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(budgetMs_);
    Ref<AtspiAccessible> desktop(atspi_get_desktop(0));
    if (!desktop) {
        return std::nullopt;
    }
    // The application of the window's process, then its frame that lies where the window
    // does (or bears its title, or is active).
    Ref<AtspiAccessible> best;
    double bestScore = 0;
    for (int i = 0, n = childCount(desktop.get()); i < n; ++i) {
        auto app = childAt(desktop.get(), i);
        if (!app) {
            continue;
        }
        GError* error = nullptr;
        auto pid = atspi_accessible_get_process_id(app.get(), &error);
        if (!succeeded(error)) {
            continue;
        }
        if (static_cast<pid_t>(pid) != window.pid) {
            continue;
        }
        for (int j = 0, frames = childCount(app.get()); j < frames && Clock::now() < deadline;
             ++j) {
            auto frame = childAt(app.get(), j);
            if (!frame) {
                continue;
            }
            Ref<AtspiStateSet> states(atspi_accessible_get_state_set(frame.get()));
            if (!states || !atspi_state_set_contains(states.get(), ATSPI_STATE_SHOWING)) {
                continue;
            }
            error = nullptr;
            auto name = take(atspi_accessible_get_name(frame.get(), &error), error);
            double score = 1;
            if (atspi_state_set_contains(states.get(), ATSPI_STATE_ACTIVE)) {
                score += 1;
            }
            if (!window.title.empty() && name == window.title) {
                score += 2;
            }
            // Some toolkits report window-relative positions: the size alone still counts.
            if (auto at = extentsOf(frame.get())) {
                if (distance(*at, window.frame) < 4) {
                    score += 8;
                } else if (std::abs(at->width - window.frame.width) < 2 &&
                           std::abs(at->height - window.frame.height) < 2) {
                    score += 4;
                }
            }
            if (score > bestScore) {
                bestScore = score;
                best = std::move(frame);
            }
        }
    }
    if (!best) {
        return std::nullopt;
    }
    AtspiWalkBudget budget{options, deadline};
    if (useCache_) {
        if (auto tree = readCached(best.get(), budget)) {
            tree->partial = budget.cut;
            return tree;
        }
        budget.visited = 0;
    }
    auto tree = AtspiLiveWalk(budget).read(best.get(), {});
    tree.partial = budget.cut;
    return tree;
}

std::optional<AccessibleElement> AtspiTreeReader::readCached(AtspiAccessible* frame,
                                                             AtspiWalkBudget& budget) {
    auto* application = ATSPI_OBJECT(frame)->app;
    if (!application || !application->bus || !application->bus_name) {
        return std::nullopt;
    }
    auto items = AtspiCache::items(application->bus, application->bus_name, timeoutMs_);
    if (items.empty()) {
        return std::nullopt;
    }
    std::vector<Ref<AtspiAccessible>> keep;
    auto handles = descendantsOf(frame, keep);
    if (handles.empty()) {
        return std::nullopt;
    }
    AtspiBatch batch(application->bus, application->bus_name, timeoutMs_);
    return AtspiCachedWalk(items, std::move(handles), batch, budget).read(frame);
}

}  // namespace pavix
