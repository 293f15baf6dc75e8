#pragma once

#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "support/TestServer.h"

namespace pavix::test {

// The recording and upload side of the service, scripted over a TestServer: "begin" of a
// recording issues the next scripted capture id, and each expected upload keeps the bytes it
// accepted so a test can compare them with the local file. Chunk faults are scripted one per
// chunk request, in order.
class ScriptedUploads {
  public:
    enum class Fault {
        none,
        drop,          // the connection closes without a reply
        badGateway,    // 502, bytes not kept
        receiptBelow,  // bytes kept, "received" answers one byte less than held
        receiptAbove,  // bytes kept, "received" answers one byte more than the size
        conflict,      // 409 as for a wrong offset, bytes not kept
    };
    struct Upload {
        std::int64_t bytes = 0;
        std::string sha256;
        nlohmann::json media;
        std::string data;  // accepted so far
        int begins = 0;
        int chunks = 0;
        bool completed = false;
        bool published = false;
    };

    explicit ScriptedUploads(TestServer& server);

    // The next "desktop-recording/begin" answers `id` (and "captureMs" when given); the upload
    // paths of `id` are served from then on.
    void issue(const std::string& id, std::optional<nlohmann::json> captureMs = std::nullopt);
    // Serves the upload paths of `id` (for ids the agent brings itself).
    void expect(const std::string& id);
    // Pre-loads bytes as if an earlier attempt had sent them.
    void hold(const std::string& id, std::string data);
    void fault(Fault fault);
    // Runs on the server's thread when an upload begins, before it is answered.
    void onBegin(std::function<void()> hook);

    std::optional<Upload> upload(const std::string& id) const;

  private:
    void chunk(const std::string& id, const httplib::Request& request, httplib::Response& response);

    TestServer& server_;
    mutable std::mutex mutex_;
    std::map<std::string, Upload> uploads_;
    std::deque<Fault> faults_;
    std::function<void()> onBegin_;
};

}  // namespace pavix::test
