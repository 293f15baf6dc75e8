// The fault switch the reliability tests rely on: status answers, dropped connections, stalls,
// truncated and non-JSON bodies, replies lost after the work and shifted offsets, for the next N
// requests on a path; and the count of what reached a watched path.
#include "DevServerFixture.h"

#include <chrono>
#include <iterator>

namespace devtest {
namespace {

using namespace std::chrono;

class FaultSwitchTest : public ServiceTest {
  protected:
    Answer arm(const json& rule) { return Agent(base, key).post("/agent/faults", rule); }
    Answer version() {
        httplib::Client c(base);
        c.set_read_timeout(5);
        return toAnswer(c.Get("/local-browser/version"));
    }
};

TEST_F(FaultSwitchTest, StatusDropAndStallActOnTheNextRequestsThenStop) {
    ASSERT_EQ(arm({{"rule", "path=/local-browser/version,status=502,count=2"}}).status, 200);
    for (int i = 0; i < 2; ++i) {
        auto a = version();
        EXPECT_EQ(a.status, 502);
        EXPECT_EQ(a.body["error"], "fault_injected");
    }
    EXPECT_EQ(version().status, 200);
    EXPECT_TRUE(Agent(base, key).get("/agent/faults").body["faults"].empty());

    // "after" lets the first requests through; "error" sets the code.
    arm({{"path", "/local-browser/version"},
         {"status", 410},
         {"error", "local_browser_disconnected"},
         {"after", 1}});
    EXPECT_EQ(version().status, 200);
    auto a = version();
    EXPECT_EQ(a.status, 410);
    EXPECT_EQ(a.body["error"], "local_browser_disconnected");
    EXPECT_EQ(version().status, 200);

    arm({{"path", "/local-browser/*"}, {"action", "drop"}});
    EXPECT_EQ(version().status, 0);
    EXPECT_EQ(version().status, 200);

    arm({{"rule", "path=/local-browser/version,stall=600"}});
    auto start = steady_clock::now();
    EXPECT_EQ(version().status, 200);
    EXPECT_GE(steady_clock::now() - start, milliseconds(550));
}

TEST_F(FaultSwitchTest, BadRulesAreRefused) {
    EXPECT_EQ(arm({{"rule", "status=503"}}).body["error"], "invalid_fault");
    EXPECT_EQ(arm({{"rule", "path=/x,bogus=1"}}).body["error"], "invalid_fault");
    EXPECT_EQ(arm({{"path", "/x"}, {"action", "explode"}}).body["error"], "invalid_fault");
    for (const char* rule : {"path=/x,shift=0", "path=/x,shift=-3", "path=/x,shift=x"}) {
        EXPECT_EQ(arm({{"rule", rule}}).body["error"], "invalid_fault") << rule;
    }
    EXPECT_EQ(arm({{"path", "/x"}, {"action", "shift"}, {"shiftBytes", 0}}).body["error"],
              "invalid_fault");
    // Numbers that fit no field of a rule are refused, not narrowed.
    for (const char* field : {"status", "stallMs", "shiftBytes", "count", "after"}) {
        for (const json& value :
             {json(1e300), json(-1e300), json(2.5), json(1ULL << 40), json("503")}) {
            EXPECT_EQ(arm({{"path", "/x"}, {field, value}}).body["error"], "invalid_fault")
                << field << " " << value;
        }
    }
}

// Each action on one piece of an upload: what the client gets and what the service holds
// afterwards. Every piece on the watched path is counted with its body, faulted or not.
TEST_F(FaultSwitchTest, EachActionOnAPieceAndWhatReachedTheService) {
    struct Case {
        const char* action;  // empty: no fault
        int status;          // 0: no reply, or not a whole one
        bool json;
        const char* error;
        int64_t held;
    };
    const Case cases[] = {
        {"", 200, true, "", 1000},
        {"status=502", 502, true, "fault_injected", 0},
        {"drop", 0, false, "", 0},
        {"drop-reply", 0, false, "", 1000},
        {"truncate", 0, false, "", 1000},
        {"nonjson", 200, false, "", 1000},
        {"shift=7", 409, true, "upload_offset_mismatch", 0},
    };
    FakeApp app = paired();
    const std::string piece(1000, 'p');
    const std::string pieces = "/local-browser/desktop-upload/*/chunk";
    server->faults().watch(pieces);
    for (const auto& c : cases) {
        std::string id = app.post("desktop-recording/begin", {{"requestId", ds::Ids::uuid()}})
                             .body.value("id", "");
        ASSERT_EQ(app.post("desktop-upload/" + id + "/begin", announce(piece)).status, 200);
        if (*c.action) {
            std::string rule = "path=/local-browser/desktop-upload/" + id + "/chunk," + c.action;
            ASSERT_EQ(arm({{"rule", rule}}).status, 200);
        }
        auto a = app.chunk(id, 0, piece);
        EXPECT_EQ(a.status, c.status) << c.action << ": " << a.raw;
        EXPECT_EQ(a.body.is_object(), c.json) << c.action;
        EXPECT_EQ(a.body.is_object() ? a.body.value("error", "") : "", c.error) << c.action;
        EXPECT_EQ(server->uploads().upload(id)->received, c.held) << c.action;
    }
    auto reached = server->faults().traffic(pieces);
    EXPECT_EQ(reached.requests, std::ssize(cases));
    EXPECT_EQ(reached.bodyBytes, std::ssize(cases) * std::ssize(piece));
    EXPECT_EQ(server->faults().traffic("/local-browser/poll").requests, 0);  // not watched
}

}  // namespace
}  // namespace devtest
