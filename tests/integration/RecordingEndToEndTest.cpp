// The pavix executable with the development service, from a window to a published video.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cmath>
#include <fstream>
#include <regex>
#include <thread>

#include "IntegrationSupport.h"
#include "core/runtime/Uuid.h"
#include "linux/FfmpegMediaReader.h"
#include "support/DesktopBusMocks.h"
#include "support/LibraryRecords.h"

namespace pavix::test {
namespace {

using nlohmann::json;
using std::chrono::seconds;
using ::testing::HasSubstr;
namespace fs = std::filesystem;

// A development service, a window with moving content and a home of the test's own.
class RecordingEndToEnd : public ::testing::Test {
  protected:
    RecordingEndToEnd() {
        fs::create_directories(home / "config" / "pavix");
        // The library is the videos folder of the user's own folders + "/Pavix".
        std::ofstream(home / "config" / "user-dirs.dirs")
            << "XDG_VIDEOS_DIR=\"" << (home / "Videos").string() << "\"\n";
        announcedWindow(window, seconds(10));
    }
    // pavix as the desktop starts it, with everything it can log turned on.
    std::shared_ptr<ChildProcess> launch(std::vector<std::string> arguments,
                                         std::map<std::string, std::string> environment = {}) {
        arguments.insert(arguments.begin(), PAVIX_BINARY);
        environment.merge(pavixEnvironment(home.path()));
        return launched.emplace_back(std::make_shared<ChildProcess>(arguments, environment));
    }
    std::shared_ptr<ChildProcess> pavix(std::vector<std::string> arguments,
                                        std::map<std::string, std::string> environment = {}) {
        arguments.insert(arguments.begin(), {"--server", service.server()});
        return launch(std::move(arguments), std::move(environment));
    }
    std::shared_ptr<ChildProcess> paired() {
        auto app = pavix({"--code", service.code(), "--pair", "--approve"});
        if (!app->waitForLine("pavix: connected true", seconds(30))) {
            throw std::runtime_error("not paired:\n" + app->output());
        }
        return app;
    }
    // No pavix line (support bundle included) holds a token, a code, or a file fallback.
    void TearDown() override {
        for (const auto& app : launched) {
            for (const auto& line : app->lines()) {
                for (const auto& secret :
                     {std::string("pvx_at_"), std::string("pvx_rt_"), service.code(),
                      std::string("Bearer"), std::string("no Secret Service")}) {
                    EXPECT_THAT(line, ::testing::Not(HasSubstr(secret)));
                }
            }
        }
    }
    // Runs a one-shot pavix command to its end.
    std::pair<int, std::string> run(std::vector<std::string> arguments) {
        auto app = pavix(std::move(arguments));
        return {app->wait(seconds(60)).value_or(-1), app->output()};
    }
    static void quit(ChildProcess& app) {
        app.signal(SIGTERM);
        EXPECT_EQ(app.wait(seconds(30)), 0) << app.output();
    }
    fs::path library() const { return home / "Videos" / "Pavix"; }
    fs::path video(const std::string& id) const {
        return library() / ("Pavix-" + Uuid::upper(id) + ".mp4");
    }
    fs::path sideCar(const std::string& id) const {
        return library() / (Uuid::upper(id) + ".json");
    }
    std::string stage(const std::string& id) const {
        return fs::exists(sideCar(id)) ? json::parse(readBytes(sideCar(id))).value("stage", "")
                                       : "";
    }
    static double duration(const fs::path& file) {
        return FfmpegMediaReader().duration(file.string()).value_or(0);
    }
    // The home trash of this session (scripts/with-desktop gives it a data folder of its own).
    static fs::path trashFolder() {
        const char* data = std::getenv("XDG_DATA_HOME");
        return fs::path(data ? data : "") / "Trash";
    }
    // Pairs, checks the agent is served, selects the demo window for later launches.
    void pairAndSelectTheWindow() {
        auto app = paired();
        for (const auto& line : {"pavix: screen recording true accessibility ",
                                 " control setting false", "pavix: sources "}) {
            EXPECT_THAT(app->output(), HasSubstr(line));
        }
        auto listed = ask(service, "listSources");
        EXPECT_EQ(listed["meta"]["recordingMode"], "screencast");
        EXPECT_THAT(listed.dump(), HasSubstr(R"("kind":"display")"));
        EXPECT_THAT(service.agent({"send", "makeCoffee", "--timeout", "20"}),
                    HasSubstr("local_browser_action_failed"));
        ASSERT_FALSE(selectSource(service, "Recorded end to end").empty());
        app->signal(SIGTERM);
        ASSERT_EQ(app->wait(seconds(20)), 0) << app->output();
        EXPECT_TRUE(app->waitForLine("disconnect acknowledged by server", seconds(1)));
    }
    bool published(const std::string& id) {
        return service.agent({"recordings"}).find(id + "  published") != std::string::npos;
    }
    ScratchFolder home{"e2e-home"};
    DevServerProcess service;
    std::vector<std::shared_ptr<ChildProcess>> launched;
    ChildProcess window{
        {PAVIX_DEMO_WINDOW_BINARY, "--title", "Recorded end to end", "--size", "640x400"}};
};

class PavixSession : public RecordingEndToEnd {};

TEST_F(PavixSession, CredentialsAreKeptPerServerAndBadInputIsRefusedClearly) {
    quit(*paired());
    DevServerProcess second;
    struct Case {
        std::vector<std::string> arguments;
        int status;
        std::vector<std::string> said;
    };
    for (const auto& c : std::vector<Case>{
             // The other server has no credential of ours, and without a code pairing is refused.
             Case({"--server", second.server(), "--pair"}, 1,
                  {"pavix: connected false", "pairing code is invalid"}),
             Case({"--server", "http://example.com", "--code", "X", "--pair"}, 1,
                  {"Use an HTTPS server, or localhost for development."}),
             Case({"--server"}, 64, {"--server needs a value."}),
             // Without a pairing nothing is recorded.
             Case({"--server", "http://127.0.0.1:9", "--record"}, 1,
                  {"pavix: Pair this computer with your agent first."}),
         }) {
        SCOPED_TRACE(c.said.front());
        auto app = launch(c.arguments);
        EXPECT_EQ(app->wait(seconds(30)), c.status) << app->output();
        for (const auto& line : c.said) {
            EXPECT_TRUE(app->waitForLine(line, seconds(1))) << app->output();
        }
    }
}

// The agent records at a preset size and gets the same bytes as the library; size comes back.
TEST_F(RecordingEndToEnd, TheAgentsRecordingIsPublishedByteIdenticalToTheLocalVideo) {
    std::ofstream(home / "config" / "pavix" / "pavix.conf") << "[General]\nallowControl=true\n";
    auto app = paired();
    // The window's own content, which is what a recording shows and what the size is of.
    auto size = [&] {
        auto shown = shownWindow(window.pid(), "Recorded end to end");
        return shown ? std::pair(shown->width, shown->height) : std::pair(0.0, 0.0);
    };
    const auto before = size();
    ASSERT_GT(before.first, 0);
    ASSERT_FALSE(selectSource(service, "Recorded end to end").empty());
    auto [started, captureId] = startRecording(service, {{"windowSize", "1280x720"}});
    ASSERT_TRUE(started.contains("value")) << started.dump() << app->output();
    EXPECT_EQ(started["value"]["captureId"], captureId);
    EXPECT_EQ(
        started["meta"]["desktopWindow"],
        json({{"requested", "1280x720"}, {"width", 1280}, {"height", 720}, {"resized", true}}));
    EXPECT_NEAR(size().first, 1280, 2);
    EXPECT_NEAR(size().second, 720, 2);
    std::this_thread::sleep_for(seconds(2));  // the length of the recording
    auto stopped = ask(service, "stopRecording", nullptr, 60);
    ASSERT_TRUE(stopped.contains("value")) << stopped.dump() << app->output();
    EXPECT_EQ(stopped["value"]["captureId"], captureId);
    EXPECT_EQ(stopped["value"]["body"], "desktop_upload");
    ASSERT_TRUE(eventually(
        [&] {
            auto after = size();
            return std::abs(after.first - before.first) <= 2 &&
                   std::abs(after.second - before.second) <= 2;
        },
        seconds(10)));
    ASSERT_TRUE(eventually([&] { return published(captureId); }, seconds(60)))
        << service.agent({"recordings", "--all"}) << app->output();
    ASSERT_TRUE(app->waitForLine("status: Uploaded. Ask your agent to render it", seconds(10)));
    ASSERT_TRUE(fs::exists(video(captureId))) << app->output();
    auto downloaded = home / "downloaded.mp4";
    service.agent({"download", captureId, downloaded.string()});
    EXPECT_EQ(readBytes(downloaded), readBytes(video(captureId)));
    EXPECT_GT(duration(downloaded), 1.0);
    EXPECT_LT(duration(downloaded), 30.0);
    auto side = json::parse(readBytes(sideCar(captureId)));
    EXPECT_EQ(side["stage"], "uploaded");
    EXPECT_GE(side["width"].get<int>(), 1280);  // the sized window, with room for its pop-ups
    EXPECT_GE(side["height"].get<int>(), 720);
    EXPECT_GT(side["durationMs"].get<int>(), 1000);
    quit(*app);
}

TEST_F(RecordingEndToEnd, TheUsersOwnRecordingAndTheLibraryCommands) {
    ASSERT_NO_FATAL_FAILURE(pairAndSelectTheWindow());
    // The user records the window chosen last time, stops with Ctrl-C, and it is uploaded.
    auto recorder = pavix({"--record"});
    ASSERT_TRUE(recorder->waitForLine("pavix: recording ", seconds(30))) << recorder->output();
    EXPECT_THAT(recorder->output(), HasSubstr("Recorded end to end"));
    std::this_thread::sleep_for(seconds(2));  // the length of the recording
    recorder->signal(SIGINT);
    ASSERT_EQ(recorder->wait(seconds(60)), 0) << recorder->output();
    EXPECT_TRUE(recorder->waitForLine("pavix: Uploaded. Ask your agent to render it", seconds(1)));
    auto [listedStatus, listing] = run({"--library"});
    ASSERT_EQ(listedStatus, 0) << listing;
    std::smatch row;
    ASSERT_TRUE(std::regex_search(listing, row, std::regex("([0-9a-f-]{36})  uploaded  ")))
        << listing;
    const auto id = row[1].str();
    EXPECT_TRUE(published(id)) << service.agent({"recordings", "--all"});
    EXPECT_GT(fs::file_size(video(id)), 0u);
    auto [supportStatus, support] = run({"--support"});
    ASSERT_EQ(supportStatus, 0);
    auto bundle = DevServerProcess::envelope(support);
    EXPECT_EQ(bundle["captures"][0]["id"], id);
    EXPECT_EQ(bundle["server"], "127.0.0.1");
    EXPECT_THAT(support, ::testing::Not(HasSubstr(library().string())));
    // An uploaded copy is not sent again; an unknown id is refused.
    EXPECT_EQ(run({"--retry", id}).first, 1);
    EXPECT_EQ(run({"--delete", "00000000-0000-0000-0000-000000000000"}).first, 1);
    // Deleting moves the copy to the session's Trash as it was; the service keeps its copy.
    auto [deleted, said] = run({"--delete", id});
    EXPECT_EQ(deleted, 0) << said;
    EXPECT_THAT(said, HasSubstr("Local copy moved to Trash. Cloud recordings are unchanged."));
    EXPECT_FALSE(fs::exists(video(id)));
    EXPECT_FALSE(fs::exists(sideCar(id)));
    EXPECT_TRUE(published(id));
    auto trashed = trashFolder() / "files" / video(id).filename();
    ASSERT_TRUE(fs::exists(trashed));
    EXPECT_GT(fs::file_size(trashed), 0u);
}

TEST_F(RecordingEndToEnd, AnUploadCutByTheServiceStaysSavedAndTheRetryPublishesIt) {
    auto app = paired();
    // The next chunk is dropped twice: libcurl resends once on a dead kept-alive connection.
    auto armed =
        service.agent({"fault", "add", "path=/local-browser/desktop-upload/*/chunk,drop,count=2"});
    ASSERT_THAT(armed, HasSubstr("armed"));
    auto [started, captureId] = startRecording(service);
    ASSERT_TRUE(started.contains("value")) << started.dump() << app->output();
    std::this_thread::sleep_for(seconds(2));  // the length of the recording
    ASSERT_TRUE(ask(service, "stopRecording", nullptr, 60).contains("value")) << app->output();
    ASSERT_TRUE(app->waitForLine(
        "status: Upload did not finish. Local video saved; use Retry upload. ", seconds(30)))
        << app->output();
    EXPECT_EQ(stage(captureId), "saved");
    EXPECT_FALSE(published(captureId));
    quit(*app);
    // The user retries from the same file under the same pairing.
    service.agent({"fault", "clear"});
    auto [status, said] = run({"--retry", captureId});
    ASSERT_EQ(status, 0) << said;
    EXPECT_THAT(said, HasSubstr("pavix: Capture recovered. Ask your agent to render and export."));
    EXPECT_TRUE(published(captureId));
    EXPECT_EQ(stage(captureId), "uploaded");
    auto downloaded = home / "retried.mp4";
    service.agent({"download", captureId, downloaded.string()});
    EXPECT_EQ(readBytes(downloaded), readBytes(video(captureId)));
}

// A launch marks a killed recording interrupted (still playable) and trashes old uploads.
TEST_F(RecordingEndToEnd, AKilledRecordingIsInterruptedAtTheNextLaunchAndOldCopiesAreTrashed) {
    auto app = paired();
    auto [started, captureId] = startRecording(service);
    ASSERT_TRUE(started.contains("value")) << started.dump() << app->output();
    std::this_thread::sleep_for(seconds(3));  // the length of the recording
    app->signal(SIGKILL);
    app->wait(seconds(10));
    EXPECT_EQ(stage(captureId), "recording");  // until the next launch
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
    EXPECT_THAT(listing, HasSubstr(captureId + "  interrupted"));
    EXPECT_EQ(stage(captureId), "interrupted");
    EXPECT_GT(duration(video(captureId)), 0.5);
    EXPECT_THAT(listing, ::testing::Not(HasSubstr(Uuid::lower(old.id))));
    EXPECT_THAT(listing, HasSubstr(Uuid::lower(recent.id)));
    EXPECT_FALSE(fs::exists(journal.file(old.id)));
    EXPECT_FALSE(fs::exists(journal.manifest(old.id)));
    EXPECT_EQ(readBytes(trashFolder() / "files" / old.fileName()), "old video");
    EXPECT_TRUE(fs::exists(journal.file(recent.id)));
}

// What ends a recording of the application with its window, played by the desktop's services.
enum class Ending { sigterm, trayQuit, trayStop, sleep };

void PrintTo(Ending ending, std::ostream* out) {
    const char* names[] = {"Sigterm", "TrayQuit", "TrayStop", "Sleep"};
    *out << names[static_cast<int>(ending)];
}

class ApplicationEnding : public RecordingEndToEnd, public testing::WithParamInterface<Ending> {};

// Whatever ends the recording, the session ends with its sentence and the video is kept.
TEST_P(ApplicationEnding, EndsTheSessionAndKeepsAPlayableVideo) {
    const auto ending = GetParam();
    std::unique_ptr<PrivateBus> system;
    std::unique_ptr<MockService> logind;
    std::unique_ptr<TrayHost> tray;
    std::map<std::string, std::string> environment;
    if (ending == Ending::sleep) {
        system = std::make_unique<PrivateBus>();
        logind = std::make_unique<MockService>(system->bus(), "org.freedesktop.login1",
                                               std::vector<std::string>{"--template", "logind"});
        environment["DBUS_SYSTEM_BUS_ADDRESS"] = system->address();
    } else if (ending == Ending::trayQuit || ending == Ending::trayStop) {
        tray = std::make_unique<TrayHost>();
    }
    ASSERT_NO_FATAL_FAILURE(pairAndSelectTheWindow());
    auto app = pavix({"--approve"}, environment);
    ASSERT_TRUE(eventually(
        [&] { return ask(service, "listSources", nullptr, 2).contains("value"); }, seconds(60)))
        << app->output();
    if (tray) {
        ASSERT_TRUE(eventually([&] { return tray->item().has_value(); }, seconds(20)));
    }
    auto [started, captureId] = startRecording(service);
    ASSERT_TRUE(started.contains("value")) << started.dump() << app->output();
    std::this_thread::sleep_for(seconds(2));  // the length of the recording
    std::string sentence = "status: Computer went to sleep, locked or switched user.";
    switch (ending) {
        case Ending::sigterm:
            app->signal(SIGTERM);
            sentence = "status: Disconnected. Local videos remain on this computer.";
            break;
        case Ending::trayQuit:
        case Ending::trayStop:
            tray->click(ending == Ending::trayQuit ? "Quit Pavix" : "Stop recording");
            sentence = "status: Disconnected. Local videos remain on this computer.";
            break;
        case Ending::sleep:
            logind->call("/org/freedesktop/login1", "org.freedesktop.DBus.Mock.EmitSignal",
                         {"org.freedesktop.login1.Manager", "PrepareForSleep", "b", "[<true>]"});
            break;
    }
    ASSERT_TRUE(app->waitForLine(sentence, seconds(30))) << app->output();
    if (ending != Ending::sigterm && ending != Ending::trayQuit) {
        // The video is kept, and the application stays until it is asked to quit.
        ASSERT_TRUE(eventually([&] { return stage(captureId) == "saved"; }, seconds(30)));
        EXPECT_FALSE(app->wait(std::chrono::milliseconds(0))) << app->output();
        app->signal(SIGTERM);
    }
    ASSERT_EQ(app->wait(seconds(30)), 0) << app->output();
    EXPECT_EQ(stage(captureId), "saved");
    EXPECT_GT(duration(video(captureId)), 1.0);
}

INSTANTIATE_TEST_SUITE_P(, ApplicationEnding,
                         testing::Values(Ending::sigterm, Ending::trayQuit, Ending::trayStop,
                                         Ending::sleep),
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

// Whether the running application's status comes to hold `text` within `limit`.
testing::AssertionResult statusShows(const std::string& text, seconds limit = seconds(30)) {
    std::string status;
    if (eventually(
            [&] {
                try {
                    status = actions("Status");
                } catch (const std::exception& e) {
                    status = e.what();
                }
                return status.find(text) != std::string::npos;
            },
            limit)) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "no " << text << " in " << status;
}

// One Pavix per session: later launches and scripts over D-Bus reach the running one.
TEST_F(RecordingEndToEnd, LaterLaunchesAndScriptsReachTheRunningApplication) {
    auto app = pavix({});
    ASSERT_TRUE(statusShows("'paired': <false>")) << app->output();
    EXPECT_THAT(refusal("Record"), HasSubstr("Pair this computer with your agent first."));
    EXPECT_THAT(refusal("Stop"), HasSubstr("Nothing is recording."));
    EXPECT_THAT(refusal("StopSharing"), HasSubstr("Not sharing with the agent."));
    // A scripted run that would be a second model beside it is refused.
    auto [refused, said] = run({"--record"});
    EXPECT_EQ(refused, 1);
    EXPECT_THAT(said, HasSubstr("Pavix is already running on this desktop."));
    EXPECT_THAT(refusal("OpenLink", {"https://a.example/pair"}),
                HasSubstr("Not a Pavix setup link"));
    EXPECT_NE(refusal("Explode"), "");
    EXPECT_NE(refusal("Approve", {"'extra'"}), "");
    EXPECT_FALSE(app->wait(std::chrono::milliseconds(0))) << app->output();
    // A plain launch brings the window forward (the application starts in the bar alone).
    EXPECT_FALSE(pavixWindow(app->pid()));
    auto second = launch({});
    ASSERT_EQ(second->wait(seconds(20)), 0) << second->output();
    EXPECT_TRUE(eventually([&] { return pavixWindow(app->pid()).has_value(); }, seconds(10)));
    // The browser opens a setup link: the running application pairs with its code.
    auto issued = service.agent({"pair-code"});
    auto at = issued.find("link ");
    ASSERT_NE(at, std::string::npos) << issued;
    auto browser = launch({issued.substr(at + 5, issued.find('\n', at) - at - 5)});
    ASSERT_EQ(browser->wait(seconds(20)), 0) << browser->output();
    ASSERT_TRUE(statusShows("'connected': <true>")) << app->output();
    // The agent records under the approval given from a script; a script stops it.
    selectSource(service, "Recorded end to end");
    actions("Approve");
    EXPECT_TRUE(statusShows("'consent': <true>", seconds(0)));
    auto [started, agentCapture] = startRecording(service);
    ASSERT_TRUE(started.contains("value")) << started.dump() << app->output();
    EXPECT_THAT(refusal("Record"), HasSubstr("Stop sharing with the agent"));
    std::this_thread::sleep_for(seconds(1));  // the length of the recording
    actions("Stop");
    ASSERT_TRUE(statusShows("'connected': <false>"));
    // With the agent gone, a script records the window itself and the video is uploaded.
    ASSERT_TRUE(statusShows("'canRecord': <true>"));
    actions("Record");
    ASSERT_TRUE(statusShows("'phase': <'recording'>")) << app->output();
    std::this_thread::sleep_for(seconds(1));
    actions("Stop");
    ASSERT_TRUE(statusShows("'status': <'Uploaded.", seconds(60))) << app->output();
    std::size_t videos = 0;
    for (const auto& entry : fs::directory_iterator(library())) {
        videos += entry.path().extension() == ".mp4";
    }
    EXPECT_EQ(videos, 2u);
    EXPECT_TRUE(fs::exists(video(agentCapture)));
    quit(*app);
}

// A required update blocks new recordings while the upload under way is published.
TEST_F(RecordingEndToEnd, ARequiredUpdateBlocksNewRecordingsWhileTheUploadGoesOn) {
    ASSERT_NO_FATAL_FAILURE(pairAndSelectTheWindow());
    service.agent({"settings", "latestAppVersion=9.0"});
    auto app = pavix({});
    ASSERT_TRUE(statusShows("'updateVersion': <'9.0'>")) << app->output();
    EXPECT_TRUE(statusShows("'updateRequired': <false>", seconds(0)));
    // The user records and stops while the minimum rises; the first piece is held to look.
    ASSERT_TRUE(statusShows("'connected': <true>")) << app->output();
    actions("StopSharing");
    ASSERT_TRUE(statusShows("'canRecord': <true>"));
    service.agent(
        {"fault", "add", "path=/local-browser/desktop-upload/*/chunk,stall=4000,count=1"});
    actions("Record");
    ASSERT_TRUE(statusShows("'phase': <'recording'>")) << app->output();
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
    ASSERT_TRUE(statusShows("'status': <'Uploaded.", seconds(60))) << app->output();
    EXPECT_THAT(service.agent({"recordings"}), HasSubstr("published"));
    EXPECT_TRUE(statusShows("'canRecord': <false>", seconds(0)));
    EXPECT_THAT(refusal("Record"), HasSubstr("Update Pavix to keep recording."));
    quit(*app);
}

}  // namespace
}  // namespace pavix::test
