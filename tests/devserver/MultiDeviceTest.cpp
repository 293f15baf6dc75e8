// Several devices long-polling at once: each gets its own commands and nobody else's.
#include "DevServerFixture.h"

#include <atomic>
#include <future>
#include <mutex>
#include <thread>

namespace devtest {
namespace {

class MultiDeviceTest : public ServiceTest {
    void configure(ds::Options& o) override { o.pollHoldMs = 2000; }
};

TEST_F(MultiDeviceTest, EachDeviceGetsOnlyItsOwnCommands) {
    constexpr int kDevices = 4, kCommands = 5;
    std::vector<FakeApp> apps;
    for (int i = 0; i < kDevices; ++i)
        apps.push_back(paired("box-" + std::to_string(i)));

    std::atomic<bool> stop{false};
    std::mutex seenMutex;
    std::map<std::string, std::vector<std::string>> seen;  // device -> methods it received
    std::vector<std::thread> loops;
    for (auto& app : apps) {
        loops.emplace_back([&, app] {
            // The device's command loop: poll, answer with who it is, poll again.
            while (!stop) {
                auto p = app.post("poll");
                if (p.status != 200 || !p.body.contains("command"))
                    continue;
                auto cmd = p.body["command"];
                {
                    std::lock_guard lock(seenMutex);
                    seen[app.deviceId()].push_back(cmd["method"]);
                }
                app.post("result/" + cmd["id"].get<std::string>(),
                         okReply({{"device", app.deviceId()}, {"args", cmd["args"]}}));
            }
        });
    }
    // Wait until every device is held in a poll.
    Agent agent(base, key);
    for (int i = 0; i < 100; ++i) {
        auto list = agent.get("/agent/devices").body["devices"];
        int polling = 0;
        for (auto& d : list)
            polling += d["polling"].get<bool>() ? 1 : 0;
        if (polling == kDevices)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }

    std::vector<std::future<std::pair<std::string, Answer>>> sends;
    for (int n = 0; n < kCommands; ++n) {
        for (auto& app : apps) {
            std::string device = app.deviceId();
            sends.push_back(std::async(std::launch::async, [&agent, device, n] {
                return std::make_pair(device, agent.send(device, "method-" + std::to_string(n),
                                                         json::array({n}), 10000));
            }));
        }
    }
    for (auto& f : sends) {
        auto [device, answer] = f.get();
        EXPECT_EQ(answer.status, 200) << answer.raw;  // no ASSERT: the loops must be joined
        EXPECT_EQ(answer.body["reply"]["value"]["device"], device);
    }
    stop = true;
    for (auto& t : loops)
        t.join();
    for (auto& app : apps) {
        auto& methods = seen[app.deviceId()];
        EXPECT_EQ(methods.size(), static_cast<size_t>(kCommands));
        std::sort(methods.begin(), methods.end());
        for (int n = 0; n < kCommands; ++n)
            EXPECT_EQ(methods[n], "method-" + std::to_string(n));
    }
}

}  // namespace
}  // namespace devtest
