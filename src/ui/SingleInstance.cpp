#include "ui/SingleInstance.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>

#include "ui/DesktopActions.h"

namespace pavix::SingleInstance {
namespace {

// Asks the owner of the name to take this launch.
QDBusMessage handOver(QDBusConnection& bus, const std::optional<std::string>& link) {
    auto call =
        QDBusMessage::createMethodCall(DesktopActions::kService, DesktopActions::kPath,
                                       DesktopActions::kInterface, link ? "OpenLink" : "Activate");
    if (link) {
        call << QString::fromStdString(*link);
    }
    return bus.call(call, QDBus::Block, 10'000);
}

}  // namespace

bool running(QDBusConnection bus) {
    if (!bus.isConnected()) {
        return false;
    }
    auto owned = bus.interface()->isServiceRegistered(DesktopActions::kService);
    return owned.isValid() && owned.value();
}

Result claim(QDBusConnection bus, DesktopActions& actions, const std::optional<std::string>& link) {
    if (!bus.isConnected()) {
        return {Outcome::first, "no session bus: " + bus.lastError().message().toStdString()};
    }
    // The object goes on the bus before the name does: a launch that finds the name finds
    // the object behind it. Its calls wait for the application's loop to run.
    if (!bus.registerObject(
            DesktopActions::kPath, &actions,
            QDBusConnection::ExportScriptableSlots | QDBusConnection::ExportScriptableSignals)) {
        return {Outcome::first, "the actions could not be put on the session bus"};
    }
    // Twice: the owner may quit between a refused claim and the hand-over.
    for (int attempt = 0; attempt < 2; ++attempt) {
        auto registered = bus.interface()->registerService(
            DesktopActions::kService, QDBusConnectionInterface::DontQueueService,
            QDBusConnectionInterface::DontAllowReplacement);
        if (!registered.isValid()) {
            return {Outcome::first, "the session bus refused the name: " +
                                        registered.error().message().toStdString()};
        }
        if (registered.value() == QDBusConnectionInterface::ServiceRegistered) {
            return {Outcome::first, ""};
        }
        auto answer = handOver(bus, link);
        if (answer.type() != QDBusMessage::ErrorMessage) {
            return {Outcome::handedOver, ""};
        }
        if (answer.errorName() != "org.freedesktop.DBus.Error.ServiceUnknown" &&
            answer.errorName() != "org.freedesktop.DBus.Error.NameHasNoOwner") {
            return {Outcome::failed, answer.errorMessage().toStdString()};
        }
    }
    return {Outcome::failed, "Pavix was starting and ending at the same time. Try again."};
}

}  // namespace pavix::SingleInstance
