// The recording lifecycle's rules, step by step: which steps are allowed from where, and the
// flags each state publishes.
#include <gtest/gtest.h>

#include <sstream>

#include "core/library/RecordingLifecycle.h"

namespace pavix {
namespace {

using Owner = RecordingLifecycle::Owner;

// Applies one named step and returns whether it was allowed.
bool applyStep(RecordingLifecycle& l, const std::string& step) {
    if (step == "approve")
        return l.approve(true);
    if (step == "withdraw")
        return l.approve(false);
    if (step == "pair")
        return l.beginPairing();
    if (step == "paired")
        return l.endPairing(), true;
    if (step == "start:user")
        return l.beginStart(Owner::user);
    if (step == "start:agent")
        return l.beginStart(Owner::agent);
    if (step == "started")
        return l.started("REC");
    if (step == "startFailed")
        return l.startFailed();
    if (step == "stop")
        return l.beginStop();
    if (step == "stopped")
        return l.stopped(false);
    if (step == "stopped:upload")
        return l.stopped(true);
    if (step == "retry")
        return l.beginRetry("OLD");
    if (step == "uploadEnded")
        return l.uploadEnded();
    ADD_FAILURE() << "unknown step " << step;
    return false;
}

std::string flags(const RecordingLifecycle& l) {
    std::ostringstream out;
    out << phaseText(l.phase()) << " consent=" << l.consent() << " busy=" << l.busy()
        << " recording=" << l.recording() << " manual=" << l.manual()
        << " uploading=" << l.uploading() << " holds=" << l.holdsSharing();
    return out.str();
}

// Each case is a run of steps, each marked allowed (+) or refused (-), then the flags of the
// state reached.
struct Case {
    const char* steps;
    const char* expected;
};

class Lifecycle : public ::testing::TestWithParam<Case> {};

TEST_P(Lifecycle, StepsAndFlags) {
    RecordingLifecycle l;
    std::istringstream steps(GetParam().steps);
    std::string token;
    while (steps >> token) {
        const bool allowed = token.back() == '+';
        auto before = flags(l);
        auto step = token.substr(0, token.size() - 1);
        EXPECT_EQ(applyStep(l, step), allowed) << step << " from " << before;
        if (!allowed) {
            EXPECT_EQ(flags(l), before) << "a refused " << step << " changed the state";
        }
    }
    EXPECT_EQ(flags(l), GetParam().expected) << GetParam().steps;
}

INSTANTIATE_TEST_SUITE_P(
    Recording, Lifecycle,
    ::testing::Values(
        // The agent needs the user's approval; the approval is used up by the recording.
        Case{"start:agent-", "idle consent=0 busy=0 recording=0 manual=0 uploading=0 holds=0"},
        Case{"approve+ start:agent+ started+",
             "recording consent=1 busy=0 recording=1 manual=0 uploading=0 holds=1"},
        Case{"approve+ start:agent+ started+ stop+ stop-",
             "stopping consent=1 busy=1 recording=1 manual=0 uploading=0 holds=1"},
        // The agent's upload is busy, yet a reconnect may pair beside it.
        Case{"approve+ start:agent+ started+ stop+ stopped:upload+ pair+",
             "uploading consent=0 busy=1 recording=0 manual=0 uploading=1 holds=1"},
        Case{"approve+ start:agent+ startFailed+",
             "idle consent=0 busy=0 recording=0 manual=0 uploading=0 holds=0"},
        // The user's start gives the approval; the recording and its hand-over are manual.
        Case{"start:user+", "starting consent=1 busy=1 recording=0 manual=0 uploading=0 holds=1"},
        Case{"start:user+ started+ approve- withdraw+",
             "recording consent=0 busy=0 recording=1 manual=1 uploading=0 holds=1"},
        Case{"start:user+ started+ stop+ stopped:upload+ pair- start:user- start:agent- retry-",
             "uploading consent=0 busy=1 recording=0 manual=1 uploading=1 holds=1"},
        Case{"start:user+ started+ stop+ stopped:upload+ uploadEnded+ uploadEnded-",
             "idle consent=0 busy=0 recording=0 manual=0 uploading=0 holds=0"},
        Case{"start:user+ started+ stop+ stopped+",
             "idle consent=0 busy=0 recording=0 manual=0 uploading=0 holds=0"},
        // One thing at a time: no second start, no retry beside a recording.
        Case{"start:user+ start:user- start:agent- retry- started+ started- retry-",
             "recording consent=1 busy=0 recording=1 manual=1 uploading=0 holds=1"},
        // A retry is the user's upload: nothing starts beside it, the next approval may wait.
        Case{"retry+ start:user- start:agent- retry- pair- approve+",
             "uploading consent=1 busy=1 recording=0 manual=0 uploading=1 holds=1"},
        Case{"retry+ uploadEnded+ approve+ start:agent+",
             "starting consent=1 busy=1 recording=0 manual=0 uploading=0 holds=1"},
        // Pairing holds the user's start and retry, not the agent's start.
        Case{"pair+ pair- start:user- retry- approve+ start:agent+",
             "starting consent=1 busy=1 recording=0 manual=0 uploading=0 holds=1"},
        Case{"pair+ paired+ start:user+",
             "starting consent=1 busy=1 recording=0 manual=0 uploading=0 holds=1"},
        // Steps out of order change nothing.
        Case{"started- startFailed- stop- stopped- stopped:upload- uploadEnded- withdraw+",
             "idle consent=0 busy=0 recording=0 manual=0 uploading=0 holds=0"}));

TEST(LifecycleRecord, TheRecordFollowsTheRecordingAndTheRetry) {
    RecordingLifecycle l;
    ASSERT_TRUE(l.beginStart(Owner::user) && l.started("A") && l.beginStop() && l.stopped(true));
    EXPECT_EQ(l.record(), "A");
    EXPECT_FALSE(l.retrying());
    ASSERT_TRUE(l.uploadEnded() && l.beginRetry("B"));
    EXPECT_EQ(l.record(), "B");
    EXPECT_TRUE(l.retrying());
    EXPECT_EQ(l.owner(), Owner::user);
}

}  // namespace
}  // namespace pavix
