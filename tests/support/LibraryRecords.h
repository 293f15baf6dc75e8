#pragma once

#include <fstream>
#include <string>

#include "core/library/CaptureJournal.h"
#include "core/runtime/Uuid.h"

namespace pavix::test {

// Bytes that differ at every position of a piece, so a piece sent twice or out of place shows.
inline std::string patternedBytes(std::size_t size) {
    std::string bytes(size, '\0');
    std::uint32_t state = 2463534242u;
    for (auto& byte : bytes) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = static_cast<char>(state);
    }
    return bytes;
}

inline std::string readBytes(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// A finished recording in the library: its video with `bytes` and its side-car.
inline LocalCapture addRecord(const CaptureJournal& journal, LocalCapture::Stage stage,
                              const std::string& server, const std::string& bytes,
                              double createdAt = 800'000'000.0) {
    LocalCapture record;
    record.id = Uuid::upper(Uuid::make());
    record.createdAt = createdAt;
    record.stage = stage;
    record.durationMs = 2500;
    record.width = 1280;
    record.height = 720;
    record.serverOrigin = server;
    record.deviceId = "device-1";
    journal.save(record);
    std::ofstream(journal.file(record.id), std::ios::binary) << bytes;
    return record;
}

}  // namespace pavix::test
