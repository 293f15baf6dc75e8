// The service client against a real HTTP server on loopback: how requests are addressed and
// built, and how every kind of reply is read.
#include <gtest/gtest.h>

#include <fstream>

#include "core/net/TransportError.h"
#include "core/session/ErrorText.h"
#include "core/session/PavixError.h"
#include "core/session/PavixHTTPError.h"
#include "support/StudioHarness.h"

namespace pavix::test {
namespace {

using nlohmann::json;

class ServiceClient : public ::testing::Test {
  protected:
    // Posts with the harness's endpoint set by pairing, so that the session token is present.
    json post(const std::string& path, json body = json::object(),
              ServiceRequests::Payload payload = {}) {
        return h.await(h.studio().post(path, std::move(body), std::move(payload)));
    }
    template <class E>
    E postFails(const std::string& path) {
        try {
            post(path);
        } catch (const E& e) {
            return e;
        }
        throw std::runtime_error("expected " + path + " to fail");
    }

    StudioHarness h;
};

TEST(ServiceEndpoint, AcceptsHttpsAndLoopbackHttpOnly) {
    using ServiceRequests::validatedEndpoint;
    for (const char* good : {"https://agent.example.com", "https://agent.example.com/",
                             "http://localhost:8080", "http://127.0.0.1", "https://h:8443"}) {
        EXPECT_NO_THROW(validatedEndpoint(good)) << good;
    }
    for (const char* bad :
         {"http://example.com", "https://example.com/api", "https://example.com/?x=1",
          "https://example.com?", "https://user@example.com", "https://u:p@example.com",
          "https://example.com/#frag", "HTTPS://example.com", "Https://example.com",
          "http://LOCALHOST:8080", "http://127.0.0.2", "ftp://localhost", "not a url", "https://",
          "", "https://exa mple.com"}) {
        try {
            validatedEndpoint(bad);
            ADD_FAILURE() << bad << " was accepted";
        } catch (const PavixError& e) {
            EXPECT_STREQ(e.what(), "Use an HTTPS server, or localhost for development.") << bad;
        }
    }
}

TEST_F(ServiceClient, NothingIsSentBeforeAnEndpointIsSet) {
    try {
        post("poll");
        FAIL() << "post without an endpoint succeeded";
    } catch (const PavixError& e) {
        EXPECT_STREQ(e.what(), "Not connected");
    }
    EXPECT_TRUE(h.server.requests().empty());
}

TEST_F(ServiceClient, JsonRequestsCarryPrefixVersionTokenAndContentType) {
    h.pairWithCode();
    h.server.reply("/local-browser/result/abc", 200, R"({"ok":true})");
    auto reply = post("result/abc", {{"value", 1}});
    EXPECT_EQ(reply, json({{"ok", true}}));

    auto seen = h.server.requests("/local-browser/result/abc");
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].method, "POST");
    EXPECT_EQ(seen[0].header("Content-Type"), "application/json");
    EXPECT_EQ(seen[0].header("X-Pavix-App-Version"), "1.2.3");
    EXPECT_EQ(seen[0].header("Authorization"),
              "Bearer " + h.service.lastCredential()["accessToken"].get<std::string>());
    EXPECT_FALSE(seen[0].hasHeader("X-Pavix-Offset"));
    EXPECT_FALSE(seen[0].hasHeader("Expect"));
    EXPECT_EQ(json::parse(seen[0].body), json({{"value", 1}}));

    // The very first request of a pairing carries no bearer token.
    auto pair = h.server.requests("/local-browser/pair");
    ASSERT_EQ(pair.size(), 1u);
    EXPECT_FALSE(pair[0].hasHeader("Authorization"));
}

TEST(ServiceRequestBuilding, ThirtySecondsForJsonAndPiecesAndTwoMinutesForAFile) {
    auto endpoint = *Url::parse("https://agent.example.com");
    Timing timing;  // the system's own durations
    ServiceRequests::Payload file;
    file.file = "/tmp/video.mp4";
    ServiceRequests::Payload piece;
    piece.chunk = std::string(16, 'x');
    piece.offset = 0;
    EXPECT_EQ(
        ServiceRequests::build(endpoint, std::nullopt, "1", "poll", json::object(), {}, timing)
            .timeout,
        std::chrono::seconds(30));
    EXPECT_EQ(ServiceRequests::build(endpoint, std::nullopt, "1", "x/chunk", json::object(), piece,
                                     timing)
                  .timeout,
              std::chrono::seconds(30));
    EXPECT_EQ(
        ServiceRequests::build(endpoint, std::nullopt, "1", "x/file", json::object(), file, timing)
            .timeout,
        std::chrono::seconds(120));
}

TEST_F(ServiceClient, ChunksAndFilesAreRawBytesWithOffsetAndNoExpect) {
    h.pairWithCode();
    h.server.reply("/local-browser/desktop-upload/x/chunk", 200, "{}");
    std::string chunk(5u << 20, '\0');
    for (std::size_t i = 0; i < chunk.size(); ++i) {
        chunk[i] = static_cast<char>(i * 7);
    }
    post("desktop-upload/x/chunk", json::object(), {std::nullopt, chunk, 8'388'608});

    auto file = std::filesystem::temp_directory_path() / "pavix-service-client-body.bin";
    std::ofstream(file, std::ios::binary) << "file body";
    post("desktop-upload/x/chunk", json::object(), {file, std::nullopt, std::nullopt});
    std::filesystem::remove(file);

    auto seen = h.server.requests("/local-browser/desktop-upload/x/chunk");
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].header("Content-Type"), "application/octet-stream");
    EXPECT_EQ(seen[0].header("X-Pavix-Offset"), "8388608");
    EXPECT_FALSE(seen[0].hasHeader("Expect"));
    EXPECT_EQ(seen[0].body, chunk);
    EXPECT_EQ(seen[1].header("Content-Type"), "application/octet-stream");
    EXPECT_EQ(seen[1].body, "file body");
    EXPECT_FALSE(seen[1].hasHeader("X-Pavix-Offset"));
}

TEST_F(ServiceClient, OnlyAJsonTwoHundredSucceeds) {
    h.pairWithCode();
    h.server.reply("/local-browser/array", 200, "[1,2,3]");
    EXPECT_EQ(post("array"), json::object());
    h.server.reply("/local-browser/string", 200, "\"text\"");
    EXPECT_EQ(post("string"), json::object());

    h.server.on("/local-browser/html", [](const httplib::Request&, httplib::Response& r) {
        r.set_content("<html>", "text/html");
    });
    EXPECT_THROW(post("html"), InvalidReplyError);

    h.server.on("/local-browser/empty",
                [](const httplib::Request&, httplib::Response& r) { r.status = 204; });
    auto noContent = postFails<PavixHTTPError>("empty");
    EXPECT_EQ(noContent.status(), 204);
    EXPECT_EQ(noContent.code(), std::nullopt);

    h.server.reply("/local-browser/created", 201, R"({"id":1})");
    EXPECT_EQ(postFails<PavixHTTPError>("created").status(), 201);

    h.server.reply("/local-browser/refused", 400, R"({"error":"pairing_code_invalid"})");
    auto refused = postFails<PavixHTTPError>("refused");
    EXPECT_EQ(refused.code(), "pairing_code_invalid");
    EXPECT_STREQ(refused.what(),
                 "That pairing code is invalid or expired. Ask your agent for a new one.");

    // A non-JSON error body, or an error that is not text, leaves the code empty.
    h.server.on("/local-browser/gateway", [](const httplib::Request&, httplib::Response& r) {
        r.status = 502;
        r.set_content("Bad Gateway", "text/plain");
    });
    EXPECT_EQ(postFails<PavixHTTPError>("gateway").code(), std::nullopt);
    h.server.reply("/local-browser/odd", 500, R"({"error":{"nested":1}})");
    EXPECT_EQ(postFails<PavixHTTPError>("odd").code(), std::nullopt);
}

TEST_F(ServiceClient, RedirectsAreNeverFollowed) {
    h.pairWithCode();
    h.server.on("/local-browser/moved", [](const httplib::Request&, httplib::Response& r) {
        r.status = 302;
        r.set_header("Location", "/elsewhere");
    });
    h.server.reply("/elsewhere", 200, "{}");
    auto error = postFails<PavixHTTPError>("moved");
    EXPECT_EQ(error.status(), 302);
    EXPECT_EQ(h.server.count("/elsewhere"), 0u);
}

TEST_F(ServiceClient, UpgradeRequiredPrefersTheLatestVersion) {
    h.pairWithCode();
    struct Case {
        std::string body;
        std::string version;
    };
    for (const auto& c :
         std::vector<Case>{{R"({"minimumAppVersion":"2.0"})", "2.0"},
                           {R"({"minimumAppVersion":"2.0","latestAppVersion":"2.4.1"})", "2.4.1"},
                           {R"({"latestAppVersion":7,"minimumAppVersion":"2.1"})", "2.1"},
                           {"", "a newer version"},
                           {"not json", "a newer version"}}) {
        h.server.on("/local-browser/old", [&](const httplib::Request&, httplib::Response& r) {
            r.status = 426;
            r.set_content(c.body, "application/json");
        });
        auto error = postFails<PavixHTTPError>("old");
        EXPECT_EQ(error.status(), 426);
        EXPECT_EQ(h.studio().state().update, UpdateDecision::required(c.version)) << c.body;
    }
}

TEST_F(ServiceClient, OversizedRepliesAreRefusedWithoutHoldingThem) {
    h.pairWithCode();
    // A declared length over the cap, and a chunked reply that never declares one.
    h.server.on("/local-browser/huge", [](const httplib::Request&, httplib::Response& r) {
        r.set_content(std::string((16u << 20) + 1, ' '), "application/json");
    });
    h.server.on("/local-browser/stream", [](const httplib::Request&, httplib::Response& r) {
        r.set_chunked_content_provider("application/json",
                                       [](std::size_t offset, httplib::DataSink& sink) {
                                           if (offset > (20u << 20)) {
                                               sink.done();
                                               return true;
                                           }
                                           std::string block(1u << 20, ' ');
                                           return sink.write(block.data(), block.size());
                                       });
    });
    for (const char* path : {"huge", "stream"}) {
        auto error = postFails<TransportError>(path);
        EXPECT_EQ(error.code(), TransportError::kDataTooLarge) << path;
        EXPECT_EQ(ErrorText::errorCode(std::make_exception_ptr(error)), "url_1103");
    }
    // Exactly at the cap is fine.
    h.server.on("/local-browser/full", [](const httplib::Request&, httplib::Response& r) {
        std::string body = "[" + std::string((16u << 20) - 2, ' ') + "]";
        r.set_content(body, "application/json");
    });
    EXPECT_EQ(post("full"), json::object());
}

TEST_F(ServiceClient, BrokenConnectionsAreTransportErrors) {
    h.pairWithCode();
    h.server.on("/local-browser/cut", [](const httplib::Request&, httplib::Response& r) {
        TestServer::truncate(r, 100, 10);
    });
    auto cut = postFails<TransportError>("cut");
    EXPECT_EQ(cut.code(), TransportError::kConnectionLost);

    // Nobody listening at all.
    h.studio().setServer("http://127.0.0.1:1");
    h.studio().setCode("X");
    h.await(h.studio().pair());
    EXPECT_EQ(h.studio().state().status, "Could not connect to the server.");
    EXPECT_EQ(h.studio().state().lastErrorCode, "url_1004");
}

TEST(ServiceRefusals, OnlyMomentaryOnesAreWorthAReconnect) {
    struct Case {
        int status;
        std::optional<std::string> code;
        bool transient;
    };
    for (const auto& c : std::vector<Case>{{0, std::nullopt, true},
                                           {408, std::nullopt, true},
                                           {425, std::nullopt, true},
                                           {429, std::nullopt, true},
                                           {500, std::nullopt, true},
                                           {502, std::nullopt, true},
                                           {503, std::nullopt, true},
                                           {504, std::nullopt, true},
                                           {400, "local_browser_disconnected", true},
                                           {501, std::nullopt, false},
                                           {505, std::nullopt, false},
                                           {400, std::nullopt, false},
                                           {401, "device_credentials_expired", false},
                                           {409, "recording_in_progress", false},
                                           {426, "app_update_required", false},
                                           {302, std::nullopt, false}}) {
        EXPECT_EQ(PavixHTTPError(c.status, c.code).transient(), c.transient)
            << c.status << " " << c.code.value_or("");
    }
}

TEST_F(ServiceClient, DiagnosticsAreSentOnlyWithOptInAndCarryNoText) {
    auto failure = std::make_exception_ptr(PavixError("Source not found. Ask for the list again."));
    h.studio().diagnose("command_failed", failure);  // no endpoint, no token: nothing sent
    h.pairWithCode();
    h.studio().diagnose("command_failed", failure);  // not opted in
    h.runFor(std::chrono::milliseconds(100));
    EXPECT_EQ(h.server.count("/local-browser/diagnostics"), 0u);
    EXPECT_EQ(h.studio().state().lastErrorCode, "app_rule");

    h.studio().setDiagnosticsOptIn(true);
    h.studio().diagnose("command_failed",
                        std::make_exception_ptr(PavixHTTPError(503, std::nullopt)));
    ASSERT_TRUE(h.runUntil([&] { return h.server.count("/local-browser/diagnostics") == 1; }));
    auto body = json::parse(h.server.requests("/local-browser/diagnostics")[0].body);
    EXPECT_EQ(body,
              json({{"event", "command_failed"}, {"code", "http_503"}, {"appVersion", "1.2.3"}}));
}

TEST_F(ServiceClient, ConsoleAddressFollowsSettingThenServer) {
    EXPECT_EQ(h.studio().consoleURL("pairing"), h.server.base() + "/#pairing");
    h.studio().setServer("https://agent.pavix.app");
    EXPECT_EQ(h.studio().consoleURL("session"), "https://app.pavix.app/#session");
    h.defaults.set("consoleURL", std::string("https://console.example.org///"));
    EXPECT_EQ(h.studio().consoleURL("recordings"), "https://console.example.org/#recordings");
    h.defaults.set("consoleURL", std::string("not a url at all"));
    EXPECT_EQ(h.studio().consoleURL("pairing"), "https://app.pavix.app/#pairing");
}

}  // namespace
}  // namespace pavix::test
