// The fault switch the reliability tests rely on: status answers, dropped connections, stalls and
// truncated bodies, for the next N requests on a path.
#include "DevServerFixture.h"

#include <chrono>

namespace devtest {
namespace {

using namespace std::chrono;

class FaultSwitchTest : public ServiceTest {
  protected:
    Answer arm(const json& rule) { return Agent(base).post("/agent/faults", rule); }
    Answer version() {
        httplib::Client c(base);
        c.set_read_timeout(5);
        return toAnswer(c.Get("/local-browser/version"));
    }
};

TEST_F(FaultSwitchTest, StatusFaultAnswersTheNextNRequestsThenStops) {
    ASSERT_EQ(arm({{"rule", "path=/local-browser/version,status=502,count=2"}}).status, 200);
    for (int i = 0; i < 2; ++i) {
        auto a = version();
        EXPECT_EQ(a.status, 502);
        EXPECT_EQ(a.body["error"], "fault_injected");
    }
    EXPECT_EQ(version().status, 200);
    EXPECT_TRUE(Agent(base).get("/agent/faults").body["faults"].empty());
}

TEST_F(FaultSwitchTest, AfterLetsTheFirstRequestsThroughAndErrorSetsTheCode) {
    FakeApp app = paired();
    arm({{"path", "/local-browser/poll"},
         {"status", 410},
         {"error", "local_browser_disconnected"},
         {"after", 1}});
    EXPECT_EQ(app.post("poll").status, 200);
    auto a = app.post("poll");
    EXPECT_EQ(a.status, 410);
    EXPECT_EQ(a.body["error"], "local_browser_disconnected");
    EXPECT_EQ(app.post("poll").status, 200);
}

TEST_F(FaultSwitchTest, DropClosesTheConnectionWithoutAReply) {
    arm({{"path", "/local-browser/*"}, {"action", "drop"}});
    EXPECT_EQ(version().status, 0);
    EXPECT_EQ(version().status, 200);
}

TEST_F(FaultSwitchTest, StallDelaysTheAnswer) {
    arm({{"rule", "path=/local-browser/version,stall=600"}});
    auto start = steady_clock::now();
    EXPECT_EQ(version().status, 200);
    EXPECT_GE(steady_clock::now() - start, milliseconds(550));
}

TEST_F(FaultSwitchTest, TruncateCutsTheBodyShort) {
    arm({{"rule", "path=/local-browser/version,truncate"}});
    httplib::Client c(base);
    std::string got;
    auto r = c.Get("/local-browser/version", [&](const char* d, size_t n) {
        got.append(d, n);
        return true;
    });
    EXPECT_FALSE(r);  // the reply ended before its Content-Length
    EXPECT_LT(got.size(),
              std::string(R"({"latestAppVersion":"0.1.0","minimumAppVersion":"0.0.0"})").size());
    EXPECT_EQ(version().status, 200);
}

TEST_F(FaultSwitchTest, BadRulesAreRefused) {
    EXPECT_EQ(arm({{"rule", "status=503"}}).body["error"], "invalid_fault");
    EXPECT_EQ(arm({{"rule", "path=/x,bogus=1"}}).body["error"], "invalid_fault");
    EXPECT_EQ(arm({{"path", "/x"}, {"action", "explode"}}).body["error"], "invalid_fault");
    // Numbers that fit no field of a rule are refused, not narrowed.
    for (const char* field : {"status", "stallMs", "count", "after"}) {
        for (const json& value :
             {json(1e300), json(-1e300), json(2.5), json(1ULL << 40), json("503")}) {
            EXPECT_EQ(arm({{"path", "/x"}, {field, value}}).body["error"], "invalid_fault")
                << field << " " << value;
        }
    }
    EXPECT_TRUE(ds::FaultSwitch::globMatch("/a/*/chunk", "/a/123/chunk"));
    EXPECT_FALSE(ds::FaultSwitch::globMatch("/a/*/chunk", "/a/123/begin"));
}

}  // namespace
}  // namespace devtest
