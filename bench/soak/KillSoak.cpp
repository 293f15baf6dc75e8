// pavix-kill-soak: recordings of a window with moving content by the real pavix executable for
// the agent of the real development service, on a private desktop. Each recording is killed
// with SIGKILL at a moment drawn from --seed: while it records, while its video is finished,
// while it uploads (the service holds the first piece), or as a side-car is being written
// (the n-th write after the stop, seen through inotify). pavix is then launched again on the
// same home, which recovers the library. FFmpeg (the project's MediaProbe) then reads each video.
//
// Prints, by moment, the side-car's stage at the kill and after the relaunch, and: the videos
// FFmpeg reads, each duration against the time recorded, the records recovered in the right
// stage (recording and finalizing become interrupted, uploading becomes saved) and the videos
// deleted. Exits 1 when a goal is missed: every video readable, none missing more than its last
// 2 s (one key-frame interval), every record in the right stage, none deleted.
//
// usage: scripts/with-desktop pavix-kill-soak [--recordings 50] [--seed 1] [--dir /tmp] [--keep]
#include <httplib.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Scratch.h"
#include "core/runtime/Uuid.h"
#include "linux/MediaProbe.h"
#include "support/ChildProcess.h"

namespace fs = std::filesystem;
using namespace pavix;
using namespace pavix::soak;
using nlohmann::json;
using pavix::test::ChildProcess;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr double kKeyFrameSeconds = 2.0;  // the longest a killed recording may lose
constexpr int kHeldPieceMs = 4000;        // the first piece held while an upload is killed
const char* kWindowTitle = "Pavix kill soak";

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// ---- the agent's side of the service

class Agent {
  public:
    Agent(const std::string& server, const std::string& key) : client_(server) {
        if (!key.empty()) {
            client_.set_default_headers({{"X-Pavix-Agent-Key", key}});
        }
        client_.set_connection_timeout(5);
        client_.set_read_timeout(90);
    }

    json post(const std::string& path, const json& body) {
        return answer(client_.Post(path, body.dump(), "application/json"), path);
    }
    json get(const std::string& path) { return answer(client_.Get(path), path); }
    void clearFaults() { answer(client_.Delete("/agent/faults"), "/agent/faults"); }

    // The device's reply to `method` (its "value" or "error"); with `wait` false, nothing: the
    // command is only queued.
    json send(const std::string& device, const std::string& method, json args, bool wait = true) {
        auto answered = post(
            "/agent/devices/" + device + "/commands",
            {{"method", method}, {"args", std::move(args)}, {"timeoutMs", 60'000}, {"wait", wait}});
        return wait ? answered.value("reply", json::object()) : json::object();
    }

  private:
    static json answer(const httplib::Result& result, const std::string& path) {
        if (!result) {
            throw std::runtime_error(path + ": no answer from the service");
        }
        auto body = json::parse(result->body, nullptr, false);
        if (result->status != 200 || !body.is_object()) {
            throw std::runtime_error(path + " answered " + std::to_string(result->status) + " " +
                                     result->body);
        }
        return body;
    }

    httplib::Client client_;
};

// ---- the library as the soak sees it

// Side-car files created and renamed into place in the library folder, through inotify.
class LibraryWatch {
  public:
    struct Event {
        std::string name;
        std::uint32_t mask = 0;
    };

    explicit LibraryWatch(const fs::path& folder) : fd_(::inotify_init1(IN_CLOEXEC)) {
        if (fd_ < 0 || ::inotify_add_watch(fd_, folder.c_str(), IN_CREATE | IN_MOVED_TO) < 0) {
            throw std::runtime_error("cannot watch " + folder.string());
        }
    }
    ~LibraryWatch() { ::close(fd_); }
    LibraryWatch(const LibraryWatch&) = delete;
    LibraryWatch& operator=(const LibraryWatch&) = delete;

    // The next event; nothing when none came before `deadline`.
    std::optional<Event> next(Clock::time_point deadline) {
        while (pending_.empty()) {
            const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) {
                return std::nullopt;
            }
            pollfd ready{fd_, POLLIN, 0};
            if (::poll(&ready, 1, static_cast<int>(left.count())) <= 0) {
                continue;
            }
            alignas(inotify_event) char buffer[4096];
            const auto got = ::read(fd_, buffer, sizeof buffer);
            for (ssize_t at = 0; at < got;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
                pending_.push_back({event->len ? event->name : "", event->mask});
                at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
        }
        auto event = pending_.front();
        pending_.pop_front();
        return event;
    }

  private:
    int fd_;
    std::deque<Event> pending_;
};

std::optional<std::string> stageOf(const fs::path& sideCar) {
    std::ifstream in(sideCar);
    auto record = json::parse(in, nullptr, false);
    if (!record.is_object() || !record.contains("stage") || !record["stage"].is_string()) {
        return std::nullopt;
    }
    return record["stage"].get<std::string>();
}

// ---- the moments a recording is killed at

enum class Moment { recording, finalizing, uploading, sideCar };
constexpr std::array<const char*, 4> kMomentText = {"recording", "finalizing", "uploading",
                                                    "side-car write"};

// Whether the side-car stage `stage` comes after `than` on a recording's way.
bool later(const std::string& stage, const std::string& than) {
    const std::array<std::string, 5> way = {"recording", "finalizing", "saved", "uploading",
                                            "uploaded"};
    auto at = [&](const std::string& s) { return std::find(way.begin(), way.end(), s); };
    return at(stage) != way.end() && at(stage) > at(than);
}

// What recovery must make of the stage a kill left.
std::string recovered(const std::string& stage) {
    if (stage == "recording" || stage == "finalizing") {
        return "interrupted";
    }
    return stage == "uploading" ? "saved" : stage;
}

struct Result {
    Moment moment = Moment::recording;
    std::string id;
    double recorded = 0;  // seconds from the start's reply to the kill or the stop
    std::string stageAtKill = "none";
    std::string stageAfter = "none";
    bool halfWritten = false;  // a side-car's temporary file was left
    bool videoAtKill = false;
    bool readable = false;  // FFmpeg opens it and finds its H.264 video
    std::int64_t frames = 0;
    double duration = 0;
    std::string note;  // a moment that did not come, or a failed step

    double missing() const { return std::max(0.0, recorded - duration); }
    bool rightStage() const { return stageAfter == recovered(stageAtKill); }
};

struct Settings {
    int recordings = 50;
    std::uint64_t seed = 1;
    fs::path dir = "/tmp";
    bool keep = false;
};

// ---- the soak

class Soak {
  public:
    Soak(const Settings& settings, const fs::path& root)
        : settings_(settings),
          root_(root),
          library_(root / "home" / "Videos" / "Pavix"),
          service_({PAVIX_DEVSERVER_BINARY, "--port", "0", "--data", (root / "service").string(),
                    "--poll-hold-ms", "1000"}),
          window_({PAVIX_DEMO_WINDOW_BINARY, "--title", kWindowTitle, "--size", "640x400"}) {
        fs::create_directories(root / "config");
        fs::create_directories(root / "state");
        fs::create_directories(library_);
        fs::permissions(library_, fs::perms::owner_all, fs::perm_options::replace);
        // The library is the videos folder of the user's own folders + "/Pavix".
        std::ofstream(root / "config" / "user-dirs.dirs")
            << "XDG_VIDEOS_DIR=\"" << (root / "home" / "Videos").string() << "\"\n";
        if (!service_.waitForLine("ready", seconds(30))) {
            throw std::runtime_error("the service did not start:\n" + service_.output());
        }
        const auto lines = service_.output();
        server_ = valueAfter(lines, "server ");
        code_ = valueAfter(lines, "code ");
        auto console = valueAfter(lines, "console ");
        auto key = console.find("key=");
        agent_ = std::make_unique<Agent>(server_,
                                         key == std::string::npos ? "" : console.substr(key + 4));
        if (!window_.waitForLine("window 0x", seconds(20))) {
            throw std::runtime_error("no window to record:\n" + window_.output());
        }
    }

    // Pairs pavix with the service and has the agent select the window, for later launches.
    void pair() {
        auto app = pavix({"--code", code_, "--pair"});
        if (!app->waitForLine("pavix: connected true", seconds(60))) {
            throw std::runtime_error("pavix did not pair:\n" + app->output());
        }
        device_ = agent_->get("/agent/devices")["devices"].at(0)["deviceId"].get<std::string>();
        auto sources = agent_->send(device_, "listSources", json::array());
        for (const auto& source : sources["value"]["sources"]) {
            if (source.value("title", "").find(kWindowTitle) != std::string::npos) {
                agent_->send(device_, "selectSource", json::array({{{"sourceId", source["id"]}}}));
                app->signal(SIGTERM);
                if (app->wait(seconds(30)) != 0) {
                    throw std::runtime_error("pavix did not end:\n" + app->output());
                }
                return;
            }
        }
        throw std::runtime_error("the window is not among the sources: " + sources.dump());
    }

    Result record(int index, Moment moment) {
        std::seed_seq seeds{static_cast<std::uint32_t>(settings_.seed),
                            static_cast<std::uint32_t>(settings_.seed >> 32),
                            static_cast<std::uint32_t>(index), 1u};
        std::mt19937_64 rng(seeds);
        auto uniform = [&](double low, double high) {
            return std::uniform_real_distribution<double>(low, high)(rng);
        };
        Result result;
        result.moment = moment;
        auto app = pavix({"--pair", "--approve"});
        if (!app->waitForLine("pavix: connected true", seconds(60))) {
            result.note = "pavix did not connect";
            return result;
        }
        const auto id = agent_->post("/agent/captures", {{"deviceId", device_}})["captureId"]
                            .get<std::string>();
        result.id = Uuid::upper(id);
        const fs::path sideCar = library_ / (result.id + ".json");
        const fs::path video = library_ / ("Pavix-" + result.id + ".mp4");
        if (moment == Moment::uploading) {
            agent_->post("/agent/faults",
                         {{"rule", "path=/local-browser/desktop-upload/" + id +
                                       "/chunk,stall=" + std::to_string(kHeldPieceMs)}});
        }
        auto started = agent_->send(device_, "startRecording", json::array({{{"captureId", id}}}));
        const auto start = Clock::now();
        if (!started.contains("value")) {
            result.note = "the recording did not start: " + started.dump();
            return result;
        }
        // The recording's length: the moment to stop or kill it, not a wait for an event.
        const double length = moment == Moment::recording ? uniform(0.5, 5.0) : uniform(1.0, 4.0);
        std::this_thread::sleep_for(std::chrono::duration<double>(length));
        std::optional<LibraryWatch> watch;
        if (moment != Moment::recording) {
            watch.emplace(library_);  // what the library sees from the stop on
            agent_->send(device_, "stopRecording", json::array(), false);
        }
        result.recorded = secondsSince(start);
        const auto deadline = Clock::now() + seconds(60);
        // The side-car reaching `stage` (or a later one, when it went by unseen), watched as
        // each new side-car is renamed into place.
        auto reaches = [&](const std::string& stage) {
            for (;;) {
                auto now = stageOf(sideCar).value_or("none");
                if (now == stage) {
                    return true;
                }
                if (later(now, stage)) {
                    result.note = "the side-car was " + now + " when seen";
                    return false;
                }
                if (!watch->next(deadline)) {
                    result.note = "the side-car did not reach " + stage;
                    return false;
                }
            }
        };
        switch (moment) {
            case Moment::recording:
                break;
            case Moment::finalizing:
                if (reaches("finalizing")) {
                    // Finishing a short video takes some tens of milliseconds.
                    std::this_thread::sleep_for(milliseconds(static_cast<int>(uniform(0, 20))));
                }
                break;
            case Moment::uploading:
                if (reaches("uploading")) {
                    std::this_thread::sleep_for(
                        milliseconds(static_cast<int>(uniform(0, kHeldPieceMs / 2))));
                }
                break;
            case Moment::sideCar: {
                // The n-th side-car write after the stop: finalizing, saved, uploading, uploaded.
                const int write = 1 + static_cast<int>(rng() % 4);
                const std::string temporary = "." + result.id + ".json.tmp";
                for (int seen = 0; seen < write;) {
                    auto event = watch->next(deadline);
                    if (!event) {
                        result.note = "side-car write " + std::to_string(write) + " did not come";
                        break;
                    }
                    seen += event->name == temporary && (event->mask & IN_CREATE);
                }
                break;
            }
        }
        app->signal(SIGKILL);
        app->wait(seconds(20));
        result.stageAtKill = stageOf(sideCar).value_or("none");
        result.halfWritten = fs::exists(library_ / ("." + result.id + ".json.tmp"));
        result.videoAtKill = fs::exists(video);
        agent_->clearFaults();

        // The next launch recovers what the killed one left.
        auto listing = pavix({"--library"});
        if (listing->wait(seconds(60)) != 0) {
            result.note +=
                (result.note.empty() ? "" : "; ") + std::string("pavix --library failed");
        }
        result.stageAfter = stageOf(sideCar).value_or("none");
        if (fs::exists(video)) {
            MediaProbe::Options options;
            options.decodeFrames = 0;
            if (auto info = MediaProbe::read(video.string(), options)) {
                result.readable = info->codec == "h264";
                result.frames = info->frameCount;
                if (info->frameCount > 0) {
                    result.duration =
                        std::max(info->durationSeconds.value_or(0), info->lastFrameSeconds);
                }
            }
        }
        return result;
    }

    fs::path videoOf(const Result& result) const {
        return library_ / ("Pavix-" + result.id + ".mp4");
    }

  private:
    // The rest of the first line the service printed that starts with `prefix`.
    static std::string valueAfter(const std::string& output, const std::string& prefix) {
        std::istringstream lines(output);
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind(prefix, 0) == 0) {
                return line.substr(prefix.size());
            }
        }
        throw std::runtime_error("the service printed no " + prefix + "line");
    }

    std::unique_ptr<ChildProcess> pavix(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {PAVIX_BINARY, "--server", server_});
        return std::make_unique<ChildProcess>(
            arguments,
            std::map<std::string, std::string>{{"XDG_CONFIG_HOME", (root_ / "config").string()},
                                               {"XDG_STATE_HOME", (root_ / "state").string()}});
    }

    Settings settings_;
    fs::path root_;
    fs::path library_;
    ChildProcess service_;
    ChildProcess window_;
    std::string server_;
    std::string code_;
    std::unique_ptr<Agent> agent_;
    std::string device_;
};

std::string counted(const std::map<std::string, int>& counts) {
    std::string text;
    for (const auto& [what, count] : counts) {
        text += (text.empty() ? "" : ", ") + what + " " + std::to_string(count);
    }
    return text.empty() ? "-" : text;
}

int soakMain(int argc, char** argv) {
    Settings settings;
    for (int i = 1; i < argc; ++i) {
        std::string key = argv[i];
        if (key == "--keep") {
            settings.keep = true;
        } else if (i + 1 < argc && key == "--recordings") {
            settings.recordings = std::stoi(argv[++i]);
        } else if (i + 1 < argc && key == "--seed") {
            settings.seed = std::stoull(argv[++i]);
        } else if (i + 1 < argc && key == "--dir") {
            settings.dir = argv[++i];
        } else {
            throw std::invalid_argument(
                "usage: pavix-kill-soak [--recordings 50] [--seed 1] "
                "[--dir /tmp] [--keep]");
        }
    }
    if (settings.recordings < 1) {
        throw std::invalid_argument("--recordings must be at least 1");
    }
    // A private desktop: the recordings are of its window, and the credential goes to its
    // keyring, never the user's.
    if (!std::getenv("PAVIX_IN_DESKTOP") || !std::getenv("DISPLAY")) {
        throw std::runtime_error("run it under scripts/with-desktop, a private desktop session");
    }
    const auto started = Clock::now();
    Scratch scratch(settings.dir, "pavix-kill-soak");
    if (settings.keep) {
        scratch.keep();
    }
    std::vector<Result> results;
    {
        Soak soak(settings, scratch.path());
        soak.pair();
        // Each block of four recordings is killed at the four moments, in an order drawn from
        // --seed, so that a short soak still meets different moments.
        std::array<Moment, 4> order{};
        for (int index = 0; index < settings.recordings; ++index) {
            if (index % 4 == 0) {
                order = {Moment::recording, Moment::finalizing, Moment::uploading, Moment::sideCar};
                std::seed_seq seeds{static_cast<std::uint32_t>(settings.seed),
                                    static_cast<std::uint32_t>(settings.seed >> 32),
                                    static_cast<std::uint32_t>(index), 0u};
                std::mt19937_64 shuffler(seeds);
                std::shuffle(order.begin(), order.end(), shuffler);
            }
            results.push_back(soak.record(index, order[static_cast<std::size_t>(index % 4)]));
            const auto& r = results.back();
            std::fprintf(stderr,
                         "pavix-kill-soak: %d/%d killed while %s after %.2f s: %s -> %s, video "
                         "%.2f s%s%s\n",
                         index + 1, settings.recordings, kMomentText[static_cast<int>(r.moment)],
                         r.recorded, r.stageAtKill.c_str(), r.stageAfter.c_str(), r.duration,
                         r.note.empty() ? "" : "; ", r.note.c_str());
        }
        // Nothing the soak did since may have taken a video away.
        for (auto& r : results) {
            r.videoAtKill = r.videoAtKill && !r.id.empty();
            if (r.videoAtKill && !fs::exists(soak.videoOf(r))) {
                r.note += (r.note.empty() ? "" : "; ") + std::string("video gone at the end");
            }
        }
    }
    const double wall = secondsSince(started);

    std::printf("pavix-kill-soak: %d recordings from seed %" PRIu64
                ", each killed with SIGKILL, then pavix launched again on the same home\n\n",
                settings.recordings, settings.seed);
    std::printf("  %-3s %-15s %9s %9s %8s  %-13s -> %s\n", "#", "killed while", "recorded", "video",
                "missing", "stage at kill", "after the next launch");
    for (std::size_t i = 0; i < results.size(); ++i) {
        const auto& r = results[i];
        char video[32] = "none";
        if (r.videoAtKill) {
            std::snprintf(video, sizeof video, r.readable ? "%.2f s" : "unreadable", r.duration);
        }
        std::string notes = r.halfWritten ? "half-written side-car left" : "";
        notes += (notes.empty() || r.note.empty() ? "" : "; ") + r.note;
        std::printf("  %-3zu %-15s %7.2f s %9s %6.2f s  %-13s -> %-*s%s\n", i + 1,
                    kMomentText[static_cast<int>(r.moment)], r.recorded, video, r.missing(),
                    r.stageAtKill.c_str(), notes.empty() ? 0 : 14, r.stageAfter.c_str(),
                    notes.c_str());
    }

    std::printf("\n  %-15s %6s  %-44s %-30s %s\n", "killed while", "kills", "stage at kill",
                "after the next launch", "right");
    for (int m = 0; m < 4; ++m) {
        std::map<std::string, int> atKill, after;
        int kills = 0, right = 0;
        for (const auto& r : results) {
            if (static_cast<int>(r.moment) == m) {
                ++kills;
                ++atKill[r.stageAtKill];
                ++after[r.stageAfter];
                right += r.rightStage();
            }
        }
        std::printf("  %-15s %6d  %-44s %-30s %d/%d\n", kMomentText[static_cast<std::size_t>(m)],
                    kills, counted(atKill).c_str(), counted(after).c_str(), right, kills);
    }

    int videos = 0, readable = 0, withFrames = 0, tooShort = 0, right = 0, deleted = 0,
        halfWritten = 0, failedSteps = 0;
    double worst = 0;
    std::vector<double> missing;
    for (const auto& r : results) {
        failedSteps += !r.note.empty() && r.note.find("video gone") == std::string::npos;
        right += r.rightStage();
        halfWritten += r.halfWritten;
        if (!r.videoAtKill) {
            continue;
        }
        ++videos;
        deleted += r.note.find("video gone") != std::string::npos;
        readable += r.readable;
        withFrames += r.frames > 0;
        tooShort += r.missing() > kKeyFrameSeconds;
        worst = std::max(worst, r.missing());
        missing.push_back(r.missing());
    }
    std::sort(missing.begin(), missing.end());
    const double median = missing.empty() ? 0 : missing[missing.size() / 2];
    auto row = [](const char* what, const std::string& value, const char* goal) {
        std::printf("  %-58s %14s%s%s\n", what, value.c_str(), *goal ? "   " : "", goal);
    };
    auto of = [](int part, int whole) {
        return std::to_string(part) + " / " + std::to_string(whole);
    };
    std::printf("\n");
    row("recordings killed", std::to_string(results.size()), "");
    row("videos FFmpeg reads (its H.264 stream found)", of(readable, videos), "goal: all");
    row("  holding at least one frame", of(withFrames, videos), "");
    char seconds[64];
    std::snprintf(seconds, sizeof seconds, "%.2f s / %.2f s", median, worst);
    row("time recorded missing from the video: median / most", seconds, "goal: <= 2 s each");
    row("  videos missing more than their last 2 s", std::to_string(tooShort), "goal: 0");
    row("records recovered in the right stage", of(right, static_cast<int>(results.size())),
        "goal: all");
    row("videos deleted", std::to_string(deleted), "goal: 0");
    row("kills that left a half-written side-car (its .tmp file)", std::to_string(halfWritten), "");
    row("steps that did not happen as planned (see the notes)", std::to_string(failedSteps),
        "goal: 0");
    std::printf("  %-58s %12.1f s\n", "wall time", wall);
    const bool met = readable == videos && tooShort == 0 &&
                     right == static_cast<int>(results.size()) && deleted == 0 && failedSteps == 0;
    std::printf("\n%s\n", met ? "all goals met" : "GOALS MISSED");
    return met ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return soakMain(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "pavix-kill-soak: %s\n", e.what());
        return 2;
    }
}
