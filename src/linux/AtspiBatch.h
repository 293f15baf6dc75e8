#pragma once

#include <dbus/dbus.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "core/capture/CaptureRect.h"

namespace pavix {

// Questions to one application sent together on the accessibility bus and answered in order.
// An application answers one call at a time either way, but sent one by one each call also
// waits for this process to wake up, read the answer and send the next: sent together they
// cost the application's time alone.
//
// Not thread-safe: made and waited on by the thread that owns libatspi's connection.
class AtspiBatch {
  public:
    using Clock = std::chrono::steady_clock;

    // `timeoutMs` bounds each call; `bus` is libatspi's connection to the application.
    AtspiBatch(DBusConnection* bus, std::string busName, int timeoutMs);
    ~AtspiBatch();
    AtspiBatch(const AtspiBatch&) = delete;
    AtspiBatch& operator=(const AtspiBatch&) = delete;

    DBusConnection* bus() const { return bus_; }
    const std::string& busName() const { return busName_; }
    int timeoutMs() const { return timeoutMs_; }

    // Each of these sends one call and gives the index of its answer.
    std::size_t call(const std::string& path, const char* interface, const char* method);
    std::size_t extents(const std::string& path);        // in screen points
    std::size_t text(const std::string& path, int end);  // characters 0 to `end`
    std::size_t property(const std::string& path, const char* interface, const char* name);

    // Waits for the answers until `deadline`; calls still open then are given up. Whether
    // every call was answered in time (an error is an answer).
    bool wait(Clock::time_point deadline);

    // The answers, each nothing when its call failed, was given up or answered another type.
    DBusMessage* reply(std::size_t index) const;
    std::optional<CaptureRect> rect(std::size_t index) const;
    std::optional<std::string> string(std::size_t index) const;
    std::optional<long long> integer(std::size_t index) const;  // a property's integer
    std::optional<double> number(std::size_t index) const;      // a property's double
    // The paths of a list of object references, a(so); none when the answer is another type.
    std::optional<std::vector<std::string>> paths(std::size_t index) const;

  private:
    std::size_t send(DBusMessage* message);

    DBusConnection* bus_;
    std::string busName_;
    int timeoutMs_;
    std::vector<DBusPendingCall*> pending_;
    std::vector<DBusMessage*> replies_;
};

}  // namespace pavix
