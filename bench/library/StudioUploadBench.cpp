// Upload benchmark of the app's own path: a Studio with the real HttpClient, paired with the
// in-process development service on loopback and then disconnected, retries the upload of a
// saved recording (Studio::retryUpload: credential refresh, SHA-256 fingerprint, begin, 4 MiB
// pieces, complete, publish) until its upload ends. Against it, on the same server and the same
// bytes: `sha256sum`, then one `curl` process that sends begin, every piece (`--next` and `-T`, one
// kept-alive connection, empty "Expect:" header), complete and publish. Prints the best and median
// throughput of each over the rounds and their ratios. The Studio's fingerprint is also timed
// on its own, so that its transfer compares with curl's and its hashing with sha256sum's. Put
// the service's data on tmpfs (--dir /dev/shm/...) to keep disk writes out of the figures.
//
// usage: pavix_studio_upload_bench [--mib N] [--rounds N] [--dir DIR]   (N MiB from 1 to 256)
#include <httplib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/thread_pool.hpp>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "Spawn.h"
#include "core/app/Defaults.h"
#include "core/library/CaptureTransfer.h"
#include "core/net/HttpClient.h"
#include "core/runtime/Uuid.h"
#include "core/session/Studio.h"
#include "devserver/DevServer.h"
#include "support/FakeCapturePlatform.h"
#include "support/Fakes.h"

namespace fs = std::filesystem;
namespace ds = pavix::devserver;
using Clock = std::chrono::steady_clock;

namespace {

constexpr const char* kRecovered = "Capture recovered. Ask your agent to render and export.";
constexpr std::int64_t kDurationMs = 60'000;
constexpr std::size_t kCopyBuffer = 1 << 20;

double seconds(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "pavix_studio_upload_bench: %s\n", what.c_str());
    std::exit(1);
}

double wallMs() {
    using namespace std::chrono;
    return static_cast<double>(
        duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count());
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

// Copies `count` bytes at `offset` of `from` into a new file `to`, a small buffer at a time.
void copyRange(FILE* from, std::int64_t offset, std::int64_t count, const fs::path& to) {
    FILE* out = std::fopen(to.c_str(), "wb");
    if (!out || std::fseek(from, static_cast<long>(offset), SEEK_SET) != 0) {
        fail("cannot write " + to.string());
    }
    std::vector<char> buffer(kCopyBuffer);
    while (count > 0) {
        auto n = std::min<std::int64_t>(count, static_cast<std::int64_t>(buffer.size()));
        if (std::fread(buffer.data(), 1, static_cast<std::size_t>(n), from) !=
                static_cast<std::size_t>(n) ||
            std::fwrite(buffer.data(), 1, static_cast<std::size_t>(n), out) !=
                static_cast<std::size_t>(n)) {
            fail("cannot write " + to.string());
        }
        count -= n;
    }
    if (std::fclose(out) != 0) {
        fail("cannot write " + to.string());
    }
}

void writeRandomFile(const fs::path& file, std::size_t bytes) {
    FILE* out = std::fopen(file.c_str(), "wb");
    if (!out) {
        fail("cannot create " + file.string());
    }
    std::mt19937_64 gen(42);
    std::vector<std::uint64_t> block(kCopyBuffer / 8);
    for (std::size_t at = 0; at < bytes; at += kCopyBuffer) {
        for (auto& word : block) {
            word = gen();
        }
        auto n = std::min(kCopyBuffer, bytes - at);
        if (std::fwrite(block.data(), 1, n, out) != n) {
            fail("cannot write " + file.string());
        }
    }
    if (std::fclose(out) != 0) {
        fail("cannot write " + file.string());
    }
}

// The video cut into the pieces the upload sends, one file each, for curl to post.
struct Piece {
    std::int64_t offset = 0;
    fs::path file;
};

std::vector<Piece> cutPieces(const fs::path& video, std::int64_t bytes, const fs::path& folder) {
    fs::create_directories(folder);
    FILE* in = std::fopen(video.c_str(), "rb");
    if (!in) {
        fail("cannot read " + video.string());
    }
    std::vector<Piece> pieces;
    for (std::int64_t at = 0; at < bytes; at += pavix::CaptureTransfer::kChunkSize) {
        Piece piece{at, folder / ("piece-" + std::to_string(pieces.size()))};
        copyRange(in, at, std::min(pavix::CaptureTransfer::kChunkSize, bytes - at), piece.file);
        pieces.push_back(std::move(piece));
    }
    std::fclose(in);
    return pieces;
}

// A Studio on this thread, built from the real HttpClient and stand-ins for the desktop parts
// an upload does not use. Its executor runs only inside runUntil.
class StudioRig {
  public:
    StudioRig(const fs::path& library, const std::string& server) {
        pavix::StudioEnvironment env;
        env.executor = io_.get_executor();
        env.pool = &pool_;
        env.http = &http_;
        env.secrets = &secrets_;
        env.defaults = &defaults_;
        env.content = &content_;
        env.volume = &volume_;
        env.trash = &trash_;
        env.clipboard = &clipboard_;
        env.capture.media = &media_;
        env.log = &log_;
        env.nowMs = wallMs;
        env.appVersion = PAVIX_VERSION;
        env.deviceName = "upload-bench";
        env.libraryFolder = library;
        trash_.folder = library.parent_path() / "Trash";
        media_.seconds = static_cast<double>(kDurationMs) / 1000.0;
        studio_ = std::make_unique<pavix::Studio>(env);
        studio_->setServer(server);
    }
    ~StudioRig() {
        // Nothing may resume into the Studio once it is gone: stop the executor first.
        io_.stop();
        studio_.reset();
    }
    StudioRig(const StudioRig&) = delete;
    StudioRig& operator=(const StudioRig&) = delete;

    pavix::Studio& studio() { return *studio_; }

    bool runUntil(const std::function<bool()>& condition, std::chrono::seconds limit) {
        auto deadline = Clock::now() + limit;
        while (!condition()) {
            if (Clock::now() >= deadline) {
                return false;
            }
            io_.run_one_for(std::chrono::milliseconds(10));
        }
        return true;
    }

    // Runs `operation` on the Studio's executor to its end.
    void await(asio::awaitable<void> operation, const char* what) {
        bool done = false;
        std::exception_ptr error;
        asio::co_spawn(io_, std::move(operation), [&](std::exception_ptr e) {
            error = e;
            done = true;
        });
        if (!runUntil([&] { return done; }, std::chrono::seconds(60))) {
            explain(std::string(what) + " did not finish");
        }
        if (error) {
            explain(std::string(what) + " failed");
        }
    }

    [[noreturn]] void explain(const std::string& what) const {
        std::fprintf(stderr, "%s; status: %s\n", what.c_str(), studio_->state().status.c_str());
        for (const auto& line : log_.lines()) {
            std::fprintf(stderr, "  log: %s\n", line.c_str());
        }
        std::exit(1);
    }

  private:
    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> guard_{io_.get_executor()};
    asio::thread_pool pool_{2};
    pavix::HttpClient http_;
    pavix::test::FakeSecretStore secrets_;
    pavix::MemoryDefaults defaults_;
    pavix::test::FakeShareableContent content_;
    pavix::test::FakeVolume volume_;
    pavix::test::FakeTrash trash_;
    pavix::test::FakeClipboard clipboard_;
    pavix::testing::FakeMediaReader media_;
    pavix::test::CapturingLog log_;
    std::unique_ptr<pavix::Studio> studio_;
};

// A fresh capture id from "desktop-recording/begin", as the device with `token` asks for one.
std::string issueCapture(int port, const std::string& token) {
    httplib::Client client("127.0.0.1", port);
    httplib::Headers headers = {{"Authorization", "Bearer " + token},
                                {"X-Pavix-App-Version", PAVIX_VERSION}};
    nlohmann::json body = {{"requestId", pavix::Uuid::make()}};
    auto reply = client.Post("/local-browser/desktop-recording/begin", headers, body.dump(),
                             "application/json");
    if (!reply || reply->status != 200) {
        fail("desktop-recording/begin refused: " + (reply ? reply->body : std::string("no reply")));
    }
    auto json = nlohmann::json::parse(reply->body, nullptr, false);
    if (!json.is_object() || !json.contains("id") || !json["id"].is_string()) {
        fail("desktop-recording/begin answered " + reply->body);
    }
    return json["id"].get<std::string>();
}

// One round through the Studio: a saved record beside a link to the video, retried until the
// upload ends. Returns the seconds from retryUpload to the end of the upload.
double studioOnce(StudioRig& rig, ds::DevServer& server, const fs::path& video) {
    auto& studio = rig.studio();
    const auto& identity = studio.identity();
    if (!identity) {
        rig.explain("the Studio holds no credential");
    }
    const std::string id = issueCapture(server.port(), identity->accessToken);

    pavix::LocalCapture record;
    record.id = upper(id);
    record.createdAt = wallMs() / 1000.0 - pavix::LocalCapture::kReferenceDateOffset;
    record.stage = pavix::LocalCapture::Stage::saved;
    record.durationMs = kDurationMs;
    record.width = 1920;
    record.height = 1080;
    record.serverOrigin = studio.state().server;
    record.deviceId = identity->deviceId;
    studio.journal().save(record);
    const fs::path file = studio.journal().file(record.id);
    std::error_code linkError;
    fs::create_hard_link(video, file, linkError);
    if (linkError) {
        fs::copy_file(video, file);
    }
    if (!studio.canRetry(record)) {
        rig.explain("the Studio does not offer to retry the upload");
    }

    auto t0 = Clock::now();
    studio.retryUpload(record);
    if (!rig.runUntil([&] { return !studio.state().uploading; }, std::chrono::seconds(600))) {
        rig.explain("the upload did not end within ten minutes");
    }
    auto t1 = Clock::now();

    if (studio.state().status != kRecovered) {
        rig.explain("the upload did not finish");
    }
    bool uploaded = false;
    for (const auto& saved : studio.journal().load()) {
        if (saved.id == record.id) {
            uploaded = saved.stage == pavix::LocalCapture::Stage::uploaded;
        }
    }
    if (!uploaded) {
        rig.explain("the record is not in stage uploaded");
    }
    auto held = server.uploads().upload(id);
    if (!held || held->state != "published") {
        rig.explain("the service does not hold the upload as published");
    }
    fs::remove(server.uploads().filePath(id));
    fs::remove(file);
    return seconds(t0, t1);
}

struct CurlTiming {
    double digest = 0;  // sha256sum
    double upload = 0;  // the curl process: begin, pieces, complete, publish
};

// One round through `sha256sum` and a single curl process, as the same device.
CurlTiming curlOnce(ds::DevServer& server, const std::string& token, const fs::path& video,
                    std::int64_t bytes, const std::vector<Piece>& pieces) {
    const std::string id = issueCapture(server.port(), token);
    const std::string base = server.baseUrl() + "/local-browser/desktop-upload/" + id + "/";

    auto t0 = Clock::now();
    auto digest = pavix::bench::sha256sum(video.string());
    auto t1 = Clock::now();
    if (!digest) {
        fail("sha256sum failed");
    }

    // One process, so one kept-alive connection. A JSON body is given inline; a piece is sent
    // with -T, which streams the file instead of reading it whole when the arguments are parsed
    // (--data-binary @file would hold every piece of the command line in memory at once).
    std::vector<std::string> args = {"curl", "-s", "-S"};
    auto request = [&](const std::string& step, const std::string& type,
                       std::vector<std::string> body) {
        if (args.size() > 3) {
            args.push_back("--next");
        }
        for (const auto& header : {"Authorization: Bearer " + token,
                                   std::string("X-Pavix-App-Version: ") + PAVIX_VERSION,
                                   "Content-Type: " + type, std::string("Expect:")}) {
            args.push_back("-H");
            args.push_back(header);
        }
        args.insert(args.end(), body.begin(), body.end());
        args.insert(args.end(), {"-o", "/dev/null", "-w", "%{http_code}\n", base + step});
    };
    nlohmann::json begin = {
        {"bytes", bytes},
        {"sha256", *digest},
        {"media", {{"width", 1920}, {"height", 1080}, {"durationMs", kDurationMs}}}};
    request("begin", "application/json", {"--data-binary", begin.dump()});
    for (const auto& piece : pieces) {
        request("chunk", "application/octet-stream",
                {"-H", "X-Pavix-Offset: " + std::to_string(piece.offset), "-X", "POST", "-T",
                 piece.file.string()});
    }
    request("complete", "application/json", {"--data-binary", "{}"});
    request("publish", "application/json", {"--data-binary", "{}"});
    auto done = pavix::bench::runProgram(args);
    auto t2 = Clock::now();

    std::size_t answered = 0;
    for (std::size_t at = 0; at + 3 <= done.output.size(); at += 4) {
        if (done.output.compare(at, 4, "200\n") != 0) {
            fail("curl got a refusal: " + done.output.substr(at, 3));
        }
        ++answered;
    }
    if (done.status != 0 || answered != pieces.size() + 3) {
        fail("curl failed (status " + std::to_string(done.status) + ")");
    }
    auto held = server.uploads().upload(id);
    if (!held || held->state != "published") {
        fail("the service does not hold curl's upload as published");
    }
    fs::remove(server.uploads().filePath(id));
    return {seconds(t0, t1), seconds(t1, t2)};
}

struct Figures {
    double best = 0;
    double median = 0;
    double bestSeconds = 0;
};

// Throughput in MiB/s from the round times.
Figures rates(std::vector<double> times, double mib) {
    std::sort(times.begin(), times.end());
    return {mib / times.front(), mib / times[times.size() / 2], times.front()};
}

long peakKiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

}  // namespace

int main(int argc, char** argv) {
    std::size_t mib = 256;
    int rounds = 3;
    fs::path dir = fs::temp_directory_path();
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string a = argv[i];
        if (a == "--mib") {
            mib = std::stoul(argv[i + 1]);
        } else if (a == "--rounds") {
            rounds = std::stoi(argv[i + 1]);
        } else if (a == "--dir") {
            dir = argv[i + 1];
        }
    }
    const auto limitMib = static_cast<std::size_t>(pavix::CaptureTransfer::kUploadLimit >> 20);
    if (mib < 1 || mib > limitMib || rounds < 1) {
        fail("--mib must be between 1 and " + std::to_string(limitMib) +
             " (larger videos are not uploaded) and --rounds at least 1");
    }
    const auto bytes = static_cast<std::int64_t>(mib) << 20;
    std::string pattern = (dir / "pavix-studio-upload-bench.XXXXXX").string();
    if (!::mkdtemp(pattern.data())) {
        fail("cannot create a folder in " + dir.string());
    }
    const fs::path work = pattern;
    const fs::path video = work / "video.bin";
    writeRandomFile(video, static_cast<std::size_t>(bytes));
    const auto pieces = cutPieces(video, bytes, work / "pieces");

    ds::Options options;
    options.port = 0;
    options.dataDir = (work / "service").string();
    options.printCode = false;
    ds::DevServer server(options);
    server.start();

    std::vector<double> own, ownFingerprint, ownTransfer, digest, upload, digestAndUpload;
    long peakBefore = 0;
    long peakAfter = 0;
    {
        StudioRig rig(work / "library" / "Pavix", server.baseUrl());
        auto& studio = rig.studio();
        studio.setCode(server.tokens().createCode().code);
        rig.await(studio.pair(), "pairing");
        if (!studio.state().connected) {
            rig.explain("pairing did not connect");
        }
        // Retrying is offered only while no session runs.
        rig.await(studio.disconnect("Disconnected."), "disconnecting");

        peakBefore = peakKiB();
        for (int round = 0; round < rounds; ++round) {
            // The Studio's first step on its own, on the same warm file: what the transfer
            // costs is the round minus this.
            auto f0 = Clock::now();
            pavix::CaptureTransfer::fingerprintFile(video);
            ownFingerprint.push_back(seconds(f0, Clock::now()));
            own.push_back(studioOnce(rig, server, video));
            ownTransfer.push_back(own.back() - ownFingerprint.back());
            auto timing = curlOnce(server, studio.identity()->accessToken, video, bytes, pieces);
            digest.push_back(timing.digest);
            upload.push_back(timing.upload);
            digestAndUpload.push_back(timing.digest + timing.upload);
        }
        peakAfter = peakKiB();
    }
    server.stop();
    fs::remove_all(work);

    const double m = static_cast<double>(mib);
    auto studioRates = rates(own, m);
    auto fullCurl = rates(digestAndUpload, m);
    auto curlOnly = rates(upload, m);
    auto hashOnly = rates(digest, m);
    auto transferRates = rates(ownTransfer, m);
    auto fingerprintRates = rates(ownFingerprint, m);
    std::printf("upload of %zu MiB to pavix-devserver on 127.0.0.1 in %zu pieces, %d rounds\n", mib,
                pieces.size(), rounds);
    std::printf("  %-44s best %8.1f MiB/s  median %8.1f MiB/s  (best %.2f s)\n",
                "Studio::retryUpload (SHA-256 + upload):", studioRates.best, studioRates.median,
                studioRates.bestSeconds);
    std::printf("  %-44s best %8.1f MiB/s  median %8.1f MiB/s  (best %.2f s)\n",
                "  its SHA-256 fingerprint alone:", fingerprintRates.best, fingerprintRates.median,
                fingerprintRates.bestSeconds);
    std::printf("  %-44s best %8.1f MiB/s  median %8.1f MiB/s  (best %.2f s)\n",
                "  its transfer (round minus fingerprint):", transferRates.best,
                transferRates.median, transferRates.bestSeconds);
    std::printf("  %-44s best %8.1f MiB/s  median %8.1f MiB/s  (best %.2f s)\n",
                "sha256sum + one curl process:", fullCurl.best, fullCurl.median,
                fullCurl.bestSeconds);
    std::printf("  %-44s best %8.1f MiB/s  median %8.1f MiB/s  (best %.2f s)\n",
                "  curl alone (begin .. publish):", curlOnly.best, curlOnly.median,
                curlOnly.bestSeconds);
    std::printf("  %-44s best %8.1f MiB/s  median %8.1f MiB/s  (best %.2f s)\n",
                "  sha256sum alone:", hashOnly.best, hashOnly.median, hashOnly.bestSeconds);
    std::printf("  %-44s best %8.2f        median %8.2f\n",
                "ratio Studio / (sha256sum + curl):", studioRates.best / fullCurl.best,
                studioRates.median / fullCurl.median);
    std::printf("  %-44s best %8.2f        median %8.2f\n",
                "ratio Studio / curl alone:", studioRates.best / curlOnly.best,
                studioRates.median / curlOnly.median);
    std::printf("  %-44s best %8.2f        median %8.2f\n",
                "ratio Studio transfer / curl alone:", transferRates.best / curlOnly.best,
                transferRates.median / curlOnly.median);
    std::printf("  %-44s best %8.2f        median %8.2f\n",
                "ratio fingerprint / sha256sum:", fingerprintRates.best / hashOnly.best,
                fingerprintRates.median / hashOnly.median);
    std::printf("  peak RSS growth of this process (Studio and service) over the rounds: %ld KiB\n",
                peakAfter - peakBefore);
    return 0;
}
