#pragma once

#include "devserver/Database.h"
#include "devserver/Reply.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace pavix::devserver {

struct UploadRecord {
    std::string id;
    std::string deviceId;
    int64_t bytes = 0;
    std::string sha256;
    nlohmann::json media;
    int64_t received = 0;
    std::string state;  // "receiving", "complete", "published"
    int64_t createdAt = 0;
    std::optional<int64_t> completedAt;
    std::optional<int64_t> publishedAt;

    nlohmann::json toJson() const;
};

// Capture ids and the resumable uploads. Bytes live in files under
// <data>/uploads/<id>.bin, state in SQLite, so a partial upload survives a restart: at start the
// file and the recorded count are reconciled (bytes past the count are cut off).
class UploadStore {
  public:
    static constexpr int64_t kMaxUploadBytes = 268435456;  // 256 MiB
    static constexpr int64_t kMaxChunkBytes = 4194304;     // 4 MiB

    UploadStore(Database& db, std::string dataDir);

    // "desktop-recording/begin": one capture id per (device, request id), so a retried request
    // gets the same id.
    std::string issueCapture(const std::string& deviceId, const std::string& requestId);
    // A capture id the agent handed to a device in "startRecording". False when the id already
    // belongs to another device.
    bool registerAgentCapture(const std::string& id, const std::string& deviceId);

    Reply begin(const std::string& deviceId, const std::string& id, int64_t bytes,
                const std::string& sha256, const nlohmann::json& media);
    Reply chunk(const std::string& deviceId, const std::string& id, int64_t offset,
                const std::string& data);
    Reply complete(const std::string& deviceId, const std::string& id);
    Reply publish(const std::string& deviceId, const std::string& id);

    std::vector<UploadRecord> uploads(bool publishedOnly);
    std::optional<UploadRecord> upload(const std::string& id);
    std::string filePath(const std::string& id) const;

  private:
    std::optional<UploadRecord> load(const std::string& id);  // mutex held
    // Checks the capture exists and belongs to the device; an error reply otherwise.
    std::optional<Reply> checkCapture(const std::string& deviceId, const std::string& id);
    void reconcile();

    Database& db_;
    std::string dir_;
    std::mutex mutex_;  // serialises the upload operations (file and row together)
};

}  // namespace pavix::devserver
