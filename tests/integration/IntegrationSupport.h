#pragma once

// What the integration tests share. It brings Xlib (None, Bool, Status): include it after gtest.

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "linux/X11ShareableContent.h"
#include "support/ChildProcess.h"
#include "support/DevServerProcess.h"

namespace pavix::test {

// A folder of the test's own under /tmp, removed with what it holds at the end.
class ScratchFolder {
  public:
    explicit ScratchFolder(const std::string& name = "scratch")
        : path_(DevServerProcess::scratch(name)) {}
    ~ScratchFolder() { std::filesystem::remove_all(path_); }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

// The permission bits of `path`; 0 when it does not exist.
inline unsigned modeOf(const std::filesystem::path& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 0777 : 0;
}

// Sends the 32-bit client message `type` about `window` to `to`: the window itself, or the root
// with the redirect masks for the window manager.
inline void sendClientMessage(Display* display, Window to, Window window, Atom type,
                              std::initializer_list<long> data, long mask = NoEventMask) {
    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = window;
    event.xclient.message_type = type;
    event.xclient.format = 32;
    std::copy(data.begin(), data.end(), event.xclient.data.l);
    XSendEvent(display, to, False, mask, &event);
    XSync(display, False);
}

// The window a fixture program announces with "window 0x…" once it exists.
inline std::uint32_t announcedWindow(ChildProcess& program,
                                     std::chrono::seconds limit = std::chrono::seconds(20)) {
    auto line = program.waitForLine("window 0x", limit);
    if (!line) {
        throw std::runtime_error("no window announced:\n" + program.output());
    }
    return static_cast<std::uint32_t>(std::stoul(line->substr(line->find("0x")), nullptr, 16));
}

// The window `id` of the snapshot; null when it is not listed.
inline const ShareableWindow* listedWindow(const ShareableContentSnapshot& snapshot,
                                           std::uint64_t id) {
    for (const auto& window : snapshot.windows) {
        if (window.id == id) {
            return &window;
        }
    }
    return nullptr;
}

// The first window of `pid` on screen, with `title` when one is given, taller than `minHeight`.
inline std::optional<ShareableWindow> shownWindow(pid_t pid, const std::string& title = "",
                                                  double minHeight = 0) {
    for (const auto& window : X11ShareableContent().current().windows) {
        if (window.pid == pid && window.onScreen && (title.empty() || window.title == title) &&
            window.height > minHeight) {
            return window;
        }
    }
    return std::nullopt;
}

// Pavix's main window (the floating bar has its title too, but is far smaller).
inline std::optional<ShareableWindow> pavixWindow(pid_t pid) {
    return shownWindow(pid, "Pavix", 200);
}

// The settings, state and log switches of a pavix run in `home`.
inline std::map<std::string, std::string> pavixEnvironment(const std::filesystem::path& home) {
    return {{"XDG_CONFIG_HOME", (home / "config").string()},
            {"XDG_STATE_HOME", (home / "state").string()},
            {"PAVIX_CONTROL_LOG", "1"}};
}

// Sends `method` as the agent and returns the reply's envelope.
inline nlohmann::json ask(DevServerProcess& service, const std::string& method,
                          const nlohmann::json& arguments = nullptr, int timeout = 20) {
    std::vector<std::string> command = {"send", method};
    if (!arguments.is_null()) {
        command.push_back(arguments.dump());
    }
    command.insert(command.end(), {"--timeout", std::to_string(timeout)});
    return DevServerProcess::envelope(service.agent(command));
}

// Has the agent select the source titled `title`; its id, or empty when none was selected.
inline std::string selectSource(DevServerProcess& service, const std::string& title) {
    const auto listed = ask(service, "listSources");
    for (const auto& source : listed["value"]["sources"]) {
        if (source["title"].get<std::string>().find(title) != std::string::npos) {
            auto selected =
                ask(service, "selectSource", nlohmann::json::array({{{"sourceId", source["id"]}}}));
            return selected.contains("value") ? source["id"].get<std::string>() : "";
        }
    }
    return "";
}

// A capture id the service issued, and the agent's startRecording under it.
inline std::pair<nlohmann::json, std::string> startRecording(DevServerProcess& service,
                                                             nlohmann::json options = {}) {
    auto id = service.agent({"capture-id"});
    id.erase(id.find_last_not_of("\n ") + 1);
    options["captureId"] = id;
    return {ask(service, "startRecording", nlohmann::json::array({options}), 30), id};
}

// The last picture of a video or image as ffmpeg decodes it to `pixelFormat`; empty if none.
inline std::vector<std::uint8_t> lastPicture(const std::filesystem::path& file, std::size_t size,
                                             const std::string& pixelFormat = "rgb24") {
    const auto command = "ffmpeg -v error -i '" + file.string() + "' -f rawvideo -pix_fmt " +
                         pixelFormat + " - 2>/dev/null";
    std::vector<std::uint8_t> last, next(size);
    FILE* pipe = ::popen(command.c_str(), "r");
    while (pipe != nullptr && std::fread(next.data(), 1, size, pipe) == size) {
        last = next;
    }
    if (pipe != nullptr) {
        ::pclose(pipe);
    }
    return last;
}

}  // namespace pavix::test
