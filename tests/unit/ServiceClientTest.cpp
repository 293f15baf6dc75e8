// The service client against a real HTTP server on loopback: how requests are addressed and
// built, and how every kind of reply is read.
#include <gtest/gtest.h>

#include <fstream>

#include "core/net/TransportError.h"
#include "core/session/PavixError.h"
#include "core/session/PavixHTTPError.h"
#include "support/Failure.h"
#include "support/LibraryRecords.h"
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
    // What a post comes to, as one line: the reply's JSON, or the kind of failure with what it
    // says.
    std::string outcomeOf(const std::string& path) {
        try {
            return post(path).dump();
        } catch (const PavixHTTPError& e) {
            return "HTTP " + std::to_string(e.status()) + " " + e.code().value_or("-") + ": " +
                   e.what();
        } catch (const TransportError& e) {
            return "transport url_" + std::to_string(-e.code());
        } catch (const InvalidReplyError& e) {
            return std::string("invalid: ") + e.what();
        } catch (const std::exception& e) {
            return e.what();
        }
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
        EXPECT_EQ(failureOf<PavixError>([&] { validatedEndpoint(bad); }),
                  "Use an HTTPS server, or localhost for development.")
            << bad;
    }
}

TEST_F(ServiceClient, JsonRequestsCarryPrefixVersionTokenAndContentType) {
    // Nothing is sent before pairing set the endpoint.
    EXPECT_EQ(outcomeOf("poll"), "Not connected");
    EXPECT_TRUE(h.server.requests().empty());
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

TEST(ServiceRequestBuilding, OnlyAWholeFileGetsTheLongerTimeOut) {
    Timing timing;
    auto timeout = [&](ServiceRequests::Payload payload) {
        return ServiceRequests::build(*Url::parse("https://a.example"), std::nullopt, "1", "x",
                                      json::object(), payload, timing)
            .timeout;
    };
    EXPECT_EQ(timeout({"/tmp/video.mp4", std::nullopt, std::nullopt}), timing.fileTimeout);
    EXPECT_EQ(timeout({std::nullopt, std::string(16, 'x'), 0}), timing.pollTimeout);
    EXPECT_NE(timing.fileTimeout, timing.pollTimeout);
}

TEST_F(ServiceClient, ChunksAndFilesAreRawBytesWithOffsetAndNoExpect) {
    h.pairWithCode();
    h.server.reply("/local-browser/desktop-upload/x/chunk", 200, "{}");
    const auto chunk = patternedBytes(5u << 20);
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

TestServer::Handler answer(int status, std::string body, std::string type = "application/json") {
    return [=](const httplib::Request&, httplib::Response& r) {
        r.status = status;
        r.set_content(body, type);
    };
}

// The outcome of a refusal that names no code of the service's.
std::string refused(int status) {
    return "HTTP " + std::to_string(status) + " -: Server refused the request (" +
           std::to_string(status) + "). Try sharing again; your local files are preserved.";
}

// Only a JSON 200 succeeds (a value other than an object reads as {}). Any other status is the
// service's refusal with its code when the body names one as text; a reply that is cut short or
// larger than the 16 MiB cap is a transport failure. Redirects are never followed.
TEST_F(ServiceClient, EachKindOfReplyReadsAsItsValueOrItsFailure) {
    h.pairWithCode();
    h.server.reply("/elsewhere", 200, "{}");
    const TestServer::Handler moved = [](const httplib::Request&, httplib::Response& r) {
        r.status = 302;
        r.set_header("Location", "/elsewhere");
    };
    const TestServer::Handler cut = [](const httplib::Request&, httplib::Response& r) {
        TestServer::truncate(r, 100, 10);
    };
    const TestServer::Handler stream = [](const httplib::Request&, httplib::Response& r) {
        // A chunked reply that never declares its length and runs past the cap.
        r.set_chunked_content_provider("application/json",
                                       [](std::size_t offset, httplib::DataSink& sink) {
                                           if (offset > (20u << 20)) {
                                               sink.done();
                                               return true;
                                           }
                                           std::string block(1u << 20, ' ');
                                           return sink.write(block.data(), block.size());
                                       });
    };
    const auto full = "[" + std::string((16u << 20) - 2, ' ') + "]";  // exactly at the cap
    struct Case {
        std::string path;
        TestServer::Handler handler;
        std::string outcome;
    };
    for (const auto& c : std::vector<Case>{
             {"array", answer(200, "[1,2,3]"), "{}"},
             {"full", answer(200, full), "{}"},
             {"html", answer(200, "<html>", "text/html"),
              "invalid: The server sent a reply that is not valid JSON."},
             {"empty", answer(204, ""), refused(204)},
             {"moved", moved, refused(302)},
             {"refused", answer(400, R"({"error":"pairing_code_invalid"})"),
              "HTTP 400 pairing_code_invalid: That pairing code is invalid or expired. Ask your "
              "agent for a new one."},
             {"gateway", answer(502, "Bad Gateway", "text/plain"), refused(502)},
             {"odd", answer(500, R"({"error":{"nested":1}})"), refused(500)},
             {"cut", cut, "transport url_1005"},
             {"huge", answer(200, std::string((16u << 20) + 1, ' ')), "transport url_1103"},
             {"stream", stream, "transport url_1103"}}) {
        h.server.on("/local-browser/" + c.path, c.handler);
        EXPECT_EQ(outcomeOf(c.path), c.outcome) << c.path;
    }
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
                           {"not json", "a newer version"}}) {
        h.server.on("/local-browser/old", [&](const httplib::Request&, httplib::Response& r) {
            r.status = 426;
            r.set_content(c.body, "application/json");
        });
        EXPECT_EQ(outcomeOf("old"), refused(426));
        EXPECT_EQ(h.studio().state().update, UpdateDecision::required(c.version)) << c.body;
    }
}

TEST_F(ServiceClient, NobodyListeningIsTheCannotConnectSentence) {
    h.studio().setServer("http://127.0.0.1:1");
    h.studio().setCode("X");
    h.await(h.studio().pair());
    EXPECT_EQ(h.studio().state().status, "Could not connect to the server.");
    EXPECT_EQ(h.studio().state().lastErrorCode, "url_1004");
}

TEST(ServiceRefusals, OnlyMomentaryOnesAreWorthAReconnect) {
    for (int status : {0, 408, 425, 429, 500, 502, 503, 504}) {
        EXPECT_TRUE(PavixHTTPError(status, std::nullopt).transient()) << status;
    }
    for (int status : {501, 505, 400, 302}) {
        EXPECT_FALSE(PavixHTTPError(status, std::nullopt).transient()) << status;
    }
    // Of the service's own codes only an ended session is worth another try.
    EXPECT_TRUE(PavixHTTPError(400, "local_browser_disconnected").transient());
    EXPECT_FALSE(PavixHTTPError(401, "device_credentials_expired").transient());
    EXPECT_FALSE(PavixHTTPError(409, "recording_in_progress").transient());
    EXPECT_FALSE(PavixHTTPError(426, "app_update_required").transient());
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
