#include "core/net/Url.h"
#include "core/runtime/Iso8601.h"
#include "core/runtime/Offload.h"
#include "core/runtime/Uuid.h"
#include "core/session/ErrorText.h"
#include "core/session/PavixError.h"
#include "core/session/Studio.h"

namespace pavix {
namespace {

bool managedElsewhere(LocalCapture::Stage stage) {
    return stage == LocalCapture::Stage::recording || stage == LocalCapture::Stage::finalizing ||
           stage == LocalCapture::Stage::uploading;
}

}  // namespace

void Studio::loadLibrary() {
    try {
        auto recovered = journal_.recover();
        change([&](StudioState& s) { s.recent = std::move(recovered); });
    } catch (const std::exception& e) {
        log("library could not be read: " + std::string(e.what()));
        setStatus("Could not read local recording history. Your files remain in " +
                  env_.libraryLabel + ".");
    }
}

void Studio::setAutoTrashUploaded(bool on) {
    env_.defaults->set("autoTrashUploaded", on);
    change([&](StudioState& s) { s.autoTrashUploaded = on; });
}

// Moves a video to the trash when it is still there; never unlinks it.
asio::awaitable<void> Studio::moveToTrash(std::filesystem::path file) {
    auto work = [trash = env_.trash, file = std::move(file)] {
        std::error_code ignored;
        if (!std::filesystem::exists(file, ignored)) {
            return;
        }
        if (trash == nullptr) {
            throw Trash::NotSupported("This computer has no Trash. The file stays where it is.");
        }
        trash->moveToTrash(file);
    };
    co_await offload(*env_.pool, std::move(work));
}

asio::awaitable<void> Studio::applyRetention() {
    if (!state_.autoTrashUploaded || state_.busy || state_.recording) {
        co_return;
    }
    auto now = env_.nowMs() / 1000.0 - LocalCapture::kReferenceDateOffset;
    auto expired = CaptureJournal::expired(state_.recent, now, CaptureJournal::uploadedRetention);
    for (const auto& capture : expired) {
        if ((current_ && current_->id == capture.id) || removing_.count(capture.id) != 0) {
            continue;
        }
        removing_.insert(capture.id);
        std::exception_ptr failure;
        try {
            co_await moveToTrash(journal_.file(capture.id));
            co_await removeRecord(capture);
            log("retention moved an uploaded copy to the trash");
        } catch (...) {
            failure = std::current_exception();
        }
        removing_.erase(capture.id);
        if (failure) {
            // Never shown: the copy stays and the next launch tries again.
            log("retention skipped a copy: " + ErrorText::describe(failure));
        }
    }
    try {
        co_await reloadRecent();
    } catch (...) {
        log("library could not be reloaded: " + ErrorText::describe(std::current_exception()));
    }
}

bool Studio::canManageLocal(const LocalCapture& capture) const {
    if (state_.busy || state_.uploading) {
        return false;
    }
    if ((current_ && current_->id == capture.id) || removing_.count(capture.id) != 0) {
        return false;
    }
    return !managedElsewhere(capture.stage);
}

asio::awaitable<void> Studio::deleteLocal(LocalCapture capture) {
    if (!canManageLocal(capture)) {
        co_return;
    }
    removing_.insert(capture.id);
    std::exception_ptr failure;
    try {
        co_await moveToTrash(journal_.file(capture.id));
        co_await removeRecord(capture);
        co_await reloadRecent();
    } catch (...) {
        failure = std::current_exception();
    }
    removing_.erase(capture.id);
    if (failure) {
        setStatus("Could not remove the local copy. " + ErrorText::describe(failure));
        try {
            co_await reloadRecent();
        } catch (...) {
        }
        co_return;
    }
    setStatus("Local copy moved to Trash. Cloud recordings are unchanged.");
}

std::string Studio::supportBundle() const {
    auto server = Url::parse(state_.server);
    nlohmann::json captures = nlohmann::json::array();
    for (std::size_t i = 0; i < state_.recent.size() && i < 20; ++i) {
        const auto& c = state_.recent[i];
        std::string id = c.id;
        for (auto& ch : id) {
            ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
        }
        nlohmann::json entry = {
            {"id", id},
            {"stage", LocalCapture::stageText(c.stage)},
            {"createdAt", iso8601(c.createdAt + LocalCapture::kReferenceDateOffset)},
            {"width", c.width},
            {"height", c.height},
            {"bound", c.serverOrigin.has_value()}};
        if (c.durationMs) {
            entry["durationMs"] = *c.durationMs;
        }
        captures.push_back(entry);
    }
    // Versions, identifiers, stages and timings only: no titles, paths, tokens or content.
    nlohmann::json bundle = {
        {"appVersion", env_.appVersion},
        {"macOS", env_.osVersion},
        {"server", server && !server->host.empty() ? server->host : std::string("invalid")},
        {"paired", state_.paired},
        {"deviceIdPrefix", identity_ ? identity_->deviceId.substr(0, 8) : std::string()},
        {"connected", state_.connected},
        {"recording", state_.recording},
        {"lastErrorCode", state_.lastErrorCode},
        {"captures", captures},
        {"generatedAt", iso8601(env_.nowMs() / 1000.0)}};
    return bundle.dump(2);  // nlohmann's objects keep their keys sorted
}

asio::awaitable<void> Studio::copySupportBundle() {
    if (env_.clipboard == nullptr) {
        setStatus("No clipboard is available on this computer.");
        co_return;
    }
    // The clipboard is served by a thread of its own; a desktop that does not answer costs a
    // bounded wait, never a hung model.
    auto put = [clipboard = env_.clipboard, text = supportBundle()] { clipboard->setText(text); };
    std::exception_ptr failure;
    try {
        co_await offloadTo(env_.pool->get_executor(), std::move(put), env_.timing.clipboardTimeout,
                           "The clipboard did not answer.");
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        auto reason = ErrorText::describe(failure);
        log("clipboard refused the support bundle: " + reason);
        setStatus("Could not copy the support bundle. " + reason);
        co_return;
    }
    setStatus("Support bundle copied. It contains versions, capture IDs, stages and timings only.");
}

}  // namespace pavix
