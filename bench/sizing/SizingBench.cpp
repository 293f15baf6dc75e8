// What bringing a window to the agent's standard sizes costs on X11, printed side by side in
// one run:
//  - pavix: WindowResize::apply for each preset (the screen's usable part, the frame with its
//    decorations, the request through the window manager checked step by step against the
//    server) and WindowResize::restore afterwards;
//  - bare: one XMoveResizeWindow of the client to the preset's size, waited for until the
//    window manager has placed it, and one back: what a tool that neither fits the window to
//    the screen nor checks the result gets. "exact" counts the rounds whose content (what a
//    recording shows: the frame less the decorations) is the size reported.
// Plus a window whose program limits its size, which Pavix reports as "app_limited".
// Run it under scripts/with-desktop.
//
//   pavix-bench-sizing [--rounds 20]
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/sizing/WindowResize.h"
#include "linux/X11WindowFrames.h"
#include "support/X11TestWindow.h"

namespace {

using Clock = std::chrono::steady_clock;
using pavix::CaptureRect;
using pavix::test::X11TestDisplay;
using pavix::test::X11TestWindow;

double ms(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

double percentile(std::vector<double> values, double p) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const auto at = static_cast<std::size_t>(std::lround(p * double(values.size() - 1)));
    return values[at];
}

// The window's content, which a recording shows and a preset sizes: its frame less the window
// manager's decorations.
std::optional<CaptureRect> contentOf(pavix::X11WindowFrames& frames, std::uint32_t id) {
    auto frame = frames.frame(id);
    if (frame) {
        const auto d = frames.decorations(id);
        frame->width -= d.left + d.right;
        frame->height -= d.top + d.bottom;
    }
    return frame;
}

bool within(const std::optional<CaptureRect>& frame, double width, double height) {
    return frame && std::abs(frame->width - width) <= 2 && std::abs(frame->height - height) <= 2;
}

struct Row {
    std::vector<double> apply, restore;
    int exact = 0, back = 0, rounds = 0;
};

// Moves and resizes the client and waits for the server's word that it has the new size: no
// check of the frame against what was asked.
void bareResize(X11TestDisplay& display, Window window, int x, int y, int width, int height) {
    Display* d = display.get();
    XSelectInput(d, window, StructureNotifyMask);
    XSync(d, True);  // what earlier requests left queued says nothing of this one
    XMoveResizeWindow(d, window, x, y, static_cast<unsigned>(width), static_cast<unsigned>(height));
    XFlush(d);
    const auto deadline = Clock::now() + std::chrono::seconds(2);
    for (;;) {
        while (XPending(d) > 0) {
            XEvent event;
            XNextEvent(d, &event);
            if (event.type == ConfigureNotify && event.xconfigure.window == window &&
                event.xconfigure.width == width && event.xconfigure.height == height) {
                return;
            }
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            return;
        }
        pollfd connection{ConnectionNumber(d), POLLIN, 0};
        ::poll(&connection, 1, static_cast<int>(left.count()));
    }
}

}  // namespace

int main(int argc, char** argv) {
    int rounds = 20;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--rounds") == 0) {
            rounds = std::max(1, std::atoi(argv[i + 1]));
        }
    }
    try {
        X11TestDisplay display;
        pavix::X11WindowFrames frames;
        const auto screens = frames.screens();
        if (screens.empty()) {
            std::fprintf(stderr, "pavix-bench-sizing: no screen\n");
            return 1;
        }
        const auto visible = screens.front().visible;
        std::printf("Window sizing on X11 (screen %gx%g, usable %gx%g at %g,%g), %d rounds\n",
                    screens.front().frame.width, screens.front().frame.height, visible.width,
                    visible.height, visible.x, visible.y, rounds);
        std::printf(
            "  pavix: WindowResize::apply then restore (frame with decorations, checked)\n");
        std::printf("  bare:  one XMoveResizeWindow of the client there and one back\n");
        std::printf("  %-10s | %-54s | %-54s\n", "preset", "pavix apply p50/p95 ms, restore, exact",
                    "bare apply p50/p95 ms, restore, exact");

        pavix::test::X11TestWindowOptions options;
        options.x = 80;
        options.y = 60;
        options.width = 640;
        options.height = 400;
        X11TestWindow window(display, options);
        const auto id = static_cast<std::uint32_t>(window.id());
        if (!pavix::test::eventually([&] { return window.managed(); }, std::chrono::seconds(5))) {
            std::fprintf(stderr,
                         "pavix-bench-sizing: the window manager did not take the window\n");
            return 1;
        }
        for (const char* preset : {"1280x720", "1440x900", "1920x1080"}) {
            const auto size = pavix::WindowSizing::preset(preset);
            Row pavixRow, bareRow;
            for (int round = 0; round < rounds; ++round) {
                auto started = Clock::now();
                auto [report, undo] = pavix::WindowResize::apply(frames, preset, id);
                pavixRow.apply.push_back(ms(Clock::now() - started));
                pavixRow.exact +=
                    report.resized && within(contentOf(frames, id), report.width, report.height);
                if (undo) {
                    started = Clock::now();
                    pavixRow.back += undo->restore(frames);
                    pavixRow.restore.push_back(ms(Clock::now() - started));
                }
                ++pavixRow.rounds;

                const auto before = frames.frame(id);
                started = Clock::now();
                bareResize(display, window.id(), int(visible.x), int(visible.y), int(size.width),
                           int(size.height));
                bareRow.apply.push_back(ms(Clock::now() - started));
                bareRow.exact += within(contentOf(frames, id), report.width, report.height);
                started = Clock::now();
                bareResize(display, window.id(), options.x, options.y, options.width,
                           options.height);
                bareRow.restore.push_back(ms(Clock::now() - started));
                bareRow.back += before && within(frames.frame(id), before->width, before->height);
                ++bareRow.rounds;
            }
            auto cell = [](const Row& row) {
                char text[96];
                std::snprintf(text, sizeof text,
                              "%5.1f /%6.1f, %5.1f /%6.1f, %d/%d exact %d/%d back",
                              percentile(row.apply, 0.5), percentile(row.apply, 0.95),
                              percentile(row.restore, 0.5), percentile(row.restore, 0.95),
                              row.exact, row.rounds, row.back, row.rounds);
                return std::string(text);
            };
            std::printf("  %-10s | %-54s | %-54s\n", preset, cell(pavixRow).c_str(),
                        cell(bareRow).c_str());
        }

        // A program that limits its window's size: Pavix stops at the limit and says so.
        auto limitedOptions = options;
        limitedOptions.title = "Pavix limited window";
        limitedOptions.maxWidth = 1000;
        limitedOptions.maxHeight = 700;
        X11TestWindow limited(display, limitedOptions);
        pavix::test::eventually([&] { return limited.managed(); }, std::chrono::seconds(5));
        std::vector<double> times;
        std::string reason;
        for (int round = 0; round < rounds; ++round) {
            const auto started = Clock::now();
            auto [report, undo] = pavix::WindowResize::apply(
                frames, "1920x1080", static_cast<std::uint32_t>(limited.id()));
            times.push_back(ms(Clock::now() - started));
            reason = report.payload().value("reason", "none");
            if (undo) {
                undo->restore(frames);
            }
        }
        std::printf(
            "  a window limited to 1000x700 asked for 1920x1080: p50 %.1f ms, p95 %.1f ms, "
            "reason \"%s\"\n",
            percentile(times, 0.5), percentile(times, 0.95), reason.c_str());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "pavix-bench-sizing: %s\n", error.what());
        return 1;
    }
    return 0;
}
