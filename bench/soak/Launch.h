#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/thread_pool.hpp>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/app/Defaults.h"
#include "core/net/HttpClient.h"
#include "core/runtime/Timing.h"
#include "core/session/Studio.h"
#include "linux/FfmpegMediaReader.h"
#include "linux/FileSecretStore.h"
#include "support/Fakes.h"

namespace pavix::soak {

// What one computer keeps between launches of the application: its library and the saved
// credential.
struct Home {
    std::filesystem::path library;
    std::filesystem::path credentials;
};

// One launch of the application's model on the calling thread: a Studio built from the real
// HTTP client, FFmpeg's reader and the credential kept in files, with stand-ins for the desktop
// parts an upload does not use. Like the application it recovers the library and loads the
// saved pairing at start. Its executor runs only inside this object's calls.
class Launch {
  public:
    Launch(const Home& home, const std::string& server, std::int64_t pieceBytes, Timing timing);
    ~Launch();
    Launch(const Launch&) = delete;
    Launch& operator=(const Launch&) = delete;

    Studio& studio() { return *studio_; }

    // Pairs with `code`, then ends the session: an upload is retried only while none runs.
    // Throws when pairing does not connect.
    void pair(const std::string& code);
    // The user's "Retry upload" of record `id`, run until that upload ended. `receipt(n)` is
    // called on this thread after the n-th piece's receipt of this upload. Throws when the
    // record is not offered for retry or the upload does not end within `limit`.
    void retry(const std::string& id, std::function<void(int)> receipt, std::chrono::seconds limit);
    // What the model logged, to explain a failure.
    std::vector<std::string> log() const { return log_.lines(); }

  private:
    // The model's log, kept; the status line it writes once a piece's receipt is taken
    // ("Uploading N%.") is also counted for the upload being followed.
    class ReceiptLog : public test::CapturingLog {
      public:
        void line(const std::string& text) override;
        std::function<void()> onReceipt;
    };

    bool runUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit);
    void await(asio::awaitable<void> operation, const char* what);

    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> guard_{io_.get_executor()};
    asio::thread_pool pool_{2};
    HttpClient http_;
    FileSecretStore secrets_;
    MemoryDefaults defaults_;
    test::FakeShareableContent content_;
    test::FakeVolume volume_;
    FfmpegMediaReader media_;
    ReceiptLog log_;
    std::unique_ptr<Studio> studio_;
};

}  // namespace pavix::soak
