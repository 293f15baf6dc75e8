// The recording lifecycle under random interleavings of the user's, the agent's and the
// system's operations. A seeded scheduler fires operations without waiting for them and lets
// the model run a random number of steps in between; after every step the library on disk,
// the published flags and the status line must keep the system's promises.
//
// PAVIX_INTERLEAVINGS sets the number of sequences (2000, or 400 in a sanitized build);
// PAVIX_INTERLEAVING_SEED replays one sequence; PAVIX_INTERLEAVING_FIRST starts the run at a
// later seed.
#include <gtest/gtest.h>

#include <asio/co_spawn.hpp>
#include <atomic>
#include <iostream>
#include <mutex>
#include <random>
#include <regex>
#include <sstream>
#include <thread>

#include "core/capture/CaptureError.h"
#include "core/library/CaptureTransfer.h"
#include "core/runtime/Uuid.h"
#include "core/session/ErrorText.h"
#include "support/EditorDesktop.h"
#include "support/FakeCapturePlatform.h"
#include "support/LibraryRecords.h"
#include "support/ScriptedUploads.h"
#include "support/StudioHarness.h"

namespace pavix::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Stage = LocalCapture::Stage;
using Phase = RecordingLifecycle::Phase;

constexpr const char* kTitle = "Text Editor — notes.txt";
constexpr const char* kSleep =
    "Computer went to sleep, locked or switched user. Recording stopped and any local capture "
    "was saved. Approve a new recording to continue.";

Timing quickTiming() {
    auto timing = fastTiming();
    timing.watchInterval = std::chrono::milliseconds(5);
    timing.reconnectDelay = std::chrono::milliseconds(5);
    timing.agentRecordingLimit = std::chrono::milliseconds(40);
    timing.userRecordingLimit = std::chrono::milliseconds(40);
    return timing;
}

// Whether `status` is one of the system's sentences: the fixed ones, the ones built around a
// title, a number or a path, and the failure sentences that end in another sentence.
bool isSystemSentence(const std::string& status) {
    static const std::set<std::string> fixed = {
        "Choose a source, then pair with your agent.",
        "Computer paired. Select a source and approve a new recording.",
        "Pavix is unreachable for a moment. Reconnecting…",
        "Disconnected. Local videos remain on this computer.",
        kSleep,
        "Saving…",
        "Recording limit reached. Saving and uploading.",
        "Five-minute limit reached. Local capture saved.",
        "Uploading. Local video saved.",
        "Uploaded. Ask your agent to render it, or open your Pavix library.",
        "Capture recovered. Ask your agent to render and export.",
        "Local copy moved to Trash. Cloud recordings are unchanged.",
        "Upload canceled. Local video saved; accepted cloud bytes may remain until retention "
        "expires.",
        "Disk almost full. Recording stopped and the local capture was saved.",
        "Not enough free disk space to record safely (need 500 MB in Videos/Pavix).",
        "The recorded window closed. Recording stopped; the local capture was saved. Choose a "
        "source and approve a new recording.",
        "The selected source is no longer available. Recording stopped; any saved capture "
        "remains in Videos/Pavix.",
        "The system stopped the capture. Recording stopped; the local capture was saved. "
        "Approve a new recording to continue.",
        "The recording session expired or was ended by your agent. Approve a new recording to "
        "continue; local videos are preserved.",
        "Connection unavailable. Try sharing again; your local files are preserved.",
        "Not connected",
        "Capture identity unavailable",
        "Invalid upload receipt",
        "Invalid upload offset",
        "Invalid capture response",
        "Reconnect the computer account that created this capture.",
        "Pair this computer with your agent first.",
        "This capture already exists locally. It will not be overwritten.",
        "Capture could not finish. Any saved video remains in Videos/Pavix.",
        "The saved capture is incomplete.",
        "Recording did not start. Check screen recording permission.",
        "Recording did not start. Check Screen Recording permission and that the source is "
        "visible.",
        // The transport's own descriptions, as the platform words them.
        "The network connection was lost.",
        "The request timed out.",
        "Could not connect to the server.",
        "The server sent a reply that could not be read.",
    };
    if (fixed.count(status) != 0) {
        return true;
    }
    static const std::regex built(
        "Recording .+\\. Press Stop when done\\.|Uploading [0-9]{1,3}%\\. Local video saved\\.|"
        "Server refused the request \\([0-9]+\\)\\. Try sharing again; your local files are "
        "preserved\\.");
    if (std::regex_match(status, built)) {
        return true;
    }
    for (const char* prefix :
         {"Upload did not finish. Local video saved; use Retry upload. ",
          "Upload did not finish. Local video saved. ", "Could not remove the local copy. "}) {
        if (status.rfind(prefix, 0) == 0) {
            return isSystemSentence(status.substr(std::string(prefix).size()));
        }
    }
    return false;
}

// One sequence: a fresh model, service and library, driven by one seed.
class Sequence {
  public:
    explicit Sequence(unsigned seed) : rng_(seed), h_(quickTiming(), capture_.platform()) {
        h_.service.pollHold = std::chrono::milliseconds(5);
        h_.content.set(editorDesktop(true));
        // A loaded machine may stall a step for seconds; the set-up is not what is tested.
        h_.await(h_.studio().refreshSources(), std::chrono::seconds(60));
        h_.studio().observe([this](const StudioState& state) {
            if (state.status != lastStatus_) {
                lastStatus_ = state.status;
                if (!isSystemSentence(state.status)) {
                    fail("status is not one of the system's sentences: " + state.status);
                }
            }
        });
        h_.pairWithCode();
        h_.studio().selectSource("window-4242");
    }

    // Runs `steps` random steps, then winds everything down. Returns the violations found.
    std::vector<std::string> run(int steps) {
        for (int i = 0; i < steps && violations_.empty(); ++i) {
            if (pick(10) < 6) {
                fire();
            }
            // A few ready handlers, or a short while for the network and the pool to answer.
            auto deadline =
                std::chrono::steady_clock::now() + std::chrono::microseconds(100 + pick(1500));
            for (int handlers = 1 + pick(12);
                 handlers > 0 && std::chrono::steady_clock::now() < deadline;) {
                handlers -= static_cast<int>(h_.io.run_one_until(deadline));
            }
            settleFaults();
            check();
        }
        windDown();
        return violations_;
    }

    const std::vector<std::string>& trace() const { return trace_; }
    std::vector<std::string> log() const { return h_.log.lines(); }

  private:
    int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }
    void fail(const std::string& what) { violations_.push_back(what); }
    void failIf(bool broken, const std::string& what) {
        if (broken) {
            fail(what);
        }
    }

    void spawn(asio::awaitable<void> operation) {
        ++pending_;
        asio::co_spawn(h_.io, std::move(operation), [this](std::exception_ptr error) {
            --pending_;
            if (error) {
                fail("an operation threw: " + ErrorText::describe(error));
            }
        });
    }

    std::optional<LocalCapture> anyRecord() {
        const auto& recent = h_.studio().state().recent;
        if (recent.empty()) {
            return std::nullopt;
        }
        return recent[pick(static_cast<int>(recent.size()))];
    }

    void fire() {
        auto& studio = h_.studio();
        const std::pair<const char*, std::function<void()>> operations[] = {
            {"approve", [&] { studio.setConsent(true); }},
            {"record",
             [&] {
                 uploads_.issue(Uuid::make());
                 spawn(studio.recordNow());
             }},
            {"stop", [&] { spawn(studio.stopManual()); }},
            {"retry",
             [&] {
                 if (auto record = anyRecord()) {
                     studio.retryUpload(*record);
                 }
             }},
            {"delete",
             [&] {
                 if (auto record = anyRecord()) {
                     deleteAsked_.insert(record->id);
                     spawn(studio.deleteLocal(*record));
                 }
             }},
            {"forget", [&] { spawn(studio.forgetDevice()); }},
            {"share",
             [&] {
                 if (!studio.state().paired) {
                     studio.setCode("ABCD-1234");
                 }
                 spawn(studio.pair());
             }},
            {"agent-start",
             [&] {
                 auto id = Uuid::make();
                 uploads_.expect(id);
                 h_.service.queueCommand("startRecording", json::array({{{"captureId", id}}}));
             }},
            {"agent-stop", [&] { h_.service.queueCommand("stopRecording"); }},
            {"dispose", [&] { h_.service.queueCommand("dispose"); }},
            {"select",
             [&] {
                 h_.service.queueCommand("selectSource",
                                         json::array({{{"sourceId", "window-4242"}}}));
             }},
            {"poll-failure", [&] { h_.service.failPolls(1, pick(4) == 0 ? 501 : 502); }},
            {"source-gone",
             [&] {
                 h_.content.set(editorDesktop(false));
                 if (pick(2) == 0) {
                     capture_.streams->fail(
                         CaptureError(CaptureError::kNoCaptureSource, "the window is gone"));
                 }
                 sourceGone_ = 1 + pick(5);
             }},
            {"disk-full",
             [&] {
                 h_.volume.set(100'000'000);
                 diskFull_ = 1 + pick(5);
             }},
            {"capture-failure",
             [&] {
                 capture_.streams->fail(
                     CaptureError(CaptureError::kSystemStoppedStream, "stopped by the system"));
             }},
            {"sleep", [&] { spawn(studio.disconnect(kSleep)); }},
            {"upload-fault", [&] {
                 uploads_.fault(pick(2) == 0 ? ScriptedUploads::Fault::drop
                                             : ScriptedUploads::Fault::badGateway);
             }}};
        const auto& [name, operation] = operations[pick(static_cast<int>(std::size(operations)))];
        trace_.push_back(name);
        operation();
    }

    // Faults of the desktop last a few steps, then the window and the space come back.
    void settleFaults() {
        if (sourceGone_ > 0 && --sourceGone_ == 0) {
            h_.content.set(editorDesktop(true));
            spawn(h_.studio().refreshSources());
        }
        if (diskFull_ > 0 && --diskFull_ == 0) {
            h_.volume.set(10'000'000'000);
        }
    }

    void check() {
        const auto& studio = h_.studio();
        const auto& s = studio.state();
        const auto& l = studio.lifecycle();
        failIf(s.manual && !s.recording && !s.uploading,
               "manual without a recording or its upload");
        failIf((s.uploading || s.recording) && !s.busy && l.phase() != Phase::recording,
               "a stop or an upload runs without busy");
        failIf(s.connected && !s.paired, "connected without a pairing");
        failIf(l.phase() == Phase::recording && !studio.capture().running(),
               "recording with no capture behind it");
        checkLibrary();
    }

    void checkLibrary() {
        const auto& studio = h_.studio();
        const auto& l = studio.lifecycle();
        std::map<std::string, Stage> records;
        std::set<std::string> videos;
        std::error_code ignored;
        for (const auto& entry : fs::directory_iterator(h_.library, ignored)) {
            auto name = entry.path().filename().string();
            if (entry.path().extension() == ".json" && name[0] != '.') {
                auto text = readBytes(entry.path());
                auto parsed = json::parse(text, nullptr, false);
                if (parsed.is_discarded()) {
                    fail("a side-car is not JSON: " + name);
                    continue;
                }
                auto record = LocalCapture::fromJson(parsed);
                records[record.id] = record.stage;
            } else if (name.rfind("Pavix-", 0) == 0 && entry.path().extension() == ".mp4") {
                videos.insert(name.substr(6, name.size() - 10));
            }
        }
        int uploading = 0;
        const auto& current = studio.current();
        for (const auto& [id, stage] : records) {
            switch (stage) {
                case Stage::recording:
                case Stage::finalizing:
                    failIf(!l.capturing() || !current || current->id != id,
                           "record " + id + " is " + LocalCapture::stageText(stage) +
                               " while no recording of it runs");
                    break;
                case Stage::uploading:
                    ++uploading;
                    failIf(!l.uploading() || l.record() != id,
                           "record " + id + " is uploading while no upload of it runs");
                    break;
                case Stage::uploaded: {
                    auto upload = uploads_.upload(Uuid::lower(id));
                    if (!upload || !upload->published) {
                        fail("record " + id + " is uploaded but the service published nothing");
                    } else if (videos.count(id) != 0) {
                        const auto file = studio.journal().file(id);
                        failIf(upload->data != readBytes(file) ||
                                   upload->sha256 != CaptureTransfer::fingerprintFile(file).sha256,
                               "record " + id + " is uploaded but the service holds other bytes");
                    }
                    break;
                }
                default:
                    break;
            }
        }
        failIf(uploading > 1, "two records are uploading at once");
        for (const auto& id : videos) {
            failIf(records.count(id) == 0, "video " + id + " has no record");
        }
        for (const auto& id : seen_) {
            failIf(videos.count(id) == 0 && deleteAsked_.count(id) == 0,
                   "video " + id + " vanished though nobody deleted it");
        }
        seen_.insert(videos.begin(), videos.end());
        for (const auto& moved : h_.trash.moved()) {
            auto name = moved.filename().string();
            auto id = name.substr(6, name.size() - 10);
            failIf(deleteAsked_.count(id) == 0,
                   "video " + id + " went to the Trash though nobody deleted it");
        }
    }

    // The paths of the last requests the service saw, for a report.
    std::string lastRequests() const {
        auto seen = h_.server.requests();
        std::string paths;
        for (auto i = seen.size() > 6 ? seen.size() - 6 : 0; i < seen.size(); ++i) {
            paths += " " + seen[i].path;
        }
        return paths;
    }

    // Ends every fault and every operation: the user stops, the session ends, and all flags
    // must come back to rest with nothing left open on disk.
    void windDown() {
        h_.content.set(editorDesktop(true));
        h_.volume.set(10'000'000'000);
        h_.service.failPolls(0, 502);
        auto& studio = h_.studio();
        spawn(studio.stopManual());
        auto settled = [&] {
            return pending_ == 0 && !studio.state().busy && !studio.state().recording;
        };
        // Every wait of the model is bounded by a request's time-out (10 s here); an upload is a
        // few requests, and a loaded machine may make each of them wait that long.
        if (!h_.runUntil(settled, std::chrono::seconds(60))) {
            fail("the model did not come to rest after the user's stop (phase " +
                 std::string(phaseText(studio.lifecycle().phase())) + "; last requests" +
                 lastRequests() + ")");
        }
        spawn(studio.disconnect("Disconnected. Local videos remain on this computer."));
        if (!h_.runUntil(settled, std::chrono::seconds(60))) {
            fail("the model did not come to rest after the session ended (phase " +
                 std::string(phaseText(studio.lifecycle().phase())) + ")");
        }
        const auto& s = studio.state();
        failIf(s.busy || s.recording || s.manual || s.uploading || s.consent || s.connected,
               "flags left set at rest");
        check();
        for (const auto& record : s.recent) {
            failIf(record.stage != Stage::saved && record.stage != Stage::uploaded &&
                       record.stage != Stage::interrupted,
                   "record " + record.id + " left " + LocalCapture::stageText(record.stage));
        }
    }

    std::mt19937 rng_;
    testing::FakeCaptureParts capture_;
    StudioHarness h_;
    ScriptedUploads uploads_{h_.server};
    int pending_ = 0;
    int sourceGone_ = 0;
    int diskFull_ = 0;
    std::string lastStatus_;
    std::set<std::string> seen_;
    std::set<std::string> deleteAsked_;
    std::vector<std::string> violations_;
    std::vector<std::string> trace_;
};

int envInt(const char* name, int fallback) {
    const char* text = std::getenv(name);
    return text ? std::atoi(text) : fallback;
}

// Runs one seeded sequence; returns its report, or nothing when it kept every promise. What
// escapes a sequence (a set-up that failed, a handler that threw) is a violation of its own.
std::string runSequence(int seed) {
    std::ostringstream report;
    try {
        Sequence sequence(static_cast<unsigned>(seed));
        auto violations = sequence.run(40);
        if (violations.empty()) {
            return {};
        }
        report << violations.front() << "\n";
        for (const auto& step : sequence.trace()) {
            report << "  step: " << step << "\n";
        }
        for (const auto& line : sequence.log()) {
            report << "  log: " << line << "\n";
        }
        // Again at the end, where a report cut to its last lines still shows it.
        report << "seed " << seed << " broke: " << violations.front() << "\n";
    } catch (...) {
        report << "the sequence threw: " << ErrorText::describe(std::current_exception()) << "\n";
    }
    return report.str();
}

TEST(Interleaving, EverySequenceKeepsTheLibraryTheFlagsAndTheStatusLineRight) {
#if defined(__SANITIZE_ADDRESS__)
    const int sequences = envInt("PAVIX_INTERLEAVINGS", 400);
#else
    const int sequences = envInt("PAVIX_INTERLEAVINGS", 2000);
#endif
    const int only = envInt("PAVIX_INTERLEAVING_SEED", -1);
    const int first = only >= 0 ? only : envInt("PAVIX_INTERLEAVING_FIRST", 1);
    const int last = only >= 0 ? only : sequences;
    // The sequences mostly wait for the network and timers: two run side by side.
    std::mutex mutex;
    std::map<int, std::string> failures;
    std::atomic<int> next{first};
    std::vector<std::thread> workers;
    for (int w = 0; w < 2; ++w) {
        workers.emplace_back([&] {
            for (int seed = next++; seed <= last; seed = next++) {
                auto report = runSequence(seed);
                if (report.empty()) {
                    continue;
                }
                // Printed straight away: if the process dies later, this seed is still known.
                std::cerr << "seed " << seed << ": " << report.substr(0, report.find('\n'))
                          << std::endl;
                std::lock_guard lock(mutex);
                failures[seed] = report;
                if (failures.size() >= 5) {
                    next = last + 1;
                }
            }
        });
    }
    for (auto& worker : workers) {
        worker.join();
    }
    for (const auto& [seed, report] : failures) {
        ADD_FAILURE() << "seed " << seed << ": "
                      << (seed == failures.begin()->first ? report
                                                          : report.substr(0, report.find('\n')));
    }
}

}  // namespace
}  // namespace pavix::test
