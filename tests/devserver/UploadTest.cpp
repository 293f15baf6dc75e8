// The resumable upload: interrupted and resumed, refused offsets and digests, and an
// upload that outlives a restart of the service.
#include "DevServerFixture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <random>

namespace devtest {
namespace {

std::string randomBytes(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::string s(n, '\0');
    for (auto& c : s)
        c = static_cast<char>(gen());
    return s;
}

json media() {
    return {{"width", 1280}, {"height", 720}, {"durationMs", 4200}};
}

class UploadTest : public ServiceTest {
  protected:
    // A paired app with a capture id issued by desktop-recording/begin.
    void prepare() {
        app = paired();
        auto b = app.post("desktop-recording/begin", {{"requestId", ds::Ids::uuid()}});
        ASSERT_EQ(b.status, 200) << b.raw;
        id = b.body["id"];
    }
    Answer begin(const std::string& data) {
        return app.post("desktop-upload/" + id + "/begin", announce(data, media()));
    }
    // The upload's complete or publish.
    Answer step(const std::string& name) { return app.post("desktop-upload/" + id + "/" + name); }
    std::string download() {
        auto r = Agent(base, key).client().Get("/agent/recordings/" + id + "/video");
        EXPECT_TRUE(r);
        if (!r)
            return {};
        EXPECT_EQ(r->status, 200);
        EXPECT_EQ(r->get_header_value("Content-Type"), "video/mp4");
        return r->body;
    }
    // Sends headers announcing `announced` bytes, then only `sent` of them, and hangs up.
    void tornChunk(int64_t offset, const std::string& bytes, size_t sent) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(server->port()));
        inet_pton(AF_INET, "127.0.0.1", &a.sin_addr);
        ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
        std::string req =
            "POST /local-browser/desktop-upload/" + id +
            "/chunk HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Pavix-App-Version: 0.1.0\r\n"
            "Authorization: Bearer " +
            app.token + "\r\nContent-Type: application/octet-stream\r\nX-Pavix-Offset: " +
            std::to_string(offset) + "\r\nContent-Length: " + std::to_string(bytes.size()) +
            "\r\n\r\n" + bytes.substr(0, sent);
        ASSERT_EQ(::send(fd, req.data(), req.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(req.size()));
        ::close(fd);
    }

    FakeApp app{""};
    std::string id;
};

TEST_F(UploadTest, InterruptedAtEveryChunkBoundaryAndResumedEndsByteIdentical) {
    prepare();
    const size_t piece = 1 << 20;
    std::string data = randomBytes(5 * piece + 12345, 1);
    size_t boundaries = 0;
    int64_t received = -1;
    // Each round is a new attempt after an interruption: begin tells where to go on, one chunk
    // is sent whole and the next is torn off mid-way; the torn bytes are never counted.
    while (true) {
        auto b = begin(data);
        ASSERT_EQ(b.status, 200) << b.raw;
        int64_t at = b.body["received"];
        if (received >= 0) {
            EXPECT_EQ(at, received);
        }
        if (at == static_cast<int64_t>(data.size()))
            break;
        size_t n = std::min(piece, data.size() - static_cast<size_t>(at));
        auto c = app.chunk(id, at, data.substr(static_cast<size_t>(at), n));
        ASSERT_EQ(c.status, 200) << c.raw;
        received = c.body["received"];
        EXPECT_EQ(received, at + static_cast<int64_t>(n));
        ++boundaries;
        if (received < static_cast<int64_t>(data.size())) {
            size_t next = std::min(piece, data.size() - static_cast<size_t>(received));
            tornChunk(received, data.substr(static_cast<size_t>(received), next), next / 2);
        }
    }
    EXPECT_EQ(boundaries, 6u);
    auto done = step("complete");
    ASSERT_EQ(done.status, 200) << done.raw;
    ASSERT_EQ(step("publish").status, 200);
    EXPECT_EQ(download(), data);

    auto list = Agent(base, key).get("/agent/recordings").body["recordings"];
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["id"], id);
    EXPECT_EQ(list[0]["sha256"], ds::Digest::sha256(data));
    EXPECT_EQ(list[0]["media"], media());
    // Everything is held: a repeated begin, complete and publish change nothing.
    EXPECT_EQ(begin(data).body["received"], data.size());
    EXPECT_EQ(step("complete").status, 200);
    EXPECT_EQ(step("publish").status, 200);
}

TEST_F(UploadTest, WrongOffsetsSizesAndOrderAreRefused) {
    prepare();
    std::string data = randomBytes(10000, 3);
    auto refused = [&](int64_t offset, const std::string& bytes, int status, const char* error) {
        auto a = app.chunk(id, offset, bytes);
        EXPECT_EQ(a.status, status) << error;
        EXPECT_EQ(a.body["error"], error);
        return a.body;
    };
    refused(0, data.substr(0, 100), 409, "upload_not_started");
    ASSERT_EQ(begin(data).status, 200);
    ASSERT_EQ(app.chunk(id, 0, data.substr(0, 4000)).status, 200);
    // An offset off the count is told the count, from which the client resumes.
    EXPECT_EQ(refused(5000, data.substr(5000, 1000), 409, "upload_offset_mismatch")["received"],
              4000);
    EXPECT_EQ(refused(0, data.substr(0, 1000), 409, "upload_offset_mismatch")["received"], 4000);
    refused(4000, data.substr(4000) + "x", 413, "upload_exceeds_size");
    refused(4000, "", 400, "empty_chunk");
    refused(4000, std::string((4 << 20) + 1, 'x'), 413, "chunk_too_large");

    auto incomplete = step("complete");
    EXPECT_EQ(incomplete.status, 409);
    EXPECT_EQ(incomplete.body["error"], "upload_incomplete");
    EXPECT_EQ(step("publish").body["error"], "upload_not_complete");

    // Headers and body kinds.
    auto c = app.client();
    auto h = app.headers();
    EXPECT_EQ(toAnswer(c.Post("/local-browser/desktop-upload/" + id + "/chunk", h, "abc",
                              "application/octet-stream"))
                  .body["error"],
              "invalid_offset");
    h.emplace("X-Pavix-Offset", "4000");
    EXPECT_EQ(toAnswer(c.Post("/local-browser/desktop-upload/" + id + "/chunk", h, "abc",
                              "application/json"))
                  .status,
              415);
    // Nothing of the refused chunks was taken.
    EXPECT_EQ(begin(data).body["received"], 4000);
    ASSERT_EQ(app.chunk(id, 4000, data.substr(4000)).body["received"], 10000);
    EXPECT_EQ(step("complete").status, 200);
}

TEST_F(UploadTest, AWrongDigestIsRefusedAndTheBytesAreDiscarded) {
    prepare();
    std::string data = randomBytes(5000, 4);
    std::string other = data;
    other[2500] ^= 0x55;
    ASSERT_EQ(begin(data).status, 200);
    ASSERT_EQ(app.chunk(id, 0, other).status, 200);
    auto done = step("complete");
    EXPECT_EQ(done.status, 422);
    EXPECT_EQ(done.body["error"], "upload_digest_mismatch");
    EXPECT_EQ(begin(data).body["received"], 0);
    ASSERT_EQ(app.chunk(id, 0, data).status, 200);
    EXPECT_EQ(step("complete").status, 200);
    // A different file under the same capture id once bytes are held is refused.
    std::string third = randomBytes(5000, 5);
    EXPECT_EQ(begin(third).body["error"], "upload_mismatch");
}

TEST_F(UploadTest, BeginChecksTheFingerprintMediaAndCaptureOfWhicheverSideIssuedIt) {
    prepare();
    std::string path = "desktop-upload/" + id + "/begin";
    std::string sha = ds::Digest::sha256("x");
    auto check = [&](const json& body, int status, const std::string& code) {
        auto a = app.post(path, body);
        EXPECT_EQ(a.status, status) << body.dump() << " -> " << a.raw;
        EXPECT_EQ(a.body.value("error", ""), code) << body.dump();
    };
    check({{"bytes", 0}, {"sha256", sha}, {"media", media()}}, 400, "invalid_request");
    check({{"bytes", 268435457}, {"sha256", sha}, {"media", media()}}, 413, "upload_too_large");
    check({{"bytes", 1}, {"sha256", "ABC"}, {"media", media()}}, 400, "invalid_request");
    check({{"bytes", 1}, {"sha256", sha}}, 400, "invalid_request");
    check({{"bytes", 1}, {"sha256", sha}, {"media", {{"width", 1}, {"height", 1}}}}, 400,
          "invalid_request");
    check({{"bytes", 1}, {"sha256", sha}, {"media", media()}, {"name", "x"}}, 400,
          "unexpected_field");
    json withLayers = media();
    withLayers["layers"] = {{"samples", json::array()}};
    check({{"bytes", 268435456}, {"sha256", sha}, {"media", withLayers}}, 200, "");

    const json one = announce("x", media());
    auto unknown = app.post("desktop-upload/" + ds::Ids::uuid() + "/begin", one);
    EXPECT_EQ(unknown.status, 404);
    EXPECT_EQ(unknown.body["error"], "capture_not_found");
    EXPECT_EQ(app.post("desktop-upload/" + upper(id) + "/begin", one).body["error"],
              "invalid_capture_id");
    FakeApp stranger = paired("other-box");
    auto foreign = stranger.post(path, one);
    EXPECT_EQ(foreign.status, 403);
    EXPECT_EQ(foreign.body["error"], "capture_forbidden");

    // The agent hands a capture id out in "startRecording"; nobody answers, so it times out,
    // but the id is its device's to upload.
    id = ds::Ids::uuid();
    Agent(base, key).send(app.deviceId(), "startRecording", json::array({{{"captureId", id}}}),
                          100);
    ASSERT_EQ(begin("x").status, 200);
    EXPECT_EQ(app.chunk(id, 0, "x").status, 200);
}

TEST_F(UploadTest, APartialUploadSurvivesARestartOfTheService) {
    prepare();
    std::string data = randomBytes(3 * 65536 + 7, 7);
    ASSERT_EQ(begin(data).status, 200);
    ASSERT_EQ(app.chunk(id, 0, data.substr(0, 65536)).status, 200);
    ASSERT_EQ(app.chunk(id, 65536, data.substr(65536, 65536)).status, 200);
    // Bytes past the recorded count (a write the service did not finish) are cut off at start.
    server.reset();
    std::ofstream(dir.path / "uploads" / (id + ".bin"), std::ios::app | std::ios::binary)
        << "garbage";
    start();
    const json identity = app.identity;  // the credential outlives the restart
    app = FakeApp(base);
    app.remember(identity);
    auto b = begin(data);
    ASSERT_EQ(b.status, 200) << b.raw;
    EXPECT_EQ(b.body["received"], 131072);
    ASSERT_EQ(app.chunk(id, 131072, data.substr(131072)).status, 200);
    ASSERT_EQ(step("complete").status, 200);
    ASSERT_EQ(step("publish").status, 200);
    EXPECT_EQ(download(), data);
}

}  // namespace
}  // namespace devtest
