#include "devserver/UploadStore.h"

#include "devserver/Clock.h"
#include "devserver/Digest.h"
#include "devserver/Ids.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

namespace pavix::devserver {

namespace fs = std::filesystem;

nlohmann::json UploadRecord::toJson() const {
    nlohmann::json j = {{"id", id},         {"deviceId", deviceId},  {"bytes", bytes},
                        {"sha256", sha256}, {"media", media},        {"received", received},
                        {"state", state},   {"createdAt", createdAt}};
    if (completedAt)
        j["completedAt"] = *completedAt;
    if (publishedAt)
        j["publishedAt"] = *publishedAt;
    return j;
}

UploadStore::UploadStore(Database& db, std::string dataDir)
    : db_(db), dir_(std::move(dataDir) + "/uploads") {
    fs::create_directories(dir_);
    {
        std::lock_guard lock(db_.mutex());
        db_.exec(R"(
            CREATE TABLE IF NOT EXISTS captures(
                id TEXT PRIMARY KEY, device_id TEXT NOT NULL, request_id TEXT,
                origin TEXT NOT NULL, created_at INTEGER NOT NULL);
            CREATE UNIQUE INDEX IF NOT EXISTS captures_request ON captures(device_id, request_id);
            CREATE TABLE IF NOT EXISTS uploads(
                id TEXT PRIMARY KEY, device_id TEXT NOT NULL, bytes INTEGER NOT NULL,
                sha256 TEXT NOT NULL, media TEXT NOT NULL, received INTEGER NOT NULL,
                state TEXT NOT NULL, created_at INTEGER NOT NULL, completed_at INTEGER,
                published_at INTEGER);
        )");
    }
    reconcile();
}

std::string UploadStore::filePath(const std::string& id) const {
    return dir_ + "/" + id + ".bin";
}

void UploadStore::reconcile() {
    std::lock_guard lock(mutex_);
    std::lock_guard dbLock(db_.mutex());
    Statement s(db_, "SELECT id, received FROM uploads WHERE state = 'receiving'");
    std::vector<std::pair<std::string, int64_t>> rows;
    while (s.step())
        rows.emplace_back(s.text(0), s.integer(1));
    for (auto& [id, received] : rows) {
        std::error_code ec;
        auto path = filePath(id);
        int64_t size = fs::exists(path, ec) ? static_cast<int64_t>(fs::file_size(path, ec)) : 0;
        if (size > received) {
            fs::resize_file(path, static_cast<uintmax_t>(received), ec);
        } else if (size < received) {
            Statement(db_, "UPDATE uploads SET received = ? WHERE id = ?")
                .bind(1, size)
                .bind(2, id)
                .run();
        }
    }
}

std::string UploadStore::issueCapture(const std::string& deviceId, const std::string& requestId) {
    std::lock_guard lock(db_.mutex());
    Statement find(db_, "SELECT id FROM captures WHERE device_id = ? AND request_id = ?");
    find.bind(1, deviceId).bind(2, requestId);
    if (find.step())
        return find.text(0);
    std::string id = Ids::uuid();
    Statement(db_,
              "INSERT INTO captures(id, device_id, request_id, origin, created_at) "
              "VALUES(?,?,?,'recording',?)")
        .bind(1, id)
        .bind(2, deviceId)
        .bind(3, requestId)
        .bind(4, nowMs())
        .run();
    return id;
}

bool UploadStore::registerAgentCapture(const std::string& id, const std::string& deviceId) {
    std::lock_guard lock(db_.mutex());
    Statement find(db_, "SELECT device_id FROM captures WHERE id = ?");
    find.bind(1, id);
    if (find.step())
        return find.text(0) == deviceId;
    Statement(db_,
              "INSERT INTO captures(id, device_id, request_id, origin, created_at) "
              "VALUES(?,?,NULL,'agent',?)")
        .bind(1, id)
        .bind(2, deviceId)
        .bind(3, nowMs())
        .run();
    return true;
}

std::optional<Reply> UploadStore::checkCapture(const std::string& deviceId, const std::string& id) {
    std::lock_guard lock(db_.mutex());
    Statement find(db_, "SELECT device_id FROM captures WHERE id = ?");
    find.bind(1, id);
    if (!find.step())
        return Reply::error(404, "capture_not_found");
    if (find.text(0) != deviceId)
        return Reply::error(403, "capture_forbidden");
    return std::nullopt;
}

std::optional<UploadRecord> UploadStore::load(const std::string& id) {
    std::lock_guard lock(db_.mutex());
    Statement s(db_,
                "SELECT id, device_id, bytes, sha256, media, received, state, created_at, "
                "completed_at, published_at FROM uploads WHERE id = ?");
    s.bind(1, id);
    if (!s.step())
        return std::nullopt;
    UploadRecord r;
    r.id = s.text(0);
    r.deviceId = s.text(1);
    r.bytes = s.integer(2);
    r.sha256 = s.text(3);
    r.media = nlohmann::json::parse(s.text(4), nullptr, false);
    r.received = s.integer(5);
    r.state = s.text(6);
    r.createdAt = s.integer(7);
    r.completedAt = s.optInteger(8);
    r.publishedAt = s.optInteger(9);
    return r;
}

Reply UploadStore::begin(const std::string& deviceId, const std::string& id, int64_t bytes,
                         const std::string& sha256, const nlohmann::json& media) {
    std::lock_guard lock(mutex_);
    if (auto refusal = checkCapture(deviceId, id))
        return *refusal;
    auto existing = load(id);
    std::lock_guard dbLock(db_.mutex());
    if (existing) {
        if (existing->bytes == bytes && existing->sha256 == sha256) {
            Statement(db_, "UPDATE uploads SET media = ? WHERE id = ?")
                .bind(1, media.dump())
                .bind(2, id)
                .run();
            return Reply::ok({{"received", existing->received}});
        }
        if (existing->state != "receiving" || existing->received > 0) {
            return Reply::error(409, "upload_mismatch",
                                {{"detail",
                                  "this capture is already being uploaded with another "
                                  "size or digest"},
                                 {"received", existing->received}});
        }
        Statement(db_, "UPDATE uploads SET bytes = ?, sha256 = ?, media = ? WHERE id = ?")
            .bind(1, bytes)
            .bind(2, sha256)
            .bind(3, media.dump())
            .bind(4, id)
            .run();
        return Reply::ok({{"received", 0}});
    }
    int fd = ::open(filePath(id).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0)
        return Reply::error(500, "storage_failed");
    ::close(fd);
    Statement(db_,
              "INSERT INTO uploads(id, device_id, bytes, sha256, media, received, state, "
              "created_at) VALUES(?,?,?,?,?,0,'receiving',?)")
        .bind(1, id)
        .bind(2, deviceId)
        .bind(3, bytes)
        .bind(4, sha256)
        .bind(5, media.dump())
        .bind(6, nowMs())
        .run();
    return Reply::ok({{"received", 0}});
}

Reply UploadStore::chunk(const std::string& deviceId, const std::string& id, int64_t offset,
                         const std::string& data) {
    std::lock_guard lock(mutex_);
    if (auto refusal = checkCapture(deviceId, id))
        return *refusal;
    auto up = load(id);
    if (!up)
        return Reply::error(409, "upload_not_started");
    if (up->state != "receiving") {
        return Reply::error(409, "upload_already_complete", {{"received", up->received}});
    }
    if (offset != up->received) {
        return Reply::error(409, "upload_offset_mismatch",
                            {{"received", up->received}, {"offset", offset}});
    }
    if (data.empty())
        return Reply::invalid("a chunk must carry at least one byte", "empty_chunk");
    if (static_cast<int64_t>(data.size()) > kMaxChunkBytes) {
        return Reply::error(413, "chunk_too_large", {{"maximum", kMaxChunkBytes}});
    }
    if (offset + static_cast<int64_t>(data.size()) > up->bytes) {
        return Reply::error(413, "upload_exceeds_size",
                            {{"received", up->received}, {"bytes", up->bytes}});
    }
    int fd = ::open(filePath(id).c_str(), O_WRONLY | O_CREAT, 0600);
    if (fd < 0)
        return Reply::error(500, "storage_failed");
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::pwrite(fd, data.data() + done, data.size() - done,
                             static_cast<off_t>(offset + static_cast<int64_t>(done)));
        if (n <= 0) {
            ::close(fd);
            return Reply::error(500, "storage_failed");
        }
        done += static_cast<size_t>(n);
    }
    ::close(fd);
    int64_t received = offset + static_cast<int64_t>(data.size());
    std::lock_guard dbLock(db_.mutex());
    Statement(db_, "UPDATE uploads SET received = ? WHERE id = ?")
        .bind(1, received)
        .bind(2, id)
        .run();
    return Reply::ok({{"received", received}});
}

Reply UploadStore::complete(const std::string& deviceId, const std::string& id) {
    std::lock_guard lock(mutex_);
    if (auto refusal = checkCapture(deviceId, id))
        return *refusal;
    auto up = load(id);
    if (!up)
        return Reply::error(409, "upload_not_started");
    if (up->state != "receiving") {
        return Reply::ok({{"id", id}, {"state", up->state}, {"received", up->bytes}});
    }
    std::error_code ec;
    auto size = fs::file_size(filePath(id), ec);
    if (up->received != up->bytes || ec || static_cast<int64_t>(size) != up->bytes) {
        return Reply::error(409, "upload_incomplete",
                            {{"received", up->received}, {"bytes", up->bytes}});
    }
    auto digest = Digest::sha256File(filePath(id), up->bytes);
    std::lock_guard dbLock(db_.mutex());
    if (!digest || *digest != up->sha256) {
        // The bytes held are not the announced file: discard them so a new attempt starts over.
        fs::resize_file(filePath(id), 0, ec);
        Statement(db_, "UPDATE uploads SET received = 0 WHERE id = ?").bind(1, id).run();
        return Reply::error(
            422, "upload_digest_mismatch",
            {{"received", 0}, {"expected", up->sha256}, {"actual", digest.value_or("")}});
    }
    Statement(db_, "UPDATE uploads SET state = 'complete', completed_at = ? WHERE id = ?")
        .bind(1, nowMs())
        .bind(2, id)
        .run();
    return Reply::ok({{"id", id}, {"state", "complete"}, {"received", up->bytes}});
}

Reply UploadStore::publish(const std::string& deviceId, const std::string& id) {
    std::lock_guard lock(mutex_);
    if (auto refusal = checkCapture(deviceId, id))
        return *refusal;
    auto up = load(id);
    if (!up)
        return Reply::error(409, "upload_not_started");
    if (up->state == "receiving") {
        return Reply::error(409, "upload_not_complete",
                            {{"received", up->received}, {"bytes", up->bytes}});
    }
    if (up->state == "complete") {
        std::lock_guard dbLock(db_.mutex());
        Statement(db_, "UPDATE uploads SET state = 'published', published_at = ? WHERE id = ?")
            .bind(1, nowMs())
            .bind(2, id)
            .run();
    }
    return Reply::ok({{"id", id}, {"state", "published"}});
}

std::vector<UploadRecord> UploadStore::uploads(bool publishedOnly) {
    std::vector<std::string> ids;
    {
        std::lock_guard lock(db_.mutex());
        Statement s(db_, publishedOnly
                             ? "SELECT id FROM uploads WHERE state = 'published' ORDER BY "
                               "published_at DESC"
                             : "SELECT id FROM uploads ORDER BY created_at DESC");
        while (s.step())
            ids.push_back(s.text(0));
    }
    std::vector<UploadRecord> out;
    for (auto& id : ids) {
        if (auto r = load(id))
            out.push_back(std::move(*r));
    }
    return out;
}

std::optional<UploadRecord> UploadStore::upload(const std::string& id) {
    return load(id);
}

}  // namespace pavix::devserver
