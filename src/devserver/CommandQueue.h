#pragma once

#include <nlohmann/json.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace pavix::devserver {

// One agent command and what became of it.
struct CommandRecord {
    enum class State { Queued, Delivered, Answered, Abandoned, Expired };

    std::string id;
    std::string deviceId;
    std::string method;
    nlohmann::json args = nlohmann::json::array();
    State state = State::Queued;
    nlohmann::json reply;  // the device's reply envelope once answered
    std::string reason;    // why it was abandoned or expired
    int64_t createdAt = 0;
    std::optional<int64_t> deliveredAt;
    std::optional<int64_t> answeredAt;

    bool finished() const { return state != State::Queued && state != State::Delivered; }
    nlohmann::json toJson() const;
    static const char* stateName(State s);
};

// The agent's commands per device, the device sessions they are delivered in, and the long poll.
// A session is opened by pairing or resume and ended by disconnect, revoke or the agent. Each poll
// hands out at most one command; a device that polls again while a delivered command is still
// unanswered has dropped it (the app never posts results of an ended connection), so that
// command is abandoned. A newer poll of the same device ends an older one that is still held.
class CommandQueue {
  public:
    struct PollOutcome {
        enum class Kind { Command, Empty, Disconnected } kind = Kind::Empty;
        nlohmann::json envelope = nlohmann::json::object();
    };
    enum class ResultStatus { Accepted, NotFound, AlreadyAnswered, NotPending };
    struct Activity {
        bool session = false;
        int polling = 0;
        int queued = 0;
        int inFlight = 0;
        std::optional<int64_t> lastPollAt;
    };

    void openSession(const std::string& deviceId);
    void closeSession(const std::string& deviceId, const std::string& reason);
    bool sessionActive(const std::string& deviceId);

    // Holds up to `hold` for a command. `alive` (may be empty) says whether the poll's connection
    // is still open; a command is never handed to a closed connection.
    PollOutcome poll(const std::string& deviceId, std::chrono::milliseconds hold,
                     const std::function<bool()>& alive);
    ResultStatus postResult(const std::string& deviceId, const std::string& id,
                            nlohmann::json reply);

    std::string enqueue(const std::string& deviceId, const std::string& method,
                        nlohmann::json args);
    // Waits until the command is answered or abandoned, or the time-out passes; a command still
    // queued at the time-out is withdrawn (Expired) so that it is never delivered late.
    std::optional<CommandRecord> wait(const std::string& id, std::chrono::milliseconds timeout);
    std::optional<CommandRecord> get(const std::string& id);
    // Newest first; all devices when `deviceId` is empty.
    std::vector<CommandRecord> recent(const std::string& deviceId, size_t limit);
    Activity activity(const std::string& deviceId);

    // Ends every held poll and wait (service shutting down).
    void shutdown();

  private:
    void abandonDelivered(const std::string& deviceId, const std::string& reason);  // lock held
    void prune();                                                                   // lock held

    struct DeviceState {
        bool session = false;
        int polling = 0;
        uint64_t pollTicket = 0;
        std::optional<int64_t> lastPollAt;
        std::deque<std::string> queue;  // ids of queued commands, oldest first
    };

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, CommandRecord> commands_;
    std::deque<std::string> order_;  // ids in creation order, for pruning and listing
    std::map<std::string, DeviceState> devices_;
    bool stopping_ = false;
};

}  // namespace pavix::devserver
