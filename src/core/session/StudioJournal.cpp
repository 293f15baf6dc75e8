#include <algorithm>

#include "core/runtime/Offload.h"
#include "core/runtime/Uuid.h"
#include "core/session/ErrorText.h"
#include "core/session/Studio.h"

// The Studio's side of the local library: every read and write of a side-car runs on one
// strand of the worker pool, in order and off the model executor, and the model waits for it
// only so long.

namespace pavix {
namespace {

constexpr const char* kFolderSilent = "The library folder did not answer in time.";

}  // namespace

asio::awaitable<bool> Studio::existsLocally(std::string id) {
    auto canonical = Uuid::upper(id);
    if (std::any_of(state_.recent.begin(), state_.recent.end(),
                    [&](const LocalCapture& c) { return c.id == canonical; })) {
        co_return true;
    }
    auto look = [video = journal_.file(canonical), manifest = journal_.manifest(canonical)] {
        std::error_code ignored;
        return std::filesystem::exists(video, ignored) ||
               std::filesystem::exists(manifest, ignored);
    };
    co_return co_await offloadTo(journalStrand_, std::move(look), env_.timing.journalTimeout,
                                 kFolderSilent);
}

asio::awaitable<void> Studio::saveRecord(LocalCapture record) {
    auto save = [journal = journal_, record = std::move(record)] { journal.save(record); };
    co_await offloadTo(journalStrand_, std::move(save), env_.timing.journalTimeout, kFolderSilent);
}

asio::awaitable<void> Studio::removeRecord(LocalCapture record) {
    auto remove = [journal = journal_, record = std::move(record)] {
        journal.removeManifest(record);
    };
    co_await offloadTo(journalStrand_, std::move(remove), env_.timing.journalTimeout,
                       kFolderSilent);
}

asio::awaitable<void> Studio::reloadRecent() {
    auto load = [journal = journal_] { return journal.load(); };
    auto loaded = co_await offloadTo(journalStrand_, std::move(load), env_.timing.journalTimeout,
                                     kFolderSilent);
    change([&](StudioState& s) { s.recent = std::move(loaded); });
}

asio::awaitable<void> Studio::stage(LocalCapture::Stage stage) {
    if (!current_) {
        co_return;
    }
    auto copy = *current_;
    copy.stage = stage;
    auto duration = capture_->durationMs();
    copy.durationMs = duration > 0 ? std::optional<std::int64_t>(duration) : std::nullopt;
    if (capture_->encoding()) {
        copy.width = capture_->width();
        copy.height = capture_->height();
    }
    if (capture_->region() && !capture_->layers().samples.empty()) {
        copy.layers = capture_->layers();
    }
    co_await saveRecord(copy);
    current_ = copy;
    co_await reloadRecent();
}

// Records the stage change, or logs why it could not be written: a side-car that cannot be
// written never stops a recording from being finished.
asio::awaitable<void> Studio::stageOrLog(LocalCapture::Stage next) {
    std::exception_ptr failure;
    try {
        co_await stage(next);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        if (ErrorText::isCancellation(failure)) {
            std::rethrow_exception(failure);
        }
        log(std::string("library record not updated to ") + LocalCapture::stageText(next) + ": " +
            ErrorText::describe(failure));
    }
}

}  // namespace pavix
