#include "platform/background_activity_scheduler.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "platform/counters.h"
#include "platform/fakes/manual_dispatcher.h"
#include "platform/fakes/recording_log.h"

namespace orvex::platform {
namespace {

using State = BackgroundActivity::State;
using ActivityRun = std::shared_ptr<BackgroundActivity>;

class BackgroundActivitySchedulerTest : public testing::Test {
protected:
    /// Checks in an activity whose handler leaves its run in `state`.
    void checkInLeaving(const std::string& name, State state) {
        scheduler.checkIn(name, [this, state](const ActivityRun& run) {
            runs.push_back(run);
            const bool changed = state == State::run || run->setState(state);
            EXPECT_TRUE(changed);
        });
    }
    /// The error's number, 0 for success.
    int runNow(std::string_view name) {
        int code = -1;
        scheduler.run(name, [&code](const Result<void>& result) { code = result ? 0 : result.error().code; });
        time.runPending();
        return code;
    }

    RecordingLog log;
    ManualDispatcher time;
    Counters counters;
    std::vector<ActivityRun> runs;
    DispatcherActivityScheduler scheduler{time, counters};
};

TEST_F(BackgroundActivitySchedulerTest, ARunIsDoneWhenItsHandlerReturnsWithoutTakingItOn) {
    checkInLeaving("flush", State::run);
    EXPECT_EQ(runNow("flush"), 0);
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0]->state(), State::done);
    EXPECT_FALSE(runs[0]->setState(State::continuing));
}

TEST_F(BackgroundActivitySchedulerTest, ARunThatIsTakenOnEndsWhenItsOwnerSaysSo) {
    checkInLeaving("flush", State::continuing);
    EXPECT_EQ(runNow("flush"), 0);
    EXPECT_EQ(runs[0]->state(), State::continuing);
    EXPECT_FALSE(runs[0]->setState(State::run));
    EXPECT_FALSE(runs[0]->setState(State::continuing));
    EXPECT_TRUE(runs[0]->setState(State::done));
    EXPECT_FALSE(runs[0]->setState(State::done));

    EXPECT_EQ(runNow("flush"), 0);
    EXPECT_EQ(runs.size(), 2u);
    EXPECT_EQ(counters.value("activity.ended"), 0);
}

TEST_F(BackgroundActivitySchedulerTest, ARunThatNeverEndsIsEndedForTheNext) {
    checkInLeaving("flush", State::continuing);
    checkInLeaving("other", State::continuing);
    ASSERT_EQ(runNow("flush"), 0);
    ASSERT_EQ(runNow("other"), 0);
    EXPECT_EQ(counters.value("activity.ended"), 0);
    ASSERT_EQ(runNow("flush"), 0);
    EXPECT_EQ(runs[0]->state(), State::done);
    EXPECT_EQ(runs[1]->state(), State::continuing);  // another activity's
    EXPECT_EQ(runs[2]->state(), State::continuing);
    EXPECT_EQ(counters.value("activity.ended"), 1);
    EXPECT_TRUE(log.contains(LogLevel::error, "-", "activity flush never ended"));
    EXPECT_FALSE(runs[0]->setState(State::done));  // its owner comes late
}

TEST_F(BackgroundActivitySchedulerTest, ARunWaitsForAHandlerThatHasNotReturned) {
    std::vector<std::string> order;
    scheduler.checkIn("flush", [&](const ActivityRun& run) {
        order.emplace_back("begins");
        EXPECT_TRUE(run->setState(State::continuing));
        if (order.size() == 1) {
            scheduler.run("flush", [&](const Result<void>&) { order.emplace_back("second answered"); });
        }
        EXPECT_TRUE(run->setState(State::done));  // the second run has not ended it
        order.emplace_back("returns");
    });
    scheduler.run("flush", [&](const Result<void>&) { order.emplace_back("first answered"); });
    time.runPending();
    EXPECT_EQ(order, (std::vector<std::string>{"begins", "returns", "first answered", "begins", "returns",
                                               "second answered"}));
    EXPECT_EQ(counters.value("activity.ended"), 0);
}

TEST_F(BackgroundActivitySchedulerTest, ANameThatNobodyCheckedInIsRefused) {
    EXPECT_EQ(runNow("nobody"), ENOENT);
    checkInLeaving("flush", State::run);
    EXPECT_EQ(runNow("flus"), ENOENT);
    EXPECT_TRUE(runs.empty());
}

TEST_F(BackgroundActivitySchedulerTest, CheckingInAgainReplacesTheHandler) {
    scheduler.checkIn("flush", [](const ActivityRun&) { FAIL() << "the earlier handler"; });
    checkInLeaving("flush", State::run);
    EXPECT_EQ(runNow("flush"), 0);
    EXPECT_EQ(runs.size(), 1u);
}

}  // namespace
}  // namespace orvex::platform
