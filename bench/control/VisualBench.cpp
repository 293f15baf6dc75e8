// What the visual outline of a canvas costs and finds, printed side by side in one run: the
// control session's readPage {"visual": true} of a 1920×1080 window that paints 96 words
// (sizes 11 to 32 pixels, on light ground, coloured boxes and a dark panel), read in turn by
//  - pavix: the recogniser as Pavix uses it (sparse text, even polarity with local thresholds,
//    small text read at twice its size);
//  - 1x: the same without reading small text at twice its size;
//  - plain: Tesseract's own defaults (automatic page layout, one threshold, the picture as it
//    is).
// For each: p50 and p95 of a whole read (accessible tree, capture, recognition, outline), of
// the recognition alone, this process's CPU time per read, and the drawn words the outline
// names at their place (the same text, its centre within 4 points of the drawn one) by size.
// Run it under scripts/with-desktop.
//
//   pavix-bench-visual [--reads N]
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "core/capture/CaptureStill.h"
#include "core/control/DesktopControl.h"
#include "core/session/PavixError.h"
#include "linux/AtspiActions.h"
#include "linux/AtspiTreeReader.h"
#include "linux/TesseractRecognizer.h"
#include "linux/X11CaptureStream.h"
#include "linux/X11DesktopInput.h"
#include "linux/X11ShareableContent.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using nlohmann::json;

constexpr const char* kName = "pavix-bench-visual";

[[noreturn]] void fail(const std::string& why) {
    std::fprintf(stderr, "%s: %s\n", kName, why.c_str());
    std::exit(1);
}

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double percentile(std::vector<double> samples, double share) {
    if (samples.empty()) {
        return 0;
    }
    std::sort(samples.begin(), samples.end());
    auto rank = static_cast<std::size_t>(std::ceil(share * samples.size()));
    return samples[std::clamp<std::size_t>(rank, 1, samples.size()) - 1];
}

// This process's CPU time in milliseconds, all threads.
double cpuMs() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000.0 +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000.0;
}

int parseReads(int argc, char** argv) {
    int reads = 10;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--reads" && i + 1 < argc) {
            char* end = nullptr;
            const long value = std::strtol(argv[++i], &end, 10);
            if (*end != '\0' || value < 1 || value > 200) {
                fail("--reads wants a whole number from 1 to 200");
            }
            reads = static_cast<int>(value);
        } else {
            std::fprintf(stderr, "usage: %s [--reads N]  (warm reads by each peer, 10)\n", kName);
            std::exit(2);
        }
    }
    return reads;
}

// ---------------------------------------------------------------------------------------------
// The window: the painting program, its standard output on a pipe.

struct Drawn {
    std::string text;
    double x = 0, y = 0;
    int pixels = 0;
};

class BenchWindow {
  public:
    BenchWindow() {
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0) {
            fail("cannot make a pipe");
        }
        std::string program = PAVIX_BENCH_CANVAS_WINDOW_BINARY;
        char* argv[] = {program.data(), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        const int rc = posix_spawn(&pid_, argv[0], &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        output_ = out[0];
        if (rc != 0) {
            pid_ = -1;
            fail("cannot start " + program);
        }
    }
    ~BenchWindow() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
            }
        }
        ::close(output_);
    }
    BenchWindow(const BenchWindow&) = delete;
    BenchWindow& operator=(const BenchWindow&) = delete;

    // Reads its words until it names its window; the window's number.
    std::uint32_t settle(std::vector<Drawn>& words) {
        const auto deadline = Clock::now() + 30s;
        std::string buffer;
        for (;;) {
            for (auto end = buffer.find('\n'); end != std::string::npos; end = buffer.find('\n')) {
                std::istringstream line(buffer.substr(0, end));
                buffer.erase(0, end + 1);
                std::string kind;
                line >> kind;
                if (kind == "window") {
                    std::string id;
                    line >> id;
                    return static_cast<std::uint32_t>(std::stoul(id, nullptr, 16));
                }
                Drawn word;
                if (kind == "word" && line >> word.text >> word.x >> word.y >> word.pixels) {
                    words.push_back(word);
                }
            }
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now())
                    .count();
            pollfd fd{output_, POLLIN, 0};
            if (left <= 0 || ::poll(&fd, 1, static_cast<int>(left)) <= 0) {
                fail("the canvas window did not show");
            }
            char chunk[4096];
            const auto n = ::read(output_, chunk, sizeof chunk);
            if (n <= 0) {
                fail("the canvas window ended");
            }
            buffer.append(chunk, static_cast<std::size_t>(n));
        }
    }

  private:
    pid_t pid_ = -1;
    int output_ = -1;
};

// ---------------------------------------------------------------------------------------------
// The peers.

// A recogniser that times the one it wraps.
class Timed : public pavix::TextRecognizer {
  public:
    explicit Timed(pavix::TesseractSettings settings)
        : inner_(pavix::TesseractRecognizer::dataFolders(), settings) {}
    std::vector<pavix::RecognizedText> recognize(const pavix::VideoFrame& picture) override {
        const auto start = Clock::now();
        auto lines = inner_.recognize(picture);
        ms.push_back(msSince(start));
        upscaled = inner_.upscaledLast();
        last = lines;
        return lines;
    }
    std::vector<double> ms;
    bool upscaled = false;
    std::vector<pavix::RecognizedText> last;  // what the last picture gave, before any threshold

  private:
    pavix::TesseractRecognizer inner_;
};

struct Score {
    std::vector<int> placed = std::vector<int>(3, 0);  // by size: ≤13, 14 to 18, ≥20 pixels
    int read = 0;                                      // named anywhere, as a whole word
    int other = 0;                                     // visual lines that name no drawn word
};

int sizeClass(int pixels) {
    return pixels <= 13 ? 0 : pixels <= 18 ? 1 : 2;
}

Score score(const std::string& outline, const std::vector<Drawn>& drawn) {
    struct Line {
        std::string text;
        int x, y;
    };
    std::vector<Line> lines;
    static const std::regex shape(
        R"(^  \[ref_[0-9]+\] (?:text|button) (".*") visual — visible at \((-?[0-9]+),(-?[0-9]+)\) window points$)");
    std::istringstream in(outline);
    for (std::string text; std::getline(in, text);) {
        std::smatch found;
        if (std::regex_match(text, found, shape)) {
            auto quoted = json::parse(found[1].str(), nullptr, false);
            lines.push_back({quoted.is_string() ? quoted.get<std::string>() : "",
                             std::stoi(found[2]), std::stoi(found[3])});
        }
    }
    Score score;
    std::vector<bool> used(lines.size(), false);
    for (const auto& word : drawn) {
        bool placed = false, read = false;
        for (std::size_t i = 0; i < lines.size(); ++i) {
            const auto& line = lines[i];
            std::istringstream tokens(line.text);
            bool token = false;
            for (std::string t; tokens >> t;) {
                token = token || t == word.text;
            }
            if (!token) {
                continue;
            }
            read = used[i] = true;
            placed = placed || (line.text == word.text && std::abs(line.x - word.x) <= 4 &&
                                std::abs(line.y - word.y) <= 4);
        }
        score.placed[sizeClass(word.pixels)] += placed ? 1 : 0;
        score.read += read ? 1 : 0;
    }
    score.other = static_cast<int>(std::count(used.begin(), used.end(), false));
    return score;
}

struct Peer {
    const char* name;
    const char* what;
    std::unique_ptr<Timed> recognizer;
    std::unique_ptr<pavix::DesktopControl> control;
    std::vector<double> ms, capture, cpu;
    Score last;
};

}  // namespace

int main(int argc, char** argv) {
    const int reads = parseReads(argc, argv);
    if (!std::getenv("DISPLAY")) {
        fail("no display; run it under scripts/with-desktop");
    }
    BenchWindow window;
    std::vector<Drawn> drawn;
    const auto windowID = window.settle(drawn);

    pavix::AtspiTreeReader reader;
    pavix::AtspiActions actions;
    pavix::X11DesktopInput input;
    pavix::X11ShareableContent content;
    std::vector<Peer> peers;
    peers.push_back(
        {"pavix", "sparse text, even polarity, small text at 2x", nullptr, {}, {}, {}, {}, {}});
    peers.push_back({"1x", "the same, small text at its size", nullptr, {}, {}, {}, {}, {}});
    peers.push_back({"plain",
                     "Tesseract's defaults: automatic layout, one threshold, 1x",
                     nullptr,
                     {},
                     {},
                     {},
                     {},
                     {}});
    const pavix::TesseractSettings settings[] = {
        {true, true, true}, {false, true, true}, {false, false, false}};
    for (std::size_t i = 0; i < peers.size(); ++i) {
        auto& peer = peers[i];
        peer.recognizer = std::make_unique<Timed>(settings[i]);
        pavix::ControlParts parts{reader, actions, input, content};
        parts.picture = [&peer](std::uint32_t id, int width, int height) {
            const auto start = Clock::now();
            pavix::X11CaptureStream stream;
            pavix::CaptureFilter filter;
            filter.windowID = id;
            auto frame = pavix::CaptureStill::firstFrame(stream, filter, width, height, 5s);
            peer.capture.push_back(msSince(start));
            return frame;
        };
        parts.recognizer = peer.recognizer.get();
        const auto deadline = Clock::now() + 30s;
        while (!peer.control) {
            try {
                peer.control = std::make_unique<pavix::DesktopControl>(parts, windowID);
            } catch (const pavix::PavixError& e) {
                if (Clock::now() > deadline) {
                    fail(std::string("the control session refused the window: ") + e.what());
                }
            }
        }
    }

    // A read of each to load the engines, then the peers in turn, each first in one round of
    // three, so that a busy moment of the machine falls on all alike.
    const json args = json::array({{{"visual", true}}});
    for (int round = -1; round < reads; ++round) {
        for (std::size_t k = 0; k < peers.size(); ++k) {
            auto& peer = peers[(k + std::max(round, 0)) % peers.size()];
            const auto cpu = cpuMs();
            const auto start = Clock::now();
            std::string outline;
            try {
                outline = peer.control->handle("readPage", args).get<std::string>();
            } catch (const pavix::PavixError& e) {
                fail(std::string(peer.name) + "'s read failed: " + e.what());
            }
            if (round < 0) {
                peer.recognizer->ms.clear();
                peer.capture.clear();
                continue;
            }
            peer.ms.push_back(msSince(start));
            peer.cpu.push_back(cpuMs() - cpu);
            peer.last = score(outline, drawn);
        }
    }

    int drawnBy[3] = {0, 0, 0};
    for (const auto& word : drawn) {
        ++drawnBy[sizeClass(word.pixels)];
    }
    std::printf("\nVisual outline of a 1920x1080 window of %zu painted words: %d warm reads each\n",
                drawn.size(), reads);
    for (const auto& peer : peers) {
        std::printf("  %-6s %s%s\n", peer.name, peer.what,
                    peer.recognizer->upscaled ? " (read at 2x)" : "");
    }
    std::printf(
        "  at place: the outline names the word alone, its centre within 4 points of the drawn "
        "one (by size in pixels); read: named in any line; other: lines naming no drawn word\n"
        "  confidence: of the recogniser's lines that are a drawn word (lowest), and of those "
        "that hold none (highest); the outline keeps lines of 60 or more\n");
    std::printf("%-6s | %7s %7s | %9s %9s | %7s | %-28s | %5s %6s | %s\n", "peer", "p50 ms",
                "p95 ms", "ocr p50", "grab p50", "cpu ms", "words at place ≤13/14-18/≥20", "read",
                "other", "confidence");
    for (const auto& peer : peers) {
        const auto& s = peer.last;
        const int placed = s.placed[0] + s.placed[1] + s.placed[2];
        char byClass[64];
        std::snprintf(byClass, sizeof byClass, "%d/%zu (%d/%d %d/%d %d/%d)", placed, drawn.size(),
                      s.placed[0], drawnBy[0], s.placed[1], drawnBy[1], s.placed[2], drawnBy[2]);
        double words = 100, others = 0;
        for (const auto& line : peer.recognizer->last) {
            const bool drawnWord = std::any_of(drawn.begin(), drawn.end(),
                                               [&](const Drawn& d) { return d.text == line.text; });
            (drawnWord ? words : others) =
                drawnWord ? std::min(words, line.confidence) : std::max(others, line.confidence);
        }
        std::printf("%-6s | %7.0f %7.0f | %9.0f %9.0f | %7.0f | %-28s | %5d %6d | %.0f / %.0f\n",
                    peer.name, percentile(peer.ms, 0.5), percentile(peer.ms, 0.95),
                    percentile(peer.recognizer->ms, 0.5), percentile(peer.capture, 0.5),
                    percentile(peer.cpu, 0.5), byClass, s.read, s.other, words, others);
    }
    return 0;
}
