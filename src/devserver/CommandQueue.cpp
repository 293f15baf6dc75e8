#include "devserver/CommandQueue.h"

#include "devserver/Clock.h"
#include "devserver/Ids.h"

#include <algorithm>

namespace pavix::devserver {

namespace {
constexpr size_t kKeepFinished = 2000;
constexpr auto kAliveCheck = std::chrono::milliseconds(250);
}  // namespace

const char* CommandRecord::stateName(State s) {
    switch (s) {
        case State::Queued:
            return "queued";
        case State::Delivered:
            return "delivered";
        case State::Answered:
            return "answered";
        case State::Abandoned:
            return "abandoned";
        case State::Expired:
            return "expired";
    }
    return "unknown";
}

nlohmann::json CommandRecord::toJson() const {
    nlohmann::json j = {{"id", id},     {"deviceId", deviceId},      {"method", method},
                        {"args", args}, {"state", stateName(state)}, {"createdAt", createdAt}};
    if (deliveredAt)
        j["deliveredAt"] = *deliveredAt;
    if (answeredAt)
        j["answeredAt"] = *answeredAt;
    if (state == State::Answered)
        j["reply"] = reply;
    if (!reason.empty())
        j["reason"] = reason;
    return j;
}

void CommandQueue::openSession(const std::string& deviceId) {
    std::lock_guard lock(mutex_);
    auto& d = devices_[deviceId];
    // A new session supersedes whatever the old one had in flight.
    abandonDelivered(deviceId, "session_replaced");
    d.session = true;
    ++d.pollTicket;
    changed_.notify_all();
}

void CommandQueue::closeSession(const std::string& deviceId, const std::string& reason) {
    std::lock_guard lock(mutex_);
    auto& d = devices_[deviceId];
    d.session = false;
    abandonDelivered(deviceId, reason);
    changed_.notify_all();
}

bool CommandQueue::sessionActive(const std::string& deviceId) {
    std::lock_guard lock(mutex_);
    auto it = devices_.find(deviceId);
    return it != devices_.end() && it->second.session;
}

void CommandQueue::abandonDelivered(const std::string& deviceId, const std::string& reason) {
    for (auto& [id, c] : commands_) {
        if (c.deviceId == deviceId && c.state == CommandRecord::State::Delivered) {
            c.state = CommandRecord::State::Abandoned;
            c.reason = reason;
        }
    }
}

CommandQueue::PollOutcome CommandQueue::poll(const std::string& deviceId,
                                             std::chrono::milliseconds hold,
                                             const std::function<bool()>& alive) {
    std::unique_lock lock(mutex_);
    auto& d = devices_[deviceId];
    if (!d.session)
        return {PollOutcome::Kind::Disconnected, {}};
    uint64_t ticket = ++d.pollTicket;
    ++d.polling;
    d.lastPollAt = nowMs();
    abandonDelivered(deviceId, "device polled again without answering");
    changed_.notify_all();  // ends an older poll of this device

    struct Leave {
        DeviceState& d;
        ~Leave() { --d.polling; }
    } leave{d};

    auto deadline = std::chrono::steady_clock::now() + hold;
    while (true) {
        if (stopping_)
            return {};
        if (!d.session)
            return {PollOutcome::Kind::Disconnected, {}};
        if (d.pollTicket != ticket)
            return {};  // superseded by a newer poll
        if (!d.queue.empty()) {
            if (alive && !alive())
                return {};
            auto& c = commands_.at(d.queue.front());
            d.queue.pop_front();
            c.state = CommandRecord::State::Delivered;
            c.deliveredAt = nowMs();
            changed_.notify_all();
            return {PollOutcome::Kind::Command,
                    {{"command", {{"id", c.id}, {"method", c.method}, {"args", c.args}}}}};
        }
        auto now = std::chrono::steady_clock::now();
        if (now >= deadline)
            return {};
        changed_.wait_until(lock, std::min(deadline, now + kAliveCheck));
        if (alive && d.queue.empty() && !alive())
            return {};
    }
}

CommandQueue::ResultStatus CommandQueue::postResult(const std::string& deviceId,
                                                    const std::string& id, nlohmann::json reply) {
    std::lock_guard lock(mutex_);
    auto it = commands_.find(id);
    if (it == commands_.end() || it->second.deviceId != deviceId)
        return ResultStatus::NotFound;
    auto& c = it->second;
    if (c.state == CommandRecord::State::Answered)
        return ResultStatus::AlreadyAnswered;
    if (c.state != CommandRecord::State::Delivered)
        return ResultStatus::NotPending;
    c.state = CommandRecord::State::Answered;
    c.reply = std::move(reply);
    c.answeredAt = nowMs();
    changed_.notify_all();
    return ResultStatus::Accepted;
}

std::string CommandQueue::enqueue(const std::string& deviceId, const std::string& method,
                                  nlohmann::json args) {
    std::lock_guard lock(mutex_);
    CommandRecord c;
    c.id = Ids::uuid();
    c.deviceId = deviceId;
    c.method = method;
    c.args = std::move(args);
    c.createdAt = nowMs();
    devices_[deviceId].queue.push_back(c.id);
    order_.push_back(c.id);
    std::string id = c.id;
    commands_.emplace(id, std::move(c));
    prune();
    changed_.notify_all();
    return id;
}

std::optional<CommandRecord> CommandQueue::wait(const std::string& id,
                                                std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    auto it = commands_.find(id);
    if (it == commands_.end())
        return std::nullopt;
    changed_.wait_for(lock, timeout, [&] { return stopping_ || it->second.finished(); });
    auto& c = it->second;
    if (c.state == CommandRecord::State::Queued) {
        auto& q = devices_[c.deviceId].queue;
        q.erase(std::remove(q.begin(), q.end(), id), q.end());
        c.state = CommandRecord::State::Expired;
        c.reason = "command_timeout";
    }
    return c;
}

std::optional<CommandRecord> CommandQueue::get(const std::string& id) {
    std::lock_guard lock(mutex_);
    auto it = commands_.find(id);
    if (it == commands_.end())
        return std::nullopt;
    return it->second;
}

std::vector<CommandRecord> CommandQueue::recent(const std::string& deviceId, size_t limit) {
    std::lock_guard lock(mutex_);
    std::vector<CommandRecord> out;
    for (auto it = order_.rbegin(); it != order_.rend() && out.size() < limit; ++it) {
        auto& c = commands_.at(*it);
        if (deviceId.empty() || c.deviceId == deviceId)
            out.push_back(c);
    }
    return out;
}

CommandQueue::Activity CommandQueue::activity(const std::string& deviceId) {
    std::lock_guard lock(mutex_);
    Activity a;
    auto it = devices_.find(deviceId);
    if (it != devices_.end()) {
        a.session = it->second.session;
        a.polling = it->second.polling;
        a.queued = static_cast<int>(it->second.queue.size());
        a.lastPollAt = it->second.lastPollAt;
    }
    for (auto& [id, c] : commands_) {
        if (c.deviceId == deviceId && c.state == CommandRecord::State::Delivered)
            ++a.inFlight;
    }
    return a;
}

void CommandQueue::prune() {
    while (order_.size() > kKeepFinished) {
        auto it = commands_.find(order_.front());
        if (it != commands_.end() && !it->second.finished())
            break;
        if (it != commands_.end())
            commands_.erase(it);
        order_.pop_front();
    }
}

void CommandQueue::shutdown() {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    changed_.notify_all();
}

}  // namespace pavix::devserver
