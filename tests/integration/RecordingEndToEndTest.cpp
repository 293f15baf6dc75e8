// The whole recording path with the real parts: the pavix executable records a window with
// moving content for the agent of the development service, finishes the video, uploads it in
// verified pieces and publishes it; the service then holds the same bytes as the library.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <thread>

#include "core/runtime/Uuid.h"
#include "linux/FfmpegMediaReader.h"
#include "linux/X11ShareableContent.h"
#include "support/ChildProcess.h"
#include "support/DesktopBusMocks.h"
#include "support/DevServerProcess.h"
#include "support/LibraryRecords.h"
#include "support/X11TestWindow.h"

namespace pavix::test {
namespace {

using nlohmann::json;
using std::chrono::seconds;
namespace fs = std::filesystem;

json envelope(const std::string& output) {
    return DevServerProcess::envelope(output);
}

// A development service, a window with moving content and a home of the test's own.
class RecordingEndToEnd : public ::testing::Test {
  protected:
    RecordingEndToEnd() : home(DevServerProcess::scratch("e2e-home")) {
        fs::create_directories(home / "config");
        // The library is the videos folder of the user's own folders + "/Pavix".
        std::ofstream(home / "config" / "user-dirs.dirs")
            << "XDG_VIDEOS_DIR=\"" << (home / "Videos").string() << "\"\n";
        if (!window.waitForLine("window 0x", seconds(10))) {
            throw std::runtime_error("no demo window: " + window.output());
        }
    }
    ~RecordingEndToEnd() override {
        launched.clear();  // ends what is still running while its home is there
        window.signal(SIGTERM);
        window.wait(seconds(5));
        fs::remove_all(home);
    }
    std::shared_ptr<ChildProcess> pavix(std::vector<std::string> arguments,
                                        std::map<std::string, std::string> environment = {}) {
        arguments.insert(arguments.begin(), {"--server", service.server()});
        return launch(std::move(arguments), std::move(environment));
    }
    // pavix as the desktop starts it: with the arguments alone, and with everything it can log
    // turned on, which is checked for secrets at the end.
    std::shared_ptr<ChildProcess> launch(std::vector<std::string> arguments,
                                         std::map<std::string, std::string> environment = {}) {
        arguments.insert(arguments.begin(), PAVIX_BINARY);
        environment["XDG_CONFIG_HOME"] = (home / "config").string();
        environment["XDG_STATE_HOME"] = (home / "state").string();
        environment["PAVIX_CONTROL_LOG"] = "1";
        return launched.emplace_back(std::make_shared<ChildProcess>(arguments, environment));
    }
    // No line of any pavix of the test, nor its support bundle, holds the service's access or
    // refresh token (the service's tokens say what they are in their first letters) or a
    // pairing code.
    void TearDown() override {
        for (const auto& app : launched) {
            for (const auto& line : app->lines()) {
                for (const auto& secret : {std::string("pvx_at_"), std::string("pvx_rt_"),
                                           service.code(), std::string("Bearer")}) {
                    EXPECT_EQ(line.find(secret), std::string::npos) << line;
                }
            }
        }
    }
    // Runs a one-shot pavix command to its end.
    std::pair<int, std::string> run(std::vector<std::string> arguments) {
        auto app = pavix(std::move(arguments));
        auto status = app->wait(seconds(60));
        return {status.value_or(-1), app->output()};
    }
    fs::path library() const { return home / "Videos" / "Pavix"; }
    // Has the agent start a recording under a capture id the service issued; returns the
    // reply's envelope and the id.
    std::pair<json, std::string> startRecording() {
        auto id = service.agent({"capture-id"});
        id.erase(id.find_last_not_of("\n ") + 1);
        json start = json::array({{{"captureId", id}}});
        return {
            envelope(service.agent({"send", "startRecording", start.dump(), "--timeout", "30"})),
            id};
    }
    // The home trash of this session (scripts/with-desktop gives it a data folder of its own).
    static fs::path trashFolder() {
        const char* data = std::getenv("XDG_DATA_HOME");
        return fs::path(data ? data : "") / "Trash";
    }
    // Pairs with the service's code from the command line and has the agent select the demo
    // window, so that later launches resume with it.
    void pairAndSelectTheWindow() {
        auto app = pavix({"--code", service.code(), "--pair"});
        ASSERT_TRUE(app->waitForLine("pavix: connected true", seconds(30))) << app->output();
        auto listed = envelope(service.agent({"send", "listSources", "--timeout", "20"}));
        for (const auto& source : listed["value"]["sources"]) {
            if (source["title"].get<std::string>().find("Recorded end to end") !=
                std::string::npos) {
                json select = json::array({{{"sourceId", source["id"]}}});
                service.agent({"send", "selectSource", select.dump()});
            }
        }
        app->signal(SIGTERM);
        ASSERT_EQ(app->wait(seconds(20)), 0) << app->output();
    }
    bool published(const std::string& id) {
        return service.agent({"recordings"}).find(id + "  published") != std::string::npos;
    }

    DevServerProcess service;
    fs::path home;
    std::vector<std::shared_ptr<ChildProcess>> launched;
    ChildProcess window{
        {PAVIX_DEMO_WINDOW_BINARY, "--title", "Recorded end to end", "--size", "640x400"}};
};

TEST_F(RecordingEndToEnd, TheAgentsRecordingIsPublishedByteIdenticalToTheLocalVideo) {
    auto app = pavix({"--code", service.code(), "--pair", "--approve"});
    ASSERT_TRUE(app->waitForLine("pavix: connected true", seconds(30))) << app->output();

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

    auto [started, captureId] = startRecording();
    ASSERT_TRUE(started.contains("value")) << started.dump() << app->output();
    EXPECT_EQ(started["value"]["captureId"], captureId);

    // The length of the recording, not a wait for an event.
    std::this_thread::sleep_for(seconds(2));
    auto stopped = envelope(service.agent({"send", "stopRecording", "--timeout", "60"}));
    ASSERT_TRUE(stopped.contains("value")) << stopped.dump() << app->output();
    EXPECT_EQ(stopped["value"]["captureId"], captureId);
    EXPECT_EQ(stopped["value"]["body"], "desktop_upload");

    ASSERT_TRUE(eventually([&] { return published(captureId); }, std::chrono::seconds(60)))
        << service.agent({"recordings", "--all"}) << app->output();
    ASSERT_TRUE(app->waitForLine("status: Uploaded. Ask your agent to render it", seconds(10)))
        << app->output();

    auto local = library() / ("Pavix-" + Uuid::upper(captureId) + ".mp4");
    ASSERT_TRUE(fs::exists(local)) << app->output();
    auto downloaded = home / "downloaded.mp4";
    service.agent({"download", captureId, downloaded.string()});
    EXPECT_EQ(readBytes(downloaded), readBytes(local));  // the service verified the digest too
    FfmpegMediaReader reader;
    auto duration = reader.duration(downloaded.string());
    ASSERT_TRUE(duration);
    EXPECT_GT(*duration, 1.0);
    EXPECT_LT(*duration, 30.0);

    auto sideCar = json::parse(readBytes(library() / (Uuid::upper(captureId) + ".json")));
    EXPECT_EQ(sideCar["stage"], "uploaded");
    // A window is recorded with room for its pop-ups around it.
    EXPECT_GE(sideCar["width"].get<int>(), 640);
    EXPECT_GE(sideCar["height"].get<int>(), 400);
    EXPECT_GT(sideCar["durationMs"].get<int>(), 1000);

    app->signal(SIGTERM);
    EXPECT_EQ(app->wait(seconds(20)), 0) << app->output();
}

// With control allowed, the agent's recording may ask for a standard size: the window takes it
// for the recording, the reply says so, and the window gets its own size back at the end.
TEST_F(RecordingEndToEnd, TheWindowTakesTheAgentsSizeForTheRecordingAndGetsItsOwnBack) {
    fs::create_directories(home / "config" / "pavix");
    std::ofstream(home / "config" / "pavix" / "pavix.conf") << "[General]\nallowControl=true\n";
    auto app = pavix({"--code", service.code(), "--pair", "--approve"});
    ASSERT_TRUE(app->waitForLine("pavix: connected true", seconds(30))) << app->output();
    // The window's own content, which is what a recording shows and what the size is of.
    auto frame = [] {
        for (const auto& window : X11ShareableContent().current().windows) {
            if (window.title == "Recorded end to end") {
                return std::optional(std::pair(window.width, window.height));
            }
        }
        return std::optional<std::pair<double, double>>();
    };
    const auto before = frame();
    ASSERT_TRUE(before);
    auto listed = envelope(service.agent({"send", "listSources", "--timeout", "20"}));
    for (const auto& source : listed["value"]["sources"]) {
        if (source["title"].get<std::string>().find("Recorded end to end") != std::string::npos) {
            service.agent(
                {"send", "selectSource", json::array({{{"sourceId", source["id"]}}}).dump()});
        }
    }
    auto id = service.agent({"capture-id"});
    id.erase(id.find_last_not_of("\n ") + 1);
    json start = json::array({{{"captureId", id}, {"windowSize", "1280x720"}}});
    auto started =
        envelope(service.agent({"send", "startRecording", start.dump(), "--timeout", "30"}));
    ASSERT_TRUE(started.contains("value")) << started.dump() << app->output();
    EXPECT_EQ(
        started["meta"]["desktopWindow"],
        json({{"requested", "1280x720"}, {"width", 1280}, {"height", 720}, {"resized", true}}))
        << started.dump();
    auto during = frame();
    ASSERT_TRUE(during);
    EXPECT_NEAR(during->first, 1280, 2);
    EXPECT_NEAR(during->second, 720, 2);

    auto stopped = envelope(service.agent({"send", "stopRecording", "--timeout", "60"}));
    ASSERT_TRUE(stopped.contains("value")) << stopped.dump() << app->output();
    ASSERT_TRUE(eventually(
        [&] {
            auto after = frame();
            return after && std::abs(after->first - before->first) <= 2 &&
                   std::abs(after->second - before->second) <= 2;
        },
        seconds(10)))
        << app->output();
    auto sideCar = json::parse(readBytes(library() / (Uuid::upper(id) + ".json")));
    EXPECT_GE(sideCar["width"].get<int>(), 1280);  // the recording is of the sized window
    EXPECT_GE(sideCar["height"].get<int>(), 720);

    app->signal(SIGTERM);
    EXPECT_EQ(app->wait(seconds(20)), 0) << app->output();
}

TEST_F(RecordingEndToEnd, TheUsersOwnRecordingAndTheLibraryCommands) {
    ASSERT_NO_FATAL_FAILURE(pairAndSelectTheWindow());
    // Without a pairing nothing is recorded.
    auto [unpaired, refusal] = [&] {
        auto app = std::make_unique<ChildProcess>(
            std::vector<std::string>{PAVIX_BINARY, "--server", "http://127.0.0.1:9", "--record"},
            std::map<std::string, std::string>{{"XDG_CONFIG_HOME", (home / "config").string()},
                                               {"XDG_STATE_HOME", (home / "state").string()}});
        auto status = app->wait(seconds(30));
        return std::make_pair(status.value_or(-1), app->output());
    }();
    EXPECT_EQ(unpaired, 1);
    EXPECT_NE(refusal.find("pavix: Pair this computer with your agent first."), std::string::npos)
        << refusal;

    // The user records the window chosen last time, stops with Ctrl-C, and it is uploaded.
    auto recorder = pavix({"--record"});
    ASSERT_TRUE(recorder->waitForLine("pavix: recording ", seconds(30))) << recorder->output();
    EXPECT_NE(recorder->output().find("Recorded end to end"), std::string::npos);
    std::this_thread::sleep_for(seconds(2));  // the length of the recording
    recorder->signal(SIGINT);
    ASSERT_EQ(recorder->wait(seconds(60)), 0) << recorder->output();
    EXPECT_NE(recorder->output().find("pavix: Uploaded. Ask your agent to render it"),
              std::string::npos)
        << recorder->output();

    auto [listedStatus, listing] = run({"--library"});
    ASSERT_EQ(listedStatus, 0) << listing;
    // The log goes to standard error, the listing to standard output: find the listing's line.
    std::smatch row;
    ASSERT_TRUE(std::regex_search(listing, row, std::regex("([0-9a-f-]{36})  uploaded  ")))
        << listing;
    auto id = row[1].str();
    EXPECT_TRUE(published(id)) << service.agent({"recordings", "--all"});
    auto video = library() / ("Pavix-" + Uuid::upper(id) + ".mp4");
    EXPECT_EQ(readBytes(video).size(), fs::file_size(video));

    auto [supportStatus, support] = run({"--support"});
    ASSERT_EQ(supportStatus, 0);
    auto bundle = envelope(support);
    EXPECT_EQ(bundle["captures"][0]["id"], id);
    EXPECT_EQ(bundle["server"], "127.0.0.1");
    EXPECT_EQ(support.find(library().string()), std::string::npos);

    // An uploaded copy is not sent again; an unknown id is refused.
    EXPECT_EQ(run({"--retry", id}).first, 1);
    EXPECT_EQ(run({"--delete", "00000000-0000-0000-0000-000000000000"}).first, 1);

    // Deleting moves the copy to the Trash; the service keeps its copy.
    auto [deleted, said] = run({"--delete", id});
    EXPECT_EQ(deleted, 0) << said;
    EXPECT_NE(said.find("Local copy moved to Trash. Cloud recordings are unchanged."),
              std::string::npos)
        << said;
    EXPECT_FALSE(fs::exists(video));
    EXPECT_FALSE(fs::exists(library() / (Uuid::upper(id) + ".json")));
    EXPECT_TRUE(published(id));
    // The freedesktop Trash of this session's data folder holds it, as it was.
    auto trashed = trashFolder() / "files" / video.filename();
    ASSERT_TRUE(fs::exists(trashed));
    EXPECT_GT(fs::file_size(trashed), 0u);
}

TEST_F(RecordingEndToEnd, AnUploadCutByTheServiceStaysSavedAndTheRetryPublishesIt) {
    auto app = pavix({"--code", service.code(), "--pair", "--approve"});
    ASSERT_TRUE(app->waitForLine("pavix: connected true", seconds(30))) << app->output();
    // The service drops the connection of the next chunk without an answer. Twice: libcurl
    // sends a request again by itself, once, when a kept-alive connection dies before any answer.
    auto armed =
        service.agent({"fault", "add", "path=/local-browser/desktop-upload/*/chunk,drop,count=2"});
    ASSERT_NE(armed.find("armed"), std::string::npos) << armed;

    auto [started, captureId] = startRecording();
    ASSERT_TRUE(started.contains("value")) << started.dump() << app->output();
    std::this_thread::sleep_for(seconds(2));  // the length of the recording
    ASSERT_TRUE(
        envelope(service.agent({"send", "stopRecording", "--timeout", "60"})).contains("value"))
        << app->output();
    ASSERT_TRUE(app->waitForLine(
        "status: Upload did not finish. Local video saved; use Retry upload. ", seconds(30)))
        << app->output();
    auto sideCar = library() / (Uuid::upper(captureId) + ".json");
    EXPECT_EQ(json::parse(readBytes(sideCar))["stage"], "saved");
    EXPECT_FALSE(published(captureId));
    app->signal(SIGTERM);
    ASSERT_EQ(app->wait(seconds(20)), 0) << app->output();

    // The user retries from the same file under the same pairing.
    service.agent({"fault", "clear"});
    auto [status, said] = run({"--retry", captureId});
    ASSERT_EQ(status, 0) << said;
    EXPECT_NE(said.find("pavix: Capture recovered. Ask your agent to render and export."),
              std::string::npos)
        << said;
    EXPECT_TRUE(published(captureId));
    EXPECT_EQ(json::parse(readBytes(sideCar))["stage"], "uploaded");
    auto downloaded = home / "retried.mp4";
    service.agent({"download", captureId, downloaded.string()});
    EXPECT_EQ(readBytes(downloaded),
              readBytes(library() / ("Pavix-" + Uuid::upper(captureId) + ".mp4")));
}

TEST_F(RecordingEndToEnd, AKilledRecordingIsInterruptedAtTheNextLaunchAndStillPlays) {
    auto app = pavix({"--code", service.code(), "--pair", "--approve"});
    ASSERT_TRUE(app->waitForLine("pavix: connected true", seconds(30))) << app->output();
    auto [started, captureId] = startRecording();
    ASSERT_TRUE(started.contains("value")) << started.dump() << app->output();
    std::this_thread::sleep_for(seconds(3));  // the length of the recording
    app->signal(SIGKILL);
    app->wait(seconds(10));

    // Nothing was finished: the side-car still says recording until the next launch.
    auto sideCar = library() / (Uuid::upper(captureId) + ".json");
    EXPECT_EQ(json::parse(readBytes(sideCar))["stage"], "recording");
    auto [status, listing] = run({"--library"});
    ASSERT_EQ(status, 0) << listing;
    EXPECT_NE(listing.find(captureId + "  interrupted"), std::string::npos) << listing;
    EXPECT_EQ(json::parse(readBytes(sideCar))["stage"], "interrupted");

    // The fragmented file plays up to its last fragment.
    FfmpegMediaReader reader;
    auto duration =
        reader.duration((library() / ("Pavix-" + Uuid::upper(captureId) + ".mp4")).string());
    ASSERT_TRUE(duration);
    EXPECT_GT(*duration, 0.5);
}

TEST_F(RecordingEndToEnd, UploadedCopiesPastRetentionGoToTheTrashAtLaunch) {
    // Two uploaded recordings a previous run left: one 31 days old, one 29.
    auto now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count() -
        LocalCapture::kReferenceDateOffset;
    CaptureJournal journal(library());
    auto old = addRecord(journal, LocalCapture::Stage::uploaded, service.server(), "old video",
                         now - 31 * 86'400.0);
    auto recent = addRecord(journal, LocalCapture::Stage::uploaded, service.server(),
                            "recent video", now - 29 * 86'400.0);

    auto [status, listing] = run({"--library"});
    ASSERT_EQ(status, 0) << listing;
    EXPECT_EQ(listing.find(Uuid::lower(old.id)), std::string::npos) << listing;
    EXPECT_NE(listing.find(Uuid::lower(recent.id)), std::string::npos) << listing;
    EXPECT_FALSE(fs::exists(journal.file(old.id)));
    EXPECT_FALSE(fs::exists(journal.manifest(old.id)));
    EXPECT_EQ(readBytes(trashFolder() / "files" / old.fileName()), "old video");
    EXPECT_TRUE(fs::exists(journal.file(recent.id)));
}

// What ends a recording of the application with its window, played by the desktop's services.
enum class Ending { sigterm, trayQuit, trayStop, sleep, screenLock };

void PrintTo(Ending ending, std::ostream* out) {
    const char* names[] = {"Sigterm", "TrayQuit", "TrayStop", "Sleep", "ScreenLock"};
    *out << names[static_cast<int>(ending)];
}

class ApplicationEnding : public RecordingEndToEnd, public testing::WithParamInterface<Ending> {};

// The application with its window resumes the saved pairing by itself and records for the
// agent under the approval given at launch. Whatever ends the recording (quitting from the
// tray or by SIGTERM, the tray's Stop recording, sleep, a screen lock), the session ends with
// its sentence and the video is finished, kept in the library and playable.
TEST_P(ApplicationEnding, EndsTheSessionAndKeepsAPlayableVideo) {
    const auto ending = GetParam();
    std::unique_ptr<PrivateBus> system;
    std::unique_ptr<MockService> logind, screenSaver;
    std::unique_ptr<TrayHost> tray;
    std::map<std::string, std::string> environment;
    if (ending == Ending::sleep) {
        system = std::make_unique<PrivateBus>();
        logind = std::make_unique<MockService>(system->bus(), "org.freedesktop.login1",
                                               std::vector<std::string>{"--template", "logind"});
        environment["DBUS_SYSTEM_BUS_ADDRESS"] = system->address();
    } else if (ending == Ending::screenLock) {
        screenSaver = std::make_unique<MockService>(
            Bus{}, "org.gnome.ScreenSaver",
            std::vector<std::string>{"--template", "gnome_screensaver"});
    } else if (ending == Ending::trayQuit || ending == Ending::trayStop) {
        tray = std::make_unique<TrayHost>();
    }
    ASSERT_NO_FATAL_FAILURE(pairAndSelectTheWindow());
    auto app = pavix({"--approve"}, environment);
    ASSERT_TRUE(eventually(
        [&] {
            return envelope(service.agent({"send", "listSources", "--timeout", "2"}))
                .contains("value");
        },
        seconds(60)))
        << app->output();
    if (tray) {
        ASSERT_TRUE(eventually([&] { return tray->item().has_value(); }, seconds(20)))
            << app->output();
    }
    auto [started, captureId] = startRecording();
    ASSERT_TRUE(started.contains("value")) << started.dump() << app->output();
    std::this_thread::sleep_for(seconds(2));  // the length of the recording

    std::string sentence = "status: Disconnected. Local videos remain on this computer.";
    switch (ending) {
        case Ending::sigterm:
            app->signal(SIGTERM);
            break;
        case Ending::trayQuit:
            tray->click("Quit Pavix");
            break;
        case Ending::trayStop:
            tray->click("Stop recording");
            break;
        case Ending::sleep:
            logind->call("/org/freedesktop/login1", "org.freedesktop.DBus.Mock.EmitSignal",
                         {"org.freedesktop.login1.Manager", "PrepareForSleep", "b", "[<true>]"});
            sentence = "status: Computer went to sleep, locked or switched user.";
            break;
        case Ending::screenLock:
            screenSaver->call("/org/gnome/ScreenSaver", "org.freedesktop.DBus.Mock.EmitSignal",
                              {"org.gnome.ScreenSaver", "ActiveChanged", "b", "[<true>]"});
            sentence = "status: Computer went to sleep, locked or switched user.";
            break;
    }
    ASSERT_TRUE(app->waitForLine(sentence, seconds(30))) << app->output();
    const auto sideCar = library() / (Uuid::upper(captureId) + ".json");
    auto stage = [&] {
        return fs::exists(sideCar) ? json::parse(readBytes(sideCar)).value("stage", "") : "";
    };
    if (ending != Ending::sigterm && ending != Ending::trayQuit) {
        // The video is kept, and the application stays until it is asked to quit.
        ASSERT_TRUE(eventually([&] { return stage() == "saved"; }, seconds(30))) << stage();
        EXPECT_FALSE(app->wait(std::chrono::milliseconds(0))) << app->output();
        app->signal(SIGTERM);
    }
    ASSERT_EQ(app->wait(seconds(30)), 0) << app->output();
    EXPECT_EQ(stage(), "saved");
    FfmpegMediaReader reader;
    auto duration =
        reader.duration((library() / ("Pavix-" + Uuid::upper(captureId) + ".mp4")).string());
    ASSERT_TRUE(duration);
    EXPECT_GT(*duration, 1.0);
}

INSTANTIATE_TEST_SUITE_P(, ApplicationEnding,
                         testing::Values(Ending::sigterm, Ending::trayQuit, Ending::trayStop,
                                         Ending::sleep, Ending::screenLock),
                         testing::PrintToStringParamName());

// The running application's actions on the session bus, as a script calls them.
std::string actions(const std::string& method, const std::vector<std::string>& arguments = {}) {
    return gdbusCall(Bus{}, "app.pavix.Pavix", "/app/pavix/Pavix", "app.pavix.Pavix." + method,
                     arguments);
}

// The error a call of the actions is answered with; empty when it succeeded.
std::string refusal(const std::string& method, const std::vector<std::string>& arguments = {}) {
    try {
        actions(method, arguments);
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

// Whether the running application's status holds `text`; false while none answers.
bool statusShows(const std::string& text) {
    try {
        return actions("Status").find(text) != std::string::npos;
    } catch (const std::exception&) {
        return false;
    }
}

// Whether `pid` shows its main window "Pavix" (the floating bar has that title too, but is
// far smaller).
bool showsItsWindow(pid_t pid) {
    for (const auto& window : X11ShareableContent().current().windows) {
        if (window.pid == pid && window.title == "Pavix" && window.onScreen &&
            window.height > 200) {
            return true;
        }
    }
    return false;
}

// One Pavix per session: a later launch, plain or with a setup link from the browser, is taken
// by the running one and ends with 0. Scripts approve, record, stop and read the status over
// D-Bus; what the rules refuse, or what is not a call of the interface, is a D-Bus error, and
// the application goes on.
TEST_F(RecordingEndToEnd, LaterLaunchesAndScriptsReachTheRunningApplication) {
    auto app = pavix({});
    ASSERT_TRUE(eventually([] { return refusal("Status").empty(); }, seconds(30))) << app->output();
    EXPECT_NE(actions("Status").find("'paired': <false>"), std::string::npos);
    EXPECT_NE(refusal("Record").find("Pair this computer with your agent first."),
              std::string::npos);
    EXPECT_NE(refusal("Stop").find("Nothing is recording."), std::string::npos);
    EXPECT_NE(refusal("StopSharing").find("Not sharing with the agent."), std::string::npos);
    // A scripted run that would be a second model beside it is refused.
    auto [refused, said] = run({"--record"});
    EXPECT_EQ(refused, 1);
    EXPECT_NE(said.find("Pavix is already running on this desktop."), std::string::npos) << said;
    EXPECT_NE(refusal("OpenLink", {"https://a.example/pair"}).find("Not a Pavix setup link"),
              std::string::npos);
    EXPECT_NE(refusal("Explode"), "");
    EXPECT_NE(refusal("Approve", {"'extra'"}), "");
    EXPECT_FALSE(app->wait(std::chrono::milliseconds(0))) << app->output();

    // A plain launch brings the window forward (the application starts in the bar alone).
    EXPECT_FALSE(showsItsWindow(app->pid()));
    auto second = launch({});
    ASSERT_EQ(second->wait(seconds(20)), 0) << second->output();
    EXPECT_TRUE(eventually([&] { return showsItsWindow(app->pid()); }, seconds(10)));

    // The browser opens a setup link: the running application pairs with its code.
    auto issued = service.agent({"pair-code"});
    auto at = issued.find("link ");
    ASSERT_NE(at, std::string::npos) << issued;
    auto link = issued.substr(at + 5, issued.find('\n', at) - at - 5);
    auto browser = launch({link});
    ASSERT_EQ(browser->wait(seconds(20)), 0) << browser->output();
    ASSERT_TRUE(eventually(
        [] { return actions("Status").find("'connected': <true>") != std::string::npos; },
        seconds(30)))
        << actions("Status") << app->output();

    // The agent records under the approval given from a script; a script stops it.
    auto listed = envelope(service.agent({"send", "listSources", "--timeout", "20"}));
    for (const auto& source : listed["value"]["sources"]) {
        if (source["title"].get<std::string>().find("Recorded end to end") != std::string::npos) {
            service.agent(
                {"send", "selectSource", json::array({{{"sourceId", source["id"]}}}).dump()});
        }
    }
    actions("Approve");
    EXPECT_NE(actions("Status").find("'consent': <true>"), std::string::npos);
    auto [started, agentCapture] = startRecording();
    ASSERT_TRUE(started.contains("value")) << started.dump() << app->output();
    EXPECT_NE(refusal("Record").find("Stop sharing with the agent"), std::string::npos);
    std::this_thread::sleep_for(seconds(1));  // the length of the recording
    actions("Stop");
    ASSERT_TRUE(eventually(
        [] { return actions("Status").find("'connected': <false>") != std::string::npos; },
        seconds(30)));

    // With the agent gone and its video kept, a script records the window itself, stops, and
    // the video is uploaded.
    ASSERT_TRUE(eventually(
        [] { return actions("Status").find("'canRecord': <true>") != std::string::npos; },
        seconds(30)))
        << actions("Status");
    actions("Record");
    ASSERT_TRUE(eventually(
        [] { return actions("Status").find("'phase': <'recording'>") != std::string::npos; },
        seconds(30)))
        << actions("Status") << app->output();
    std::this_thread::sleep_for(seconds(1));
    actions("Stop");
    ASSERT_TRUE(eventually(
        [] { return actions("Status").find("'status': <'Uploaded.") != std::string::npos; },
        seconds(60)))
        << actions("Status") << app->output();
    std::size_t videos = 0;
    for (const auto& entry : fs::directory_iterator(library())) {
        videos += entry.path().extension() == ".mp4";
    }
    EXPECT_EQ(videos, 2u);
    EXPECT_TRUE(fs::exists(library() / ("Pavix-" + Uuid::upper(agentCapture) + ".mp4")));

    app->signal(SIGTERM);
    EXPECT_EQ(app->wait(seconds(30)), 0) << app->output();
}

// The service's version answers decide: a newer latest version is offered; a minimum above the
// running version blocks new recordings with its sentence, while the upload already under way
// goes on to be published.
TEST_F(RecordingEndToEnd, ARequiredUpdateBlocksNewRecordingsWhileTheUploadGoesOn) {
    ASSERT_NO_FATAL_FAILURE(pairAndSelectTheWindow());
    service.agent({"settings", "latestAppVersion=9.0"});
    auto app = pavix({});
    ASSERT_TRUE(eventually([] { return statusShows("'updateVersion': <'9.0'>"); }, seconds(30)))
        << app->output();
    EXPECT_NE(actions("Status").find("'updateRequired': <false>"), std::string::npos);

    // The user ends the agent's session, records the window and stops while the service
    // raises its minimum. The first piece of the upload is held long enough to look.
    ASSERT_TRUE(eventually([] { return statusShows("'connected': <true>"); }, seconds(30)))
        << actions("Status") << app->output();
    actions("StopSharing");
    ASSERT_TRUE(eventually([] { return statusShows("'canRecord': <true>"); }, seconds(30)))
        << actions("Status");
    service.agent(
        {"fault", "add", "path=/local-browser/desktop-upload/*/chunk,stall=4000,count=1"});
    actions("Record");
    ASSERT_TRUE(eventually([] { return statusShows("'phase': <'recording'>"); }, seconds(30)))
        << actions("Status") << app->output();
    std::this_thread::sleep_for(seconds(1));  // the length of the recording
    service.agent({"settings", "minimumAppVersion=9.0"});
    actions("Stop");
    ASSERT_TRUE(eventually(
        [] {
            auto status = actions("Status");
            return status.find("'updateRequired': <true>") != std::string::npos &&
                   status.find("'uploading': <true>") != std::string::npos;
        },
        seconds(30)))
        << actions("Status") << app->output();

    ASSERT_TRUE(eventually([] { return statusShows("'status': <'Uploaded."); }, seconds(60)))
        << actions("Status") << app->output();
    EXPECT_NE(service.agent({"recordings"}).find("published"), std::string::npos);
    EXPECT_NE(actions("Status").find("'canRecord': <false>"), std::string::npos);
    EXPECT_NE(refusal("Record").find("Update Pavix to keep recording."), std::string::npos);

    app->signal(SIGTERM);
    EXPECT_EQ(app->wait(seconds(30)), 0) << app->output();
}

}  // namespace
}  // namespace pavix::test
