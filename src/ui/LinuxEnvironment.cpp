#include "ui/LinuxEnvironment.h"

#include <pwd.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <vector>

#include "core/capture/CaptureError.h"
#include "core/capture/CaptureStill.h"
#include "linux/FfmpegVideoEncoder.h"
#include "linux/FileSecretStore.h"
#include "linux/LibsecretStore.h"
#include "linux/X11CaptureStream.h"
#include "linux/X11Clipboard.h"
#include "linux/X11DesktopInput.h"
#include "linux/X11ShareableContent.h"
#include "linux/X11WindowFrames.h"
#include "linux/X11WindowLayers.h"
#include "linux/XdgFolders.h"

namespace pavix {
namespace {

// Without an X server there is nothing to list; every listing reports why.
class UnavailableContent : public ShareableContent {
  public:
    explicit UnavailableContent(std::string reason) : reason_(std::move(reason)) {}
    ShareableContentSnapshot current() override {
        throw CaptureError(CaptureError::kFailedToStart, reason_);
    }

  private:
    std::string reason_;
};

std::unique_ptr<ShareableContent> shareableContent(Log& log) {
    try {
        return std::make_unique<X11ShareableContent>();
    } catch (const std::exception& e) {
        log.line(std::string("no display to record: ") + e.what());
        return std::make_unique<UnavailableContent>(e.what());
    }
}

// A part that needs the window system, or none when there is none; the log says what is
// missing then. Without a window list recordings go on without layers; without a clipboard
// the support summary cannot be copied.
template <class Made>
std::unique_ptr<Made> ifDisplay(Log& log, const char* missing) {
    try {
        return std::make_unique<Made>();
    } catch (const std::exception& e) {
        log.line(std::string(missing) + ": " + e.what());
        return nullptr;
    }
}

// The system and its kernel, as the support summary names them.
std::string osVersion() {
    utsname names{};
    if (::uname(&names) != 0) {
        return "unknown";
    }
    return std::string(names.sysname) + " " + names.release;
}

std::string hostName() {
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') {
        return "computer";
    }
    return name;
}

// The user's full name as the account database holds it: the first field of GECOS, which
// AccountsService's RealName and the desktops' user settings write. Empty when unset.
std::string userFullName() {
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> buffer(16384);
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found ||
        !found->pw_gecos) {
        return "";
    }
    std::string gecos = found->pw_gecos;
    return gecos.substr(0, gecos.find(','));
}

}  // namespace

LinuxEnvironment::LinuxEnvironment() {
    auto stateFolder = XdgFolders::state();
    secrets_ = std::make_unique<FallbackSecretStore>(
        std::make_unique<LibsecretStore>(timing_.keychainTimeout),
        std::make_unique<FileSecretStore>(stateFolder / "credentials"),
        (stateFolder / "credentials").string(), log_);
    content_ = shareableContent(log_);
    layers_ = ifDisplay<X11WindowLayers>(log_, "no window list for layers");
    clipboard_ = ifDisplay<X11Clipboard>(log_, "no clipboard");
    windowFrames_ = ifDisplay<X11WindowFrames>(log_, "no window sizing");
    // Opens its connection on first use, on the control thread.
    desktopInput_ = std::make_unique<X11DesktopInput>();
}

LinuxEnvironment::~LinuxEnvironment() {
    // Work still queued on the pools may use the parts below; it ends first.
    controlThread_.join();
    pool_.join();
}

StudioEnvironment LinuxEnvironment::studio(asio::any_io_executor model) {
    StudioEnvironment env;
    env.executor = std::move(model);
    env.pool = &pool_;
    env.http = &http_;
    env.secrets = secrets_.get();
    env.defaults = &defaults_;
    env.content = content_.get();
    env.volume = &volume_;
    env.trash = &trash_;
    env.clipboard = clipboard_.get();
    env.capture.streams = [] { return std::make_unique<X11CaptureStream>(); };
    env.capture.encoders = [] { return std::make_unique<FfmpegVideoEncoder>(); };
    env.capture.probe = &encoderProbe_;
    env.capture.media = &mediaReader_;
    env.capture.layers = layers_.get();
    env.capture.stills = &pngEncoder_;
    env.accessibility = &accessibility_;
    env.accessibleActions = &accessibleActions_;
    env.desktopInput = desktopInput_.get();
    env.windowFrames = windowFrames_.get();
    env.controlLog = std::getenv("PAVIX_CONTROL_LOG") != nullptr;
    env.controlThread = &controlThread_;
    env.windowPicture = [](std::uint32_t windowID, int width, int height) {
        X11CaptureStream stream;
        CaptureFilter filter;
        filter.kind = CaptureFilter::Kind::window;
        filter.windowID = windowID;
        return CaptureStill::firstFrame(stream, filter, width, height, std::chrono::seconds(3));
    };
    env.textRecognizer = &textRecognizer_;
    env.log = &log_;
    env.timing = timing_;
    env.nowMs = [] {
        return static_cast<double>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                       std::chrono::system_clock::now().time_since_epoch())
                                       .count());
    };
    env.appVersion = PAVIX_VERSION;
    env.deviceName = hostName();
    env.userFullName = userFullName();
    env.osVersion = osVersion();
    env.ownPid = ::getpid();
    env.libraryFolder = XdgFolders::library();
    env.libraryLabel = XdgFolders::libraryLabel(env.libraryFolder);
    return env;
}

}  // namespace pavix
