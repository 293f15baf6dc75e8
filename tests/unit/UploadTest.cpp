// The upload of a finished recording: the file side (fingerprint, pieces, the size limit) and
// the transfer against a scripted service on loopback, with every kind of fault, the resume
// from the service's count, and the user's retry and cancel.
#include <gtest/gtest.h>

#include <future>

#include "core/library/CaptureTransfer.h"
#include "core/session/PavixError.h"
#include "support/Failure.h"
#include "support/LibraryRecords.h"
#include "support/StudioTest.h"

namespace pavix::test {
namespace {

using nlohmann::json;
using Stage = LocalCapture::Stage;
using Fault = ScriptedUploads::Fault;
namespace fs = std::filesystem;

const std::int64_t kPiece = CaptureTransfer::kChunkSize;

// A paired computer, not sharing, with recordings in its library to retry.
class Upload : public StudioTest {
  protected:
    Upload() { pairAndLeave(); }
    LocalCapture record(const std::string& bytes) {
        auto made = addRecord(h.studio().journal(), Stage::saved, h.server.base(), bytes);
        uploads.expect(Uuid::lower(made.id));
        h.studio().loadLibrary();
        return made;
    }
    // Starts a retry and waits for it to end.
    void retry(const LocalCapture& capture) {
        h.studio().retryUpload(capture);
        ASSERT_TRUE(s().uploading && s().busy);
        ASSERT_TRUE(h.runUntil([&] { return !s().uploading; }));
        EXPECT_FALSE(s().busy);
    }
    Stage stageOnDisk(const LocalCapture& capture) {
        for (const auto& c : h.studio().journal().load()) {
            if (c.id == capture.id) {
                return c.stage;
            }
        }
        throw std::runtime_error("record is gone");
    }
    std::string uploadPath(const LocalCapture& capture, const std::string& step) {
        return path("desktop-upload/" + Uuid::lower(capture.id) + "/" + step);
    }
    std::vector<std::int64_t> chunkOffsets(const LocalCapture& capture) {
        std::vector<std::int64_t> offsets;
        for (const auto& seen : h.server.requests(uploadPath(capture, "chunk"))) {
            offsets.push_back(std::stoll(seen.header("X-Pavix-Offset")));
        }
        return offsets;
    }
    fs::path write(const std::string& name, const std::string& bytes) {
        auto file = h.library.parent_path() / name;
        fs::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << bytes;
        return file;
    }
};

// The fingerprint is the size and the lower-case SHA-256 of the whole file, across piece
// boundaries too; a file that is empty, missing or over the upload limit has none.
TEST_F(Upload, FingerprintIsTheSizeAndLowerCaseSha256OrWhyThereIsNone) {
    const auto limit = CaptureTransfer::kUploadLimit;
    auto sparse = [&](const std::string& name, std::int64_t size) {  // takes no room on disk
        auto file = write(name, "");
        fs::resize_file(file, static_cast<std::uintmax_t>(size));
        return file;
    };
    const std::vector<std::pair<fs::path, std::string>> cases{
        {write("abc.mp4", "abc"),
         "3 ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {write("large.mp4", patternedBytes(kPiece * 2 + 5)),
         "8388613 e8ca008da3fb60500965db710f1607cb9dbbbce76e1beba3d1f32c889e590ee8"},
        {sparse("exact.mp4", limit),  // the limit is a strict greater-than
         "268435456 a6d72ac7690f53be6ae46ba88506bd97302a093f7108472bd9efc3cefda06484"},
        {sparse("over.mp4", limit + 1), "Capture exceeds upload limit. Local video saved."},
        {write("empty.mp4", ""), "Local video is empty."},
        {h.library / "missing.mp4", "Could not open missing.mp4: No such file or directory"}};
    for (const auto& [file, expected] : cases) {
        std::string outcome;
        try {
            auto print = CaptureTransfer::fingerprintFile(file);
            outcome = std::to_string(print.bytes) + " " + print.sha256;
        } catch (const std::exception& e) {
            outcome = e.what();
        }
        EXPECT_EQ(outcome, expected) << file;
    }

    // Pieces are read exactly, or the file changed.
    auto bytes = patternedBytes(10'000);
    auto file = write("video.mp4", bytes);
    EXPECT_EQ(CaptureTransfer::readChunk(file, 4'000, 3'000), bytes.substr(4'000, 3'000));
    EXPECT_EQ(failureOf<PavixError>([&] { CaptureTransfer::readChunk(file, 9'000, 3'000); }),
              "Local video changed while uploading.");
}

TEST_F(Upload, EveryFaultFailsWithItsSentenceAndTheNextRetryResumesByteIdentical) {
    const auto bytes = patternedBytes(2 * kPiece + 123);
    const std::string refused = "). Try sharing again; your local files are preserved.";
    // The fault, its sentence, its diagnostic code and what the service keeps from the first
    // attempt.
    const std::vector<std::tuple<Fault, std::string, std::string, std::int64_t>> cases{
        {Fault::drop, "The network connection was lost.", "url_1005", kPiece},
        {Fault::badGateway, "Server refused the request (502" + refused, "http_502", kPiece},
        {Fault::conflict, "Server refused the request (409" + refused, "desktop_upload_offset",
         kPiece},
        {Fault::receiptBelow, "Invalid upload offset", "app_rule", 2 * kPiece},
        {Fault::receiptAbove, "Invalid upload offset", "app_rule", 2 * kPiece}};
    for (const auto& [fault, reason, code, held] : cases) {
        SCOPED_TRACE(reason);
        auto made = record(bytes);
        uploads.fault(Fault::none);
        uploads.fault(fault);
        retry(made);
        EXPECT_EQ(s().status, "Upload did not finish. Local video saved. " + reason);
        EXPECT_EQ(stageOnDisk(made), Stage::saved);
        EXPECT_EQ(readBytes(h.studio().journal().file(made.id)), bytes);
        EXPECT_EQ(s().lastErrorCode, code);
        EXPECT_EQ(uploads.upload(Uuid::lower(made.id))->data.size(), std::size_t(held));

        retry(made);
        EXPECT_EQ(s().status, "Capture recovered. Ask your agent to render and export.");
        auto upload = *uploads.upload(Uuid::lower(made.id));
        EXPECT_TRUE(upload.published);
        EXPECT_EQ(upload.begins, 2);
        EXPECT_EQ(upload.data, bytes);
        EXPECT_EQ(upload.sha256,
                  CaptureTransfer::fingerprintFile(h.studio().journal().file(made.id)).sha256);
        EXPECT_EQ(upload.media, json({{"width", 1280}, {"height", 720}, {"durationMs", 2500}}));
        // The second attempt started where the service said it stood.
        auto offsets = chunkOffsets(made);
        ASSERT_GE(offsets.size(), 3u);
        EXPECT_EQ(offsets[2], held);
        EXPECT_EQ(stageOnDisk(made), Stage::uploaded);
    }
}

TEST_F(Upload, ProgressIsWholePercent) {
    retry(record(patternedBytes(2 * kPiece + 123)));
    std::vector<std::string> progress;
    for (const auto& line : h.log.lines()) {
        if (line.rfind("status: Uploading ", 0) == 0) {
            progress.push_back(line.substr(18, 4));
        }
    }
    EXPECT_EQ(progress, (std::vector<std::string>{"49%.", "99%.", "100%"}));
}

// A retry that cannot send the file says why, keeps the video saved and sends no piece: a
// receipt that is no byte count within the file, a file shortened after its fingerprint, one
// over the limit (refused before the upload begins), one whose duration cannot be read.
TEST_F(Upload, ARetryThatCannotSendSaysWhyAndSendsNoPiece) {
    h.studio().setDiagnosticsOptIn(true);
    const auto bytes = patternedBytes(2 * kPiece + 123);  // 8388731
    using Setup = std::function<void(const fs::path& file, const std::string& begin)>;
    auto receipt = [this](std::string reply) -> Setup {
        return [this, reply](const fs::path&, const std::string& begin) {
            h.server.reply(begin, 200, reply);
        };
    };
    const std::string noReceipt = "Invalid upload receipt";
    const std::vector<std::tuple<Setup, std::string, bool>> cases{
        {receipt(R"({"received":-1})"), noReceipt, true},
        {receipt(R"({"received":8388732})"), noReceipt, true},
        {receipt(R"({})"), noReceipt, true},
        {receipt(R"({"received":"0"})"), noReceipt, true},
        {receipt(R"({"received":1.5})"), noReceipt, true},
        {receipt(R"([0])"), noReceipt, true},
        {[this](const fs::path& file, const std::string&) {
             uploads.onBegin([file] { fs::resize_file(file, 1000); });
         },
         "Local video changed while uploading.", true},
        {[](const fs::path& file, const std::string&) {
             fs::resize_file(file, static_cast<std::uintmax_t>(CaptureTransfer::kUploadLimit + 1));
         },
         "Capture exceeds upload limit. Local video saved.", false},
        {[this](const fs::path&, const std::string&) { capture.media.seconds.reset(); },
         "Local capture is incomplete. Keep the file for recovery.", false}};
    for (const auto& [setup, reason, begun] : cases) {
        SCOPED_TRACE(reason);
        auto made = record(bytes);
        auto file = h.studio().journal().file(made.id);
        setup(file, uploadPath(made, "begin"));
        retry(made);
        uploads.onBegin({});
        EXPECT_EQ(s().status, "Upload did not finish. Local video saved. " + reason);
        EXPECT_EQ(stageOnDisk(made), Stage::saved);
        EXPECT_TRUE(fs::exists(file));
        EXPECT_TRUE(chunkOffsets(made).empty());
        EXPECT_EQ(h.server.count(uploadPath(made, "begin")), begun ? 1u : 0u);
    }
    // Each retry renewed the credential first, and each failure was reported without its text.
    EXPECT_EQ(h.server.count(path("device/refresh")), cases.size());
    ASSERT_TRUE(h.runUntil([&] { return h.server.count(path("diagnostics")) == cases.size(); }));
    EXPECT_EQ(
        json::parse(h.server.requests(path("diagnostics"))[0].body),
        json({{"event", "retry_upload_failed"}, {"code", "app_rule"}, {"appVersion", "1.2.3"}}));
}

TEST_F(Upload, AServiceThatHoldsEverythingGetsOnlyCompleteAndPublish) {
    auto bytes = patternedBytes(5000);
    auto made = record(bytes);
    uploads.hold(Uuid::lower(made.id), bytes);
    retry(made);
    EXPECT_EQ(s().status, "Capture recovered. Ask your agent to render and export.");
    EXPECT_TRUE(chunkOffsets(made).empty());
    EXPECT_TRUE(uploads.upload(Uuid::lower(made.id))->published);
}

TEST_F(Upload, RetryIsOnlyForThisPairingAndAReadableVideo) {
    auto made = record("video");
    EXPECT_TRUE(h.studio().canRetry(made));
    auto otherDevice = made, noDevice = made, otherServer = made, noDuration = made,
         uploaded = made;
    otherDevice.deviceId = "device-9";
    noDevice.deviceId.reset();
    otherServer.serverOrigin = "https://elsewhere.example";
    noDuration.durationMs.reset();
    uploaded.stage = Stage::uploaded;
    for (const auto& c : {otherDevice, noDevice, otherServer, noDuration, uploaded}) {
        EXPECT_FALSE(h.studio().canRetry(c));
    }
    // Nothing starts while an agent session is shared.
    h.pairWithCode();
    EXPECT_FALSE(h.studio().canRetry(made));
    h.studio().retryUpload(made);
    EXPECT_FALSE(s().uploading);
    // Nor for a computer that is no longer paired.
    h.await(h.studio().forgetDevice());
    EXPECT_FALSE(h.studio().canRetry(made));
}

TEST_F(Upload, CancellingStopsTheUploadAndKeepsTheVideoSaved) {
    auto made = record(patternedBytes(3 * kPiece));
    auto chunkPath = uploadPath(made, "chunk");
    std::promise<void> release;
    auto released = release.get_future().share();
    h.server.on(chunkPath, [released](const httplib::Request&, httplib::Response& response) {
        released.wait_for(std::chrono::seconds(5));  // a slow service
        response.status = 503;
    });
    h.studio().retryUpload(made);
    ASSERT_TRUE(h.runUntil([&] { return h.server.count(chunkPath) == 1; }));
    h.await(h.studio().cancelUpload());
    ASSERT_TRUE(h.runUntil([&] { return !s().uploading; }));
    release.set_value();
    EXPECT_EQ(s().status,
              "Upload canceled. Local video saved; accepted cloud bytes may remain until "
              "retention expires.");
    EXPECT_EQ(stageOnDisk(made), Stage::saved);
    EXPECT_FALSE(s().busy);
    EXPECT_EQ(h.server.count(chunkPath), 1u);
}

}  // namespace
}  // namespace pavix::test
