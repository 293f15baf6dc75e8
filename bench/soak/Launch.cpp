#include "Launch.h"

#include <asio/co_spawn.hpp>
#include <cctype>
#include <stdexcept>

#include "core/runtime/Uuid.h"

namespace pavix::soak {
namespace {

double wallMs() {
    using namespace std::chrono;
    return static_cast<double>(
        duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count());
}

}  // namespace

Launch::Launch(const Home& home, const std::string& server, std::int64_t pieceBytes, Timing timing)
    : secrets_(home.credentials) {
    StudioEnvironment env;
    env.executor = io_.get_executor();
    env.pool = &pool_;
    env.http = &http_;
    env.secrets = &secrets_;
    env.defaults = &defaults_;
    env.content = &content_;
    env.volume = &volume_;
    env.capture.media = &media_;
    env.log = &log_;
    env.timing = timing;
    env.uploadPieceBytes = pieceBytes;
    env.nowMs = wallMs;
    env.appVersion = PAVIX_VERSION;
    env.deviceName = "soak";
    env.libraryFolder = home.library;
    studio_ = std::make_unique<Studio>(env);
    studio_->setServer(server);
    studio_->loadLibrary();
    await(studio_->loadSavedIdentity(), "loading the saved pairing");
}

Launch::~Launch() {
    // Nothing may resume into the Studio once it is gone: the executor stops first.
    io_.stop();
    studio_.reset();
}

bool Launch::runUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        io_.run_one_for(std::chrono::milliseconds(20));
    }
    return true;
}

void Launch::await(asio::awaitable<void> operation, const char* what) {
    bool done = false;
    std::exception_ptr failure;
    asio::co_spawn(io_, std::move(operation), [&](std::exception_ptr error) {
        failure = error;
        done = true;
    });
    if (!runUntil([&] { return done; }, std::chrono::seconds(60))) {
        throw std::runtime_error(std::string(what) + " did not finish");
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void Launch::pair(const std::string& code) {
    studio_->setCode(code);
    await(studio_->pair(), "pairing");
    if (!studio_->state().connected) {
        throw std::runtime_error("pairing did not connect: " + studio_->state().status);
    }
    await(studio_->disconnect("Disconnected."), "ending the session");
}

void Launch::retry(const std::string& id, std::function<void(int)> receipt,
                   std::chrono::seconds limit) {
    const std::string canonical = Uuid::upper(id);
    std::optional<LocalCapture> record;
    for (const auto& capture : studio_->state().recent) {
        if (capture.id == canonical) {
            record = capture;
        }
    }
    if (!record || !studio_->canRetry(*record)) {
        throw std::runtime_error(
            "the application does not offer to retry " + canonical + " (" +
            (record ? LocalCapture::stageText(record->stage) : "not in the library") + ")");
    }
    int receipts = 0;
    log_.onReceipt = [&] {
        if (receipt) {
            receipt(++receipts);
        }
    };
    studio_->retryUpload(*record);
    const bool ended = runUntil([&] { return !studio_->state().uploading; }, limit);
    log_.onReceipt = nullptr;
    if (!ended) {
        throw std::runtime_error("the upload of " + canonical + " did not end in time");
    }
}

// Status lines come from the model's thread, the one `onReceipt` is set on: only they read it.
void Launch::ReceiptLog::line(const std::string& text) {
    CapturingLog::line(text);
    const std::string uploading = "status: Uploading ";
    if (text.rfind(uploading, 0) == 0 && text.size() > uploading.size() &&
        std::isdigit(static_cast<unsigned char>(text[uploading.size()])) && onReceipt) {
        onReceipt();
    }
}

}  // namespace pavix::soak
