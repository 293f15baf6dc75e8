#pragma once

// Services of a desktop that a test plays on D-Bus: python-dbusmock stands in for logind, a
// screensaver and the tray's StatusNotifierWatcher, and gdbus speaks to them (and to the
// application's tray menu) as the desktop would. Header-only, for the tests that run the real
// executables.

#include <signal.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/X11TestWindow.h"

namespace pavix::test {

// Which bus a call goes to: the session's (scripts/with-desktop starts one) or a bus given by
// its address.
struct Bus {
    std::optional<std::string> address;  // none: the session bus

    std::vector<std::string> option() const {
        return address ? std::vector<std::string>{"--address", *address}
                       : std::vector<std::string>{"--session"};
    }
};

// Calls `interfaceAndMethod` with gdbus and returns its reply in GVariant text; throws with
// gdbus's words when the call fails.
inline std::string gdbusCall(const Bus& bus, const std::string& destination,
                             const std::string& path, const std::string& interfaceAndMethod,
                             const std::vector<std::string>& arguments = {}) {
    std::vector<std::string> command = {"gdbus", "call"};
    auto connection = bus.option();
    command.insert(command.end(), connection.begin(), connection.end());
    command.insert(command.end(), {"--dest", destination, "--object-path", path, "--method",
                                   interfaceAndMethod, "--timeout", "10"});
    command.insert(command.end(), arguments.begin(), arguments.end());
    ChildProcess call(command);
    auto status = call.wait(std::chrono::seconds(20));
    if (status != 0) {
        throw std::runtime_error(interfaceAndMethod + " failed: " + call.output());
    }
    return call.output();
}

// A dbus-daemon of the test's own, standing for the system bus.
class PrivateBus {
  public:
    PrivateBus()
        : daemon_({"dbus-daemon", "--session", "--print-address=1", "--nofork"}),
          address_(daemon_.waitForLine("guid=", std::chrono::seconds(10)).value_or("")) {
        if (address_.empty()) {
            throw std::runtime_error("dbus-daemon did not start: " + daemon_.output());
        }
    }
    ~PrivateBus() {
        daemon_.signal(SIGTERM);  // asked, the daemon removes its socket
        daemon_.wait(std::chrono::seconds(10));
    }
    Bus bus() const { return {address_}; }
    const std::string& address() const { return address_; }

  private:
    ChildProcess daemon_;
    std::string address_;
};

// One python-dbusmock service; it owns `name` on `bus` once constructed.
class MockService {
  public:
    MockService(Bus bus, std::string name, std::vector<std::string> arguments)
        : bus_(std::move(bus)), name_(std::move(name)) {
        // python3-dbusmock belongs to Debian's Python, not to one first on the PATH.
        arguments.insert(arguments.begin(), {"/usr/bin/python3", "-m", "dbusmock",
                                             bus_.address ? "--system" : "--session"});
        std::map<std::string, std::string> environment;
        if (bus_.address) {
            environment["DBUS_SYSTEM_BUS_ADDRESS"] = *bus_.address;
        }
        mock_ = std::make_unique<ChildProcess>(arguments, environment);
        if (!eventually([&] { return owned(); }, std::chrono::seconds(20))) {
            throw std::runtime_error(name_ + " did not appear: " + mock_->output());
        }
    }
    // Calls a method of the mock's main object (or of `path`).
    std::string call(const std::string& path, const std::string& method,
                     const std::vector<std::string>& arguments = {}) const {
        return gdbusCall(bus_, name_, path, method, arguments);
    }

  private:
    bool owned() const {
        try {
            return gdbusCall(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                             "org.freedesktop.DBus.NameHasOwner", {name_})
                       .find("true") != std::string::npos;
        } catch (const std::exception&) {
            return false;
        }
    }

    Bus bus_;
    std::string name_;
    std::unique_ptr<ChildProcess> mock_;
};

// A tray host as desktop panels implement it: a StatusNotifierWatcher that the application's
// tray icon registers with, and clicks on the entries of the menu the icon exports.
class TrayHost {
  public:
    TrayHost()
        : watcher_({}, "org.kde.StatusNotifierWatcher",
                   {"org.kde.StatusNotifierWatcher", "/StatusNotifierWatcher",
                    "org.kde.StatusNotifierWatcher"}) {
        watcher_.call(kWatcher, "org.freedesktop.DBus.Mock.AddMethod",
                      {"", "RegisterStatusNotifierItem", "s", "", ""});
        watcher_.call(kWatcher, "org.freedesktop.DBus.Mock.AddProperties",
                      {"org.kde.StatusNotifierWatcher",
                       "{'IsStatusNotifierHostRegistered': <true>, 'ProtocolVersion': <0>, "
                       "'RegisteredStatusNotifierItems': <@as []>}"});
    }

    // The bus name of the first item that registered, once one did.
    std::optional<std::string> item() const {
        auto calls = watcher_.call(kWatcher, "org.freedesktop.DBus.Mock.GetCalls");
        auto at = calls.find("'RegisterStatusNotifierItem', [<'");
        if (at == std::string::npos) {
            return std::nullopt;
        }
        at += std::string("'RegisterStatusNotifierItem', [<'").size();
        return calls.substr(at, calls.find('\'', at) - at);
    }

    // Clicks the entry labelled `label` in the item's menu; throws when there is none.
    void click(const std::string& label) const {
        auto name = item();
        if (!name) {
            throw std::runtime_error("no tray item registered");
        }
        const Bus session;
        auto menu =
            gdbusCall(session, *name, "/StatusNotifierItem", "org.freedesktop.DBus.Properties.Get",
                      {"org.kde.StatusNotifierItem", "Menu"});
        auto path = menu.substr(menu.find('\'') + 1);
        path = path.substr(0, path.find('\''));
        auto layout = gdbusCall(session, *name, path, "com.canonical.dbusmenu.GetLayout",
                                {"0", "int32 -1", "@as []"});
        // Each entry reads "<(ID, {properties}, @av [])>".
        auto at = layout.find("'label': <'" + label + "'>");
        auto open = at == std::string::npos ? at : layout.rfind("<(", at);
        if (open == std::string::npos) {
            throw std::runtime_error("no entry \"" + label + "\" in " + layout);
        }
        auto id = std::to_string(std::stoi(layout.substr(open + 2)));
        gdbusCall(session, *name, path, "com.canonical.dbusmenu.Event",
                  {id, "clicked", "<int32 0>", "uint32 0"});
    }

  private:
    static constexpr const char* kWatcher = "/StatusNotifierWatcher";
    MockService watcher_;
};

}  // namespace pavix::test
