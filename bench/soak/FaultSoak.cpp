// pavix-fault-soak: seeded runs of the upload of a saved recording (begin, pieces with receipts,
// complete, publish) through the application's model with the real HTTP client, against the
// development service in this process. Each run draws a schedule of faults from --seed: the
// service's fault switch (connections dropped on the way in and on the way back, 500/502/503,
// a 409 for a wrong offset, truncated and non-JSON replies, replies slower than the client's
// time-out), the service restarted between pieces on the same port and data, and the client
// killed with SIGKILL after a piece's receipt (or while the service completes or publishes),
// before its side-car is written: the client is then this program in --client mode, started
// with posix_spawn, and the application is launched again afterwards. After each failure the
// user's "Retry upload" runs again, until the record is uploaded. The videos are real MP4 files
// (FFmpeg's encoder) that the model reads with FFmpeg before each retry.
//
// Prints the faults injected by kind, the runs that ended with the service's bytes equal to the
// library's (SHA-256), the piece bytes the service received more than once per fault, records
// left in a wrong stage and videos lost; exits 1 when a goal is missed.
//
// usage: pavix-fault-soak [--runs 1000] [--seed 1] [--first 0] [--piece 65536] [--dir /tmp]
//                         [--keep] [--refresh-faults]
//        (--first R --runs 1 replays run R of a seed alone; --keep leaves the scratch folder;
//        --refresh-faults also strikes the credential refresh that begins every retry)
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "Launch.h"
#include "Scratch.h"
#include "core/library/CaptureJournal.h"
#include "core/library/CaptureTransfer.h"
#include "core/runtime/Uuid.h"
#include "devserver/DevServer.h"
#include "linux/FfmpegVideoEncoder.h"
#include "linux/MediaProbe.h"
#include "support/ChildProcess.h"

namespace fs = std::filesystem;
namespace ds = pavix::devserver;
using namespace pavix;
using namespace pavix::soak;
using pavix::test::ChildProcess;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

constexpr milliseconds kTimeout{1000};  // the client's request time-out in the soak
constexpr int kStallMs = 1500;          // a slow reply: longer than the time-out
constexpr int kHoldMs = 600;            // a complete or publish held while its client is killed
constexpr int kLaunchesPerRun = 30;     // retries a user would make before giving up
constexpr std::chrono::seconds kRetryLimit{60};
const std::string kPieces = "/local-browser/desktop-upload/*/chunk";

// ---- the saved recordings

struct Video {
    fs::path file;
    std::int64_t bytes = 0;
    std::string sha256;
    std::int64_t durationMs = 0;
    int width = 0;
    int height = 0;
};

// A real H.264 MP4 of noise (which the encoder cannot shrink, so the size follows the bit
// rate), `seconds` long at 30 frames a second.
Video makeVideo(const fs::path& file, double seconds, int width, int height, unsigned seed) {
    VideoEncoderSettings settings;
    settings.width = width;
    settings.height = height;
    settings.bitrate = 3'000'000;
    settings.frameRate = 30;
    FfmpegVideoEncoder encoder;
    if (!encoder.open(file.string(), settings)) {
        throw std::runtime_error("cannot encode " + file.string());
    }
    std::mt19937 noise(seed);
    const int frames = static_cast<int>(seconds * settings.frameRate);
    constexpr std::int64_t kFrameNs = 1'000'000'000 / 30;
    for (int i = 0; i < frames; ++i) {
        auto pixels = std::make_shared<std::vector<std::uint8_t>>(std::size_t(width) * height * 4);
        for (auto& byte : *pixels) {
            byte = static_cast<std::uint8_t>(noise());
        }
        VideoFrame frame;
        frame.width = width;
        frame.height = height;
        frame.stride = width * 4;
        frame.pixels = pixels;
        frame.captureTimeNs = i * kFrameNs;
        if (!encoder.append(frame, i * kFrameNs)) {
            throw std::runtime_error("cannot encode " + file.string());
        }
    }
    if (!encoder.finish(frames * kFrameNs)) {
        throw std::runtime_error("cannot finish " + file.string());
    }
    auto duration = MediaProbe::duration(file.string());
    if (!duration) {
        throw std::runtime_error("FFmpeg cannot read " + file.string());
    }
    auto print = CaptureTransfer::fingerprintFile(file);
    return {file, print.bytes, print.sha256, std::llround(*duration * 1000), width, height};
}

// ---- the service

// The development service on a port of its own, restarted in place (same port, same data) when
// a run asks for it. Its fault rules are armed under handles that outlive a restart, and what
// reached the pieces' path is counted across restarts.
class Service {
  public:
    explicit Service(const fs::path& data) {
        options_.port = 0;
        options_.dataDir = data.string();
        options_.printCode = false;
        options_.pollHoldMs = 200;
        start();
        options_.port = server_->port();
    }

    ds::DevServer& server() { return *server_; }
    std::string url() const { return server_->baseUrl(); }

    // Stops the service, closing the connections it holds as its process's end would, and
    // starts it again on the same port and data folder. Rules not used up are armed again.
    void restart() {
        auto rules = server_->faults().list();
        auto reached = server_->faults().traffic(kPieces);
        carried_.requests += reached.requests;
        carried_.bodyBytes += reached.bodyBytes;
        closeConnections(server_->port());
        server_.reset();
        start();
        for (auto& [handle, id] : armed_) {
            if (!id) {
                continue;
            }
            auto rule = std::find_if(rules.begin(), rules.end(),
                                     [&](const ds::FaultRule& r) { return r.id == *id; });
            if (rule == rules.end()) {
                id.reset();  // used up before the restart
                continue;
            }
            auto again = *rule;
            again.after = std::max(0, rule->after - rule->hits);
            id = server_->faults().add(again);
        }
    }

    int arm(const ds::FaultRule& rule) {
        armed_[next_] = server_->faults().add(rule);
        return next_++;
    }
    // Whether the rule under `handle` was used up.
    bool taken(int handle) {
        auto& id = armed_.at(handle);
        if (id) {
            auto rules = server_->faults().list();
            if (std::none_of(rules.begin(), rules.end(),
                             [&](const ds::FaultRule& r) { return r.id == *id; })) {
                id.reset();
            }
        }
        return !id;
    }
    // Removes the rule under `handle`, used up or not.
    void disarm(int handle) {
        if (auto& id = armed_.at(handle)) {
            server_->faults().remove(*id);
        }
        armed_.erase(handle);
    }
    void disarm() {
        server_->faults().clear();
        armed_.clear();
    }
    // Everything that reached the pieces' path since the service first started.
    ds::FaultSwitch::Traffic pieces() {
        auto now = server_->faults().traffic(kPieces);
        return {carried_.requests + now.requests, carried_.bodyBytes + now.bodyBytes};
    }

  private:
    void start() {
        server_ = std::make_unique<ds::DevServer>(options_);
        server_->start();
        server_->faults().watch(kPieces);
    }

    // Shuts down every connection this process accepted on `port`: the peers see them end as
    // they would at the service's exit, and the service's threads stop waiting on them.
    static void closeConnections(int port) {
        for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
            int fd = std::atoi(entry.path().filename().c_str());
            sockaddr_storage local{}, peer{};
            socklen_t localSize = sizeof local, peerSize = sizeof peer;
            if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localSize) != 0 ||
                local.ss_family != AF_INET ||
                ntohs(reinterpret_cast<sockaddr_in*>(&local)->sin_port) != port ||
                ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerSize) != 0) {
                continue;
            }
            ::shutdown(fd, SHUT_RDWR);
        }
    }

    ds::Options options_;
    std::unique_ptr<ds::DevServer> server_;
    std::map<int, std::optional<std::string>> armed_;  // handle: rule id, none once used up
    int next_ = 0;
    ds::FaultSwitch::Traffic carried_;
};

// ---- the faults of a run

enum class Kind {
    dropRequest,
    dropReply,
    status500,
    status502,
    status503,
    wrongOffset,
    truncated,
    notJson,
    slowReply,
    restart,
    kill,
};
constexpr int kKinds = 11;
constexpr std::array<const char*, kKinds> kKindText = {"connection dropped mid-request",
                                                       "connection dropped mid-reply",
                                                       "500 answer",
                                                       "502 answer",
                                                       "503 answer",
                                                       "409 for a wrong offset",
                                                       "truncated reply",
                                                       "non-JSON reply",
                                                       "reply slower than the time-out",
                                                       "service restarted between pieces",
                                                       "client killed before a side-car write"};

struct Fault {
    Kind kind = Kind::dropRequest;
    std::string step;  // begin, chunk, complete or publish: where it strikes
    int after = 0;     // requests on that step let through first
    double at = 0;     // a restart or a kill after a receipt: where among the pieces left
    int handle = -1;   // the armed rule
    bool injected = false;
};

std::string describe(const Fault& f) {
    std::string text = kKindText[static_cast<int>(f.kind)];
    if (f.kind == Kind::restart) {
        return text;
    }
    return text + " on " + f.step + (f.after ? " after " + std::to_string(f.after) : "");
}

// With `refresh`, a fifth of the service's faults strike the credential refresh that begins
// every retry instead of the upload's own requests.
std::vector<Fault> drawFaults(std::mt19937_64& rng, int pieces, bool refresh) {
    auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<std::uint64_t>(n)); };
    auto unit = [&] { return std::uniform_real_distribution<double>(0, 1)(rng); };
    std::vector<Fault> faults(static_cast<std::size_t>(1 + pick(3)));
    for (auto& f : faults) {
        f.kind = static_cast<Kind>(pick(kKinds));
        if (f.kind == Kind::restart) {
            f.at = unit();
        } else if (f.kind == Kind::kill) {
            const int where = pick(5);
            f.step = where < 3 ? "chunk" : where == 3 ? "complete" : "publish";
            f.at = unit();
        } else {
            const int where = pick(20);
            f.step = f.kind == Kind::wrongOffset || where < 11 ? "chunk"
                     : where < 14                              ? "begin"
                     : where < 17                              ? "complete"
                                                               : "publish";
            f.after = f.step == "chunk" ? pick(pieces) : pick(2);
            if (refresh && f.kind != Kind::wrongOffset && pick(5) == 0) {
                f.step = "refresh";
                f.after = pick(2);
            }
        }
    }
    return faults;
}

ds::FaultRule ruleFor(const Fault& f, const std::string& id) {
    ds::FaultRule rule;
    rule.path = f.step == "refresh" ? "/local-browser/device/refresh"
                                    : "/local-browser/desktop-upload/" + id + "/" + f.step;
    rule.after = f.after;
    switch (f.kind) {
        case Kind::dropRequest:
            rule.action = ds::FaultRule::Action::Drop;
            break;
        case Kind::dropReply:
            rule.action = ds::FaultRule::Action::DropReply;
            break;
        case Kind::status500:
        case Kind::status502:
        case Kind::status503:
            rule.action = ds::FaultRule::Action::Status;
            rule.status = f.kind == Kind::status500 ? 500 : f.kind == Kind::status502 ? 502 : 503;
            break;
        case Kind::wrongOffset:
            rule.action = ds::FaultRule::Action::Shift;
            rule.shiftBytes = 1;
            break;
        case Kind::truncated:
            rule.action = ds::FaultRule::Action::Truncate;
            break;
        case Kind::notJson:
            rule.action = ds::FaultRule::Action::NonJson;
            break;
        case Kind::slowReply:
            rule.action = ds::FaultRule::Action::Stall;
            rule.stallMs = kStallMs;
            break;
        case Kind::restart:
        case Kind::kill:
            throw std::logic_error("not a rule of the fault switch");
    }
    return rule;
}

// ---- one run

struct Settings {
    int runs = 1000;
    std::uint64_t seed = 1;
    int first = 0;
    std::int64_t piece = 65'536;
    fs::path dir = "/tmp";
    bool keep = false;
    bool refreshFaults = false;
};

struct Outcome {
    bool identical = false;  // the service published bytes equal to the library's
    bool wrongStage = false;
    bool lost = false;
    std::int64_t sentAgain = 0;  // piece bytes that reached the service more than once
    std::vector<Fault> faults;
    int launches = 0;
    std::string failure;  // why the run went wrong, if it did
    std::vector<std::string> log;
};

// The soak's computer: its home, the service, the saved videos and this program's own path
// (for the killed clients).
struct Rig {
    Settings settings;
    Home home;
    Service& service;
    std::string deviceId;
    std::vector<Video> videos;
    fs::path self;
    Timing timing;
};

class Run {
  public:
    Run(Rig& rig, int index) : rig_(rig), journal_(rig.home.library) {
        std::seed_seq seeds{static_cast<std::uint32_t>(rig.settings.seed),
                            static_cast<std::uint32_t>(rig.settings.seed >> 32),
                            static_cast<std::uint32_t>(index)};
        rng_.seed(seeds);
        video_ = rig.videos[rng_() % rig.videos.size()];
        pieces_ = static_cast<int>((video_.bytes + rig.settings.piece - 1) / rig.settings.piece);
    }

    Outcome go() {
        id_ =
            rig_.service.server().uploads().issueCapture(rig_.deviceId, Uuid::lower(Uuid::make()));
        save();
        out_.faults = drawFaults(rng_, pieces_, rig_.settings.refreshFaults);
        for (auto& f : out_.faults) {
            if (f.kind != Kind::restart && f.kind != Kind::kill) {
                f.handle = rig_.service.arm(ruleFor(f, id_));
            }
        }
        const auto before = rig_.service.pieces().bodyBytes;
        try {
            retryUntilUploaded();
        } catch (const std::exception& e) {
            fail(e.what());
        }
        for (auto& f : out_.faults) {
            if (f.handle >= 0) {
                f.injected = rig_.service.taken(f.handle);
            }
        }
        rig_.service.disarm();
        // What reached the service beyond the bytes it holds was sent more than once.
        auto upload = held();
        out_.sentAgain = rig_.service.pieces().bodyBytes - before - (upload ? upload->received : 0);
        verify();
        cleanUp();
        return std::move(out_);
    }

  private:
    // The recording as the library holds it once it is saved: its video and its side-car.
    void save() {
        LocalCapture record;
        record.id = Uuid::upper(id_);
        record.createdAt =
            std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
                .count() -
            LocalCapture::kReferenceDateOffset;
        record.stage = LocalCapture::Stage::saved;
        record.durationMs = video_.durationMs;
        record.width = video_.width;
        record.height = video_.height;
        record.serverOrigin = rig_.service.url();
        record.deviceId = rig_.deviceId;
        fs::copy_file(video_.file, journal_.file(record.id));
        journal_.save(record);
    }

    std::optional<LocalCapture::Stage> stage() const {
        for (const auto& record : journal_.load()) {
            if (record.id == Uuid::upper(id_)) {
                return record.stage;
            }
        }
        return std::nullopt;
    }
    std::optional<ds::UploadRecord> held() { return rig_.service.server().uploads().upload(id_); }
    bool published() {
        auto upload = held();
        return upload && upload->state == "published";
    }
    int piecesLeft() {
        auto upload = held();
        const std::int64_t received = upload ? upload->received : 0;
        return static_cast<int>((video_.bytes - received + rig_.settings.piece - 1) /
                                rig_.settings.piece);
    }
    Fault* pending(Kind kind) {
        for (auto& f : out_.faults) {
            if (f.kind == kind && !f.injected) {
                return &f;
            }
        }
        return nullptr;
    }
    void fail(const std::string& why) {
        if (out_.failure.empty()) {
            out_.failure = why;
        }
    }

    // The video is the one saved, and the side-car says what the application may do next.
    void check(const char* when, bool openUploadAllowed) {
        std::error_code error;
        if (!fs::exists(journal_.file(Uuid::upper(id_)), error) ||
            CaptureTransfer::fingerprintFile(journal_.file(Uuid::upper(id_))).sha256 !=
                video_.sha256) {
            out_.lost = true;
            fail(std::string("the library's video is missing or changed ") + when);
        }
        auto now = stage();
        const bool open = now == LocalCapture::Stage::uploading;
        if (!now || (now != LocalCapture::Stage::saved && now != LocalCapture::Stage::uploaded &&
                     !(open && openUploadAllowed))) {
            out_.wrongStage = true;
            fail(std::string("the side-car is ") + (now ? LocalCapture::stageText(*now) : "gone") +
                 " " + when);
        }
        if (now == LocalCapture::Stage::uploaded && !published()) {
            out_.wrongStage = true;
            fail(std::string("the side-car says uploaded but the service has not published ") +
                 when);
        }
    }

    void retryUntilUploaded() {
        std::unique_ptr<Launch> app;
        for (;;) {
            if (stage() == LocalCapture::Stage::uploaded && published()) {
                return;
            }
            if (!out_.failure.empty()) {
                return;
            }
            if (out_.launches++ == kLaunchesPerRun) {
                throw std::runtime_error("not uploaded after " + std::to_string(kLaunchesPerRun) +
                                         " retries");
            }
            if (auto* kill = pending(Kind::kill)) {
                app.reset();  // one application on the library at a time
                killedClient(*kill);
                check("after the client was killed", true);
                continue;
            }
            if (!app) {
                app = std::make_unique<Launch>(rig_.home, rig_.service.url(), rig_.settings.piece,
                                               rig_.timing);
                check("once the application recovered the library", false);
            }
            Fault* restart = pending(Kind::restart);
            const int left = piecesLeft();
            const int restartAt =
                restart && left >= 2 ? 1 + static_cast<int>(restart->at * (left - 1)) : 0;
            try {
                app->retry(
                    id_,
                    [&](int receipt) {
                        if (receipt == restartAt) {
                            rig_.service.restart();
                            restart->injected = true;
                        }
                    },
                    kRetryLimit);
            } catch (...) {
                out_.log = app->log();
                throw;
            }
            out_.log = app->log();
            check("after a retry ended", false);
        }
    }

    // The client as a process of its own, killed with SIGKILL between a piece's receipt and
    // the side-car write that would follow, or while the service completes or publishes what
    // it sent. A client that ends before that point ran as an ordinary retry.
    void killedClient(Fault& kill) {
        const int left = piecesLeft();
        if (kill.step == "chunk" && left == 0) {
            kill.step = "complete";  // every piece is held already
        }
        const std::string step = kill.step;
        int stopAfter = 0;
        int hold = -1;
        if (step == "chunk") {
            stopAfter = std::min(left, 1 + static_cast<int>(kill.at * left));
        } else {
            ds::FaultRule rule;
            rule.path = "/local-browser/desktop-upload/" + id_ + "/" + step;
            rule.action = ds::FaultRule::Action::Stall;
            rule.stallMs = kHoldMs;
            hold = rig_.service.arm(rule);
        }
        ChildProcess client(
            {rig_.self.string(), "--client", "--library", rig_.home.library.string(),
             "--credentials", rig_.home.credentials.string(), "--server", rig_.service.url(),
             "--record", id_, "--piece", std::to_string(rig_.settings.piece), "--stop-after",
             std::to_string(stopAfter)},
            {}, true);
        const auto deadline = Clock::now() + kRetryLimit;
        bool killed = false;
        while (!killed && Clock::now() < deadline) {
            if (stopAfter > 0) {
                auto line = client.nextLine(milliseconds(1000));
                if (line && *line == "receipt " + std::to_string(stopAfter)) {
                    killed = true;
                } else if (!line && client.wait(milliseconds(0))) {
                    break;
                }
            } else if (client.wait(milliseconds(2))) {
                break;  // the rule's use cannot be awaited: it is polled
            } else if (rig_.service.taken(hold)) {
                killed = true;
            }
        }
        if (killed) {
            client.signal(SIGKILL);
            kill.injected = true;
        }
        if (!client.wait(milliseconds(20'000))) {
            throw std::runtime_error("the client did not end:\n" + client.output());
        }
        if (!killed && client.output().find("ended") == std::string::npos) {
            throw std::runtime_error("the client failed:\n" + client.output());
        }
        if (hold >= 0) {
            rig_.service.disarm(hold);
        }
    }

    void verify() {
        check("at the end", false);
        auto upload = held();
        if (!upload || upload->state != "published") {
            fail("the service has not published the upload");
            return;
        }
        auto atService =
            CaptureTransfer::fingerprintFile(rig_.service.server().uploads().filePath(id_));
        out_.identical =
            atService.sha256 == video_.sha256 && atService.bytes == video_.bytes && !out_.lost;
        if (!out_.identical) {
            fail("the service's bytes differ from the library's");
        }
        if (stage() != LocalCapture::Stage::uploaded) {
            out_.wrongStage = true;
            fail("the run ended without the side-car saying uploaded");
        }
    }

    // The run's own files: its video and side-car, and the service's copy.
    void cleanUp() {
        std::error_code ignored;
        fs::remove(journal_.file(Uuid::upper(id_)), ignored);
        fs::remove(journal_.manifest(Uuid::upper(id_)), ignored);
        fs::remove(rig_.service.server().uploads().filePath(id_), ignored);
    }

    Rig& rig_;
    CaptureJournal journal_;
    std::mt19937_64 rng_;
    Video video_;
    int pieces_ = 0;
    std::string id_;  // the capture id, lower-case as the service writes it
    Outcome out_;
};

// ---- the client mode

// One launch of the application that retries the upload of `--record` and prints
// "receipt N" after each piece's receipt; after the receipt `--stop-after` it waits, for the
// soak to kill it. Prints "ended STAGE" when the upload ended.
int clientMain(const std::map<std::string, std::string>& options) {
    Timing timing;
    timing.pollTimeout = kTimeout;
    timing.fileTimeout = kTimeout;
    const int stopAfter = std::stoi(options.at("--stop-after"));
    try {
        Launch app({options.at("--library"), options.at("--credentials")}, options.at("--server"),
                   std::stoll(options.at("--piece")), timing);
        app.retry(
            options.at("--record"),
            [&](int receipt) {
                std::printf("receipt %d\n", receipt);
                std::fflush(stdout);
                if (receipt == stopAfter) {
                    char byte;
                    while (::read(STDIN_FILENO, &byte, 1) < 0 && errno == EINTR) {
                    }
                    std::_Exit(3);  // the soak went away without killing this client
                }
            },
            kRetryLimit);
        std::printf("ended %s\n", app.studio().state().status.c_str());
        return 0;
    } catch (const std::exception& e) {
        std::printf("ended with an error: %s\n", e.what());
        return 1;
    }
}

// ---- the report

struct Totals {
    int runs = 0;
    int identical = 0;
    int wrongStage = 0;
    int lost = 0;
    int launches = 0;
    int overOnePiece = 0;  // runs whose piece bytes sent again exceed one piece per fault
    std::int64_t sentAgain = 0;
    std::int64_t maxSentAgainPerFault = 0;
    std::array<int, kKinds> injected{};
    std::array<double, kKinds> sentAgainByKind{};  // a run's bytes shared among its faults
    std::map<std::string, int> killsAt;
    std::map<std::string, int> byStep;  // the service's faults by the request they struck
};

void add(Totals& t, const Outcome& o, std::int64_t piece) {
    ++t.runs;
    t.identical += o.identical;
    t.wrongStage += o.wrongStage;
    t.lost += o.lost;
    t.launches += o.launches;
    t.sentAgain += o.sentAgain;
    int faults = 0;
    for (const auto& f : o.faults) {
        faults += f.injected;
    }
    for (const auto& f : o.faults) {
        if (!f.injected) {
            continue;
        }
        ++t.injected[static_cast<int>(f.kind)];
        t.sentAgainByKind[static_cast<int>(f.kind)] += double(o.sentAgain) / faults;
        if (f.kind == Kind::kill) {
            ++t.killsAt[f.step == "chunk" ? "after a piece's receipt" : "during " + f.step];
        } else if (f.kind != Kind::restart) {
            ++t.byStep[f.step == "chunk" ? "piece" : f.step];
        }
    }
    if (o.sentAgain > std::int64_t(faults) * piece) {
        ++t.overOnePiece;
    }
    if (faults > 0) {
        t.maxSentAgainPerFault = std::max(t.maxSentAgainPerFault, o.sentAgain / faults);
    }
}

std::map<std::string, std::string> parse(int argc, char** argv) {
    std::map<std::string, std::string> options;
    for (int i = 1; i < argc; ++i) {
        std::string key = argv[i];
        if (key == "--keep" || key == "--client" || key == "--refresh-faults") {
            options[key] = "1";
        } else if (key.rfind("--", 0) == 0 && i + 1 < argc) {
            options[key] = argv[++i];
        } else {
            throw std::invalid_argument("unknown argument " + key);
        }
    }
    return options;
}

int soakMain(const std::map<std::string, std::string>& options) {
    Settings settings;
    for (const auto& [key, value] : options) {
        if (key == "--runs") {
            settings.runs = std::stoi(value);
        } else if (key == "--seed") {
            settings.seed = std::stoull(value);
        } else if (key == "--first") {
            settings.first = std::stoi(value);
        } else if (key == "--piece") {
            settings.piece = std::stoll(value);
        } else if (key == "--dir") {
            settings.dir = value;
        } else if (key == "--keep") {
            settings.keep = true;
        } else if (key == "--refresh-faults") {
            settings.refreshFaults = true;
        } else {
            throw std::invalid_argument("unknown option " + key);
        }
    }
    if (settings.runs < 1 || settings.first < 0 || settings.piece < 1 ||
        settings.piece > CaptureTransfer::kChunkSize) {
        throw std::invalid_argument("--runs at least 1, --piece from 1 to 4194304");
    }
    const auto started = Clock::now();
    Scratch scratch(settings.dir, "pavix-fault-soak");
    if (settings.keep) {
        scratch.keep();
    }
    const fs::path videos = scratch.path() / "videos";
    fs::create_directories(videos);
    std::vector<Video> saved;
    for (int i = 0; i < 5; ++i) {
        saved.push_back(makeVideo(videos / ("video-" + std::to_string(i) + ".mp4"), 0.6 + 0.5 * i,
                                  320, 240, 17u + static_cast<unsigned>(i)));
    }
    Service service(scratch.path() / "service");
    Home home{scratch.path() / "home" / "Videos" / "Pavix",
              scratch.path() / "home" / "state" / "credentials"};
    fs::create_directories(home.library);
    fs::permissions(home.library, fs::perms::owner_all, fs::perm_options::replace);
    Timing timing;
    timing.pollTimeout = kTimeout;
    timing.fileTimeout = kTimeout;
    std::string deviceId;
    {
        Launch first(home, service.url(), settings.piece, timing);
        first.pair(service.server().tokens().createCode().code);
        deviceId = first.studio().identity()->deviceId;
    }
    std::error_code error;
    Rig rig{settings, home, service, deviceId, saved, fs::read_symlink("/proc/self/exe", error),
            timing};

    Totals totals;
    std::vector<std::string> failures;
    for (int index = settings.first; index < settings.first + settings.runs; ++index) {
        auto outcome = Run(rig, index).go();
        add(totals, outcome, settings.piece);
        if (!outcome.failure.empty()) {
            std::string faults;
            for (const auto& f : outcome.faults) {
                faults += (faults.empty() ? "" : "; ") + describe(f) +
                          (f.injected ? "" : " (not reached)");
            }
            std::string text =
                "run " + std::to_string(index) + ": " + outcome.failure + "\n    faults: " + faults;
            // The model's last lines, each once.
            std::vector<std::string> last;
            for (auto line = outcome.log.rbegin(); line != outcome.log.rend() && last.size() < 4;
                 ++line) {
                if (std::find(last.begin(), last.end(), *line) == last.end()) {
                    last.insert(last.begin(), *line);
                }
            }
            for (const auto& line : last) {
                text += "\n    log: " + line;
            }
            failures.push_back(text);
            std::fprintf(stderr, "%s\n", text.c_str());
            // A run that failed may have left this computer signed out: the next run pairs
            // again, so that each run stands on its own.
            Launch again(home, service.url(), settings.piece, timing);
            again.pair(service.server().tokens().createCode().code);
            rig.deviceId = again.studio().identity()->deviceId;
        }
        if ((index - settings.first + 1) % 100 == 0) {
            std::fprintf(stderr, "pavix-fault-soak: %d of %d runs\n", index - settings.first + 1,
                         settings.runs);
        }
    }
    const double wall = std::chrono::duration<double>(Clock::now() - started).count();

    int injected = 0;
    for (int count : totals.injected) {
        injected += count;
    }
    std::printf("pavix-fault-soak: %d runs from seed %" PRIu64 " (runs %d..%d), pieces of %" PRId64
                " bytes, videos of %" PRId64 "..%" PRId64
                " bytes; client time-out %lld ms, slow replies %d ms\n",
                totals.runs, settings.seed, settings.first, settings.first + settings.runs - 1,
                settings.piece, saved.front().bytes, saved.back().bytes,
                static_cast<long long>(kTimeout.count()), kStallMs);
    std::printf(
        "the service's faults strike begin, the pieces, complete and publish%s\n",
        settings.refreshFaults ? ", and the credential refresh that begins each retry" : "");
    std::printf("\n  %-40s %9s %22s\n", "fault", "injected", "piece bytes sent again");
    std::printf("  %-40s %9s %22s\n", "", "", "per fault (shared)");
    for (int k = 0; k < kKinds; ++k) {
        const int count = totals.injected[k];
        std::printf("  %-40s %9d %22.0f\n", kKindText[k], count,
                    count ? totals.sentAgainByKind[k] / count : 0.0);
    }
    std::printf("  %-40s %9d %22.0f\n", "all faults", injected,
                injected ? double(totals.sentAgain) / injected : 0.0);
    std::string killsAt;
    for (const auto& [where, count] : totals.killsAt) {
        killsAt += (killsAt.empty() ? "" : ", ") + std::to_string(count) + " " + where;
    }
    std::string byStep;
    for (const auto& [step, count] : totals.byStep) {
        byStep += (byStep.empty() ? "" : ", ") + std::to_string(count) + " " + step;
    }
    std::printf("  (the service's faults struck: %s)\n", byStep.empty() ? "none" : byStep.c_str());
    std::printf("  (clients killed: %s)\n\n", killsAt.empty() ? "none" : killsAt.c_str());
    auto row = [](const char* what, const std::string& value, const char* goal) {
        std::printf("  %-58s %14s%s%s\n", what, value.c_str(), *goal ? "   " : "", goal);
    };
    row("runs", std::to_string(totals.runs), "");
    row("launches and retries of the application", std::to_string(totals.launches), "");
    row("runs ended byte-identical at the service (SHA-256)",
        std::to_string(totals.identical) + " / " + std::to_string(totals.runs), "goal: all");
    row("piece bytes the service received again, per fault",
        std::to_string(injected ? totals.sentAgain / injected : 0), "");
    row("  most in one run, per fault", std::to_string(totals.maxSentAgainPerFault),
        ("goal: <= " + std::to_string(settings.piece) + " (one piece)").c_str());
    row("  runs above one piece per fault", std::to_string(totals.overOnePiece), "goal: 0");
    row("records left in a wrong stage", std::to_string(totals.wrongStage), "goal: 0");
    row("videos lost (library file missing or changed)", std::to_string(totals.lost), "goal: 0");
    std::printf("  %-58s %12.1f s\n", "wall time", wall);

    const bool met = totals.identical == totals.runs && totals.overOnePiece == 0 &&
                     totals.wrongStage == 0 && totals.lost == 0;
    std::printf("\n%s\n", met ? "all goals met" : "GOALS MISSED");
    for (std::size_t i = 0; i < failures.size() && i < 10; ++i) {
        std::printf("%s\n", failures[i].c_str());
    }
    if (failures.size() > 10) {
        std::printf("(and %zu more failed runs)\n", failures.size() - 10);
    }
    return met ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        auto options = parse(argc, argv);
        if (options.count("--client")) {
            options.erase("--client");
            return clientMain(options);
        }
        return soakMain(options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "pavix-fault-soak: %s\n", e.what());
        return 2;
    }
}
