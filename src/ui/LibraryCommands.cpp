#include "ui/LibraryCommands.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iomanip>

#include "core/runtime/Iso8601.h"
#include "core/runtime/Uuid.h"
#include "ui/StatusLine.h"
#include "ui/StudioWait.h"

namespace pavix::LibraryCommands {
namespace {

std::optional<LocalCapture> find(const Studio& studio, const std::string& id) {
    for (const auto& capture : studio.state().recent) {
        if (Uuid::lower(capture.id) == Uuid::lower(id)) {
            return capture;
        }
    }
    say("no recording " + id + " in the library " + studio.journal().directory().string());
    return std::nullopt;
}

}  // namespace

void list(const Studio& studio, std::ostream& out) {
    const auto& recent = studio.state().recent;
    if (recent.empty()) {
        out << "no recordings in " << studio.journal().directory().string() << "\n";
        return;
    }
    for (const auto& capture : recent) {
        auto file = studio.journal().file(capture.id);
        std::error_code error;
        auto bytes = std::filesystem::file_size(file, error);
        out << Uuid::lower(capture.id) << "  " << std::left << std::setw(11)
            << LocalCapture::stageText(capture.stage) << "  "
            << iso8601(capture.createdAt + LocalCapture::kReferenceDateOffset) << "  ";
        if (capture.durationMs) {
            out << std::fixed << std::setprecision(1) << double(*capture.durationMs) / 1000.0
                << " s";
        } else {
            out << "? s";
        }
        out << "  " << capture.width << "x" << capture.height << "  "
            << (error ? std::string("(video missing)") : std::to_string(bytes) + " bytes") << "  "
            << file.string() << "\n";
    }
}

asio::awaitable<int> retry(Studio& studio, const std::string& id) {
    auto capture = find(studio, id);
    if (!capture) {
        co_return 1;
    }
    if (!studio.canRetry(*capture)) {
        if (capture->stage != LocalCapture::Stage::saved) {
            say(std::string("this recording is ") + LocalCapture::stageText(capture->stage) +
                "; only saved recordings are uploaded again");
        } else {
            say("Reconnect the computer account that created this capture.");
        }
        co_return 1;
    }
    studio.retryUpload(*capture);
    co_await untilState(studio, [](const StudioState& s) { return !s.uploading; });
    say(studio.state().status);
    auto after = find(studio, id);
    co_return after && after->stage == LocalCapture::Stage::uploaded ? 0 : 1;
}

asio::awaitable<int> remove(Studio& studio, const std::string& id) {
    auto capture = find(studio, id);
    if (!capture) {
        co_return 1;
    }
    if (!studio.canManageLocal(*capture)) {
        say(std::string("a recording that is ") + LocalCapture::stageText(capture->stage) +
            " cannot be removed now");
        co_return 1;
    }
    co_await studio.deleteLocal(*capture);
    say(studio.state().status);
    auto still = std::any_of(studio.state().recent.begin(), studio.state().recent.end(),
                             [&](const LocalCapture& c) { return c.id == capture->id; });
    co_return still ? 1 : 0;
}

}  // namespace pavix::LibraryCommands
