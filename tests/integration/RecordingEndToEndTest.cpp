// The whole recording path with the real parts: the pavix executable records a window with
// moving content for the agent of the development service, finishes the video, uploads it in
// verified pieces and publishes it; the service then holds the same bytes as the library.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "linux/FfmpegMediaReader.h"
#include "support/ChildProcess.h"
#include "support/DevServerProcess.h"

namespace pavix::test {
namespace {

using nlohmann::json;
using std::chrono::seconds;
namespace fs = std::filesystem;

std::string bytesOf(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream out;
    out << in.rdbuf();
    return out.str();
}

// The envelope the agent command line printed after its own lines.
json envelope(const std::string& output) {
    auto at = output.find('{');
    return at == std::string::npos ? json() : json::parse(output.substr(at), nullptr, false);
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        // The service announces nothing to this process: ask again shortly.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    return true;
}

TEST(RecordingEndToEnd, TheAgentsRecordingIsPublishedByteIdenticalToTheLocalVideo) {
    DevServerProcess service;
    auto home = fs::path(DevServerProcess::scratch("e2e-home"));
    fs::create_directories(home / "config");
    // The library is the videos folder of the user's own folders + "/Pavix".
    std::ofstream(home / "config" / "user-dirs.dirs")
        << "XDG_VIDEOS_DIR=\"" << (home / "Videos").string() << "\"\n";

    ChildProcess window(
        {PAVIX_DEMO_WINDOW_BINARY, "--title", "Recorded end to end", "--size", "640x400"});
    ASSERT_TRUE(window.waitForLine("window 0x", seconds(10))) << window.output();

    ChildProcess app({PAVIX_BINARY, "--server", service.server(), "--code", service.code(),
                      "--pair", "--approve"},
                     {{"XDG_CONFIG_HOME", (home / "config").string()},
                      {"XDG_STATE_HOME", (home / "state").string()}});
    ASSERT_TRUE(app.waitForLine("pavix: connected true", seconds(30))) << app.output();

    auto listed = envelope(service.agent({"send", "listSources", "--timeout", "20"}));
    std::string sourceId;
    for (const auto& source : listed["value"]["sources"]) {
        if (source["title"].get<std::string>().find("Recorded end to end") != std::string::npos) {
            sourceId = source["id"];
        }
    }
    ASSERT_FALSE(sourceId.empty()) << listed.dump();
    json select = json::array({{{"sourceId", sourceId}}});
    auto selected = envelope(service.agent({"send", "selectSource", select.dump()}));
    ASSERT_TRUE(selected.contains("value")) << selected.dump();

    auto captureId = service.agent({"capture-id"});
    captureId.erase(captureId.find_last_not_of("\n ") + 1);
    json start = json::array({{{"captureId", captureId}}});
    auto started =
        envelope(service.agent({"send", "startRecording", start.dump(), "--timeout", "30"}));
    ASSERT_TRUE(started.contains("value")) << started.dump() << app.output();
    EXPECT_EQ(started["value"]["captureId"], captureId);

    // The length of the recording, not a wait for an event.
    std::this_thread::sleep_for(seconds(2));
    auto stopped = envelope(service.agent({"send", "stopRecording", "--timeout", "60"}));
    ASSERT_TRUE(stopped.contains("value")) << stopped.dump() << app.output();
    EXPECT_EQ(stopped["value"]["captureId"], captureId);
    EXPECT_EQ(stopped["value"]["body"], "desktop_upload");

    ASSERT_TRUE(eventually(
        [&] {
            return service.agent({"recordings"}).find(captureId + "  published") !=
                   std::string::npos;
        },
        std::chrono::seconds(60)))
        << service.agent({"recordings", "--all"}) << app.output();
    ASSERT_TRUE(app.waitForLine("status: Uploaded. Ask your agent to render it", seconds(10)))
        << app.output();

    auto local = home / "Videos" / "Pavix" / ("Pavix-" + upper(captureId) + ".mp4");
    ASSERT_TRUE(fs::exists(local)) << app.output();
    auto downloaded = home / "downloaded.mp4";
    service.agent({"download", captureId, downloaded.string()});
    EXPECT_EQ(bytesOf(downloaded), bytesOf(local));  // the service verified the digest too
    FfmpegMediaReader reader;
    auto duration = reader.duration(downloaded.string());
    ASSERT_TRUE(duration);
    EXPECT_GT(*duration, 1.0);
    EXPECT_LT(*duration, 30.0);

    auto sideCar = json::parse(bytesOf(home / "Videos" / "Pavix" / (upper(captureId) + ".json")));
    EXPECT_EQ(sideCar["stage"], "uploaded");
    // A window is recorded with room for its pop-ups around it.
    EXPECT_GE(sideCar["width"].get<int>(), 640);
    EXPECT_GE(sideCar["height"].get<int>(), 400);
    EXPECT_GT(sideCar["durationMs"].get<int>(), 1000);

    app.signal(SIGTERM);
    EXPECT_EQ(app.wait(seconds(20)), 0) << app.output();
    window.signal(SIGTERM);
    window.wait(seconds(5));
    fs::remove_all(home);
}

}  // namespace
}  // namespace pavix::test
