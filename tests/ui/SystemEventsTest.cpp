// The watcher against python-dbusmock's logind and screensavers, on two private buses that
// stand for the system and the session bus.
#include "ui/SystemEvents.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <QSignalSpy>
#include <QStandardPaths>
#include <memory>

#include "support/ChildProcess.h"

namespace pavix {
namespace {

using namespace std::chrono_literals;
using test::ChildProcess;
using Reasons = std::vector<std::string>;

constexpr auto kLimit = 10s;
const QString kLogin1 = "org.freedesktop.login1";
const QString kMock = "org.freedesktop.DBus.Mock";
const QString kGnome = "org.gnome.ScreenSaver";
const QString kFreedesktop = "org.freedesktop.ScreenSaver";

std::string program(const char* name, const QStringList& folders = {}) {
    return QStandardPaths::findExecutable(name, folders).toStdString();
}

// A dbus-daemon of the test's own and this process's connection to it.
class PrivateBus {
  public:
    explicit PrivateBus(QString name)
        : name_(std::move(name)),
          daemon_({program("dbus-daemon"), "--session", "--print-address=1", "--nofork"}),
          address_(daemon_.waitForLine("guid=", kLimit).value_or("")),
          connection_(QDBusConnection::connectToBus(QString::fromStdString(address_), name_)) {}
    // Asked to end rather than killed, the daemon removes its socket.
    ~PrivateBus() {
        QDBusConnection::disconnectFromBus(name_);
        daemon_.signal(SIGTERM);
        daemon_.wait(kLimit);
    }

    const std::string& address() const { return address_; }
    QDBusConnection connection() const { return connection_; }

  private:
    QString name_;
    ChildProcess daemon_;
    std::string address_;
    QDBusConnection connection_;
};

enum class Bus { System, Session };
// One method call on a mock.
struct Step {
    Bus bus;
    QString service, path, interface, method;
    QVariantList args;
};

QString session(const char* id) {
    return QStringLiteral("/org/freedesktop/login1/session/") + id;
}
Step prepareForSleep(bool starting) {
    QVariantList args{"org.freedesktop.login1.Manager", "PrepareForSleep", "b",
                      QVariantList{starting}};
    return {Bus::System, kLogin1, "/org/freedesktop/login1", kMock, "EmitSignal", args};
}
Step lock(const char* id) {
    return {Bus::System, kLogin1, session(id), "org.freedesktop.login1.Session", "Lock", {}};
}
Step set(const char* id, const char* property, bool value) {
    QVariantList args{"org.freedesktop.login1.Session", QVariantMap{{property, value}}};
    return {Bus::System, kLogin1, session(id), kMock, "UpdateProperties", args};
}
Step active(const char* id, bool value) {
    return set(id, "Active", value);
}
// ActiveChanged from the screensaver `service`, sent from the object at `path`.
Step screenSaver(const QString& service, const QString& path, bool value) {
    auto object = service == kGnome ? "/org/gnome/ScreenSaver" : "/org/freedesktop/ScreenSaver";
    QVariantList args{service, "ActiveChanged", "b", QVariantList{value},
                      QVariantMap{{"path", path}}};
    return {Bus::Session, service, object, kMock, "EmitSignalDetailed", args};
}

// How logind finds this process's session "c1": by its PID, or (outside any session) as the
// user's "auto" session. In the first case "auto" would be the other session, "c2".
enum class Lookup { ByPid, Auto };

class SystemEventsTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(system_.connection().isConnected()) << system_.address();
        ASSERT_TRUE(session_.connection().isConnected()) << session_.address();
    }

    ChildProcess& start(Bus bus, std::vector<std::string> arguments) {
        // python3-dbusmock belongs to the system's Python, not to one first on the PATH.
        arguments.insert(arguments.begin(), {program("python3", {"/usr/bin"}), "-m", "dbusmock",
                                             bus == Bus::System ? "--system" : "--session"});
        auto variable = bus == Bus::System ? "DBUS_SYSTEM_BUS_ADDRESS" : "DBUS_SESSION_BUS_ADDRESS";
        auto address = (bus == Bus::System ? system_ : session_).address();
        return *mocks_.emplace_back(std::make_unique<ChildProcess>(
            arguments, std::map<std::string, std::string>{{variable, address}}));
    }
    void awaitName(Bus bus, const QString& name, const ChildProcess& mock) {
        auto connection = this->connection(bus);
        QDBusServiceWatcher watcher(name, connection, QDBusServiceWatcher::WatchForRegistration);
        QSignalSpy registered(&watcher, &QDBusServiceWatcher::serviceRegistered);
        ASSERT_TRUE(connection.interface()->isServiceRegistered(name) ||
                    registered.wait(std::chrono::milliseconds(kLimit).count()))
            << mock.output();
    }
    void startLogind(Lookup lookup) {
        ASSERT_NO_FATAL_FAILURE(
            awaitName(Bus::System, kLogin1, start(Bus::System, {"--template", "logind"})));
        auto answer = [](const QString& expected, const char* id) {
            return QStringLiteral(
                       "if args[0] != %1 or not '%2': raise dbus.exceptions."
                       "DBusException('none', name='org.freedesktop.login1.NoSuchSession')\n"
                       "ret = '/org/freedesktop/login1/session/%2'")
                .arg(expected, id);
        };
        auto pid = QString::number(::getpid());
        auto manager = [](const char* method, QVariantList args) {
            return Step{Bus::System, kLogin1, "/org/freedesktop/login1", kMock, method, args};
        };
        for (const auto& step : {
                 manager("AddSession", {"c1", "seat0", 1000u, "ada", true}),
                 manager("AddSession", {"c2", "seat0", 1001u, "bob", true}),
                 manager("AddMethod", {"org.freedesktop.login1.Manager", "GetSessionByPID", "u",
                                       "o", answer(pid, lookup == Lookup::ByPid ? "c1" : "")}),
                 manager("AddMethod", {"org.freedesktop.login1.Manager", "GetSession", "s", "o",
                                       answer("'auto'", lookup == Lookup::ByPid ? "c2" : "c1")}),
             }) {
            ASSERT_NO_FATAL_FAILURE(call(step));
        }
    }
    void startScreenSavers() {
        auto& gnome = start(Bus::Session, {"--template", "gnome_screensaver"});
        auto& freedesktop =
            start(Bus::Session, {kFreedesktop.toStdString(), "/org/freedesktop/ScreenSaver",
                                 kFreedesktop.toStdString()});
        ASSERT_NO_FATAL_FAILURE(awaitName(Bus::Session, kGnome, gnome));
        ASSERT_NO_FATAL_FAILURE(awaitName(Bus::Session, kFreedesktop, freedesktop));
    }
    void watch() {
        events_ = std::make_unique<SystemEvents>(system_.connection(), session_.connection());
        spy_ = std::make_unique<QSignalSpy>(events_.get(), &SystemEvents::sessionEnding);
    }

    QDBusConnection connection(Bus bus) const {
        return (bus == Bus::System ? system_ : session_).connection();
    }
    // The calls go over the watcher's own connections: a mock sends its signals before its
    // reply, so once a call returned, whatever it set off is already queued for the watcher.
    void call(const Step& step) {
        auto message =
            QDBusMessage::createMethodCall(step.service, step.path, step.interface, step.method);
        message.setArguments(step.args);
        auto reply = connection(step.bus).call(message, QDBus::Block,
                                               std::chrono::milliseconds(kLimit).count());
        ASSERT_NE(reply.type(), QDBusMessage::ErrorMessage)
            << step.method.toStdString() << ": " << reply.errorMessage().toStdString();
    }
    void run(const std::vector<Step>& steps) {
        for (const auto& step : steps) {
            ASSERT_NO_FATAL_FAILURE(call(step));
        }
    }
    // The reasons reported so far, once at least `count` of them came.
    Reasons reasons(std::size_t count) {
        QCoreApplication::processEvents();
        while (static_cast<std::size_t>(spy_->count()) < count &&
               spy_->wait(std::chrono::milliseconds(kLimit).count())) {
        }
        Reasons reasons;
        for (const auto& arguments : *spy_) {
            reasons.push_back(arguments.at(0).toString().toStdString());
        }
        return reasons;
    }

    PrivateBus system_{"pavix-test-system"};
    PrivateBus session_{"pavix-test-session"};
    std::vector<std::unique_ptr<ChildProcess>> mocks_;
    std::unique_ptr<SystemEvents> events_;
    std::unique_ptr<QSignalSpy> spy_;
};

// Each case ends with a step that is reported, from the same mock as the steps before it that
// must not be: those would have come first.
struct Case {
    const char* name;
    std::vector<Step> steps;
    Reasons expected;
};

void PrintTo(const Case& c, std::ostream* out) {
    *out << c.name;
}

class SystemEventsCases : public SystemEventsTest, public testing::WithParamInterface<Case> {};

TEST_P(SystemEventsCases, ReportsWhatEndsTheSession) {
    ASSERT_NO_FATAL_FAILURE(startLogind(Lookup::ByPid));
    ASSERT_NO_FATAL_FAILURE(startScreenSavers());
    watch();
    EXPECT_TRUE(events_->watching());
    ASSERT_NO_FATAL_FAILURE(run(GetParam().steps));
    EXPECT_EQ(reasons(GetParam().expected.size()), GetParam().expected);
}

// A screensaver turned off, then on: only the second is reported.
Case screenSaverCase(const char* name, const QString& service, const QString& path) {
    return {name, {screenSaver(service, path, false), screenSaver(service, path, true)}, {"lock"}};
}

const Case kCases[] = {
    {"SleepButNotWaking", {prepareForSleep(false), prepareForSleep(true)}, {"sleep"}},
    {"LockButNotOtherSessionsOrSwitchingBack",
     {lock("c2"), active("c2", false), active("c1", true), set("c1", "IdleHint", true), lock("c1")},
     {"lock"}},
    screenSaverCase("GnomeScreenSaver", kGnome, "/org/gnome/ScreenSaver"),
    screenSaverCase("FreedesktopScreenSaver", kFreedesktop, "/org/freedesktop/ScreenSaver"),
    screenSaverCase("FreedesktopScreenSaverOnItsShortPath", kFreedesktop, "/ScreenSaver"),
};
INSTANTIATE_TEST_SUITE_P(, SystemEventsCases, testing::ValuesIn(kCases),
                         testing::PrintToStringParamName());

void PrintTo(Lookup lookup, std::ostream* out) {
    *out << (lookup == Lookup::ByPid ? "ByPid" : "Auto");
}

class SystemEventsLookup : public SystemEventsTest, public testing::WithParamInterface<Lookup> {};

TEST_P(SystemEventsLookup, WatchesTheSessionLogindNames) {
    ASSERT_NO_FATAL_FAILURE(startLogind(GetParam()));
    watch();
    ASSERT_NO_FATAL_FAILURE(run({lock("c2"), lock("c1"), active("c1", false)}));
    EXPECT_EQ(reasons(2), (Reasons{"lock", "switch"}));
}

INSTANTIATE_TEST_SUITE_P(, SystemEventsLookup, testing::Values(Lookup::ByPid, Lookup::Auto),
                         testing::PrintToStringParamName());

TEST_F(SystemEventsTest, ServicesStartedLaterAreHeardButNoSessionIsWatched) {
    watch();
    EXPECT_TRUE(events_->watching());
    ASSERT_NO_FATAL_FAILURE(startLogind(Lookup::ByPid));
    ASSERT_NO_FATAL_FAILURE(startScreenSavers());
    ASSERT_NO_FATAL_FAILURE(run({lock("c1"), active("c1", false), prepareForSleep(true),
                                 screenSaver(kGnome, "/org/gnome/ScreenSaver", true)}));
    EXPECT_EQ(reasons(2), (Reasons{"sleep", "lock"}));
}

TEST(SystemEventsWithoutBus, WatchesNothing) {
    auto bus = QDBusConnection::connectToBus("unix:path=/nonexistent/bus", "pavix-test-no-bus");
    EXPECT_FALSE(SystemEvents(bus, bus).watching());
    QDBusConnection::disconnectFromBus("pavix-test-no-bus");
}

}  // namespace
}  // namespace pavix
