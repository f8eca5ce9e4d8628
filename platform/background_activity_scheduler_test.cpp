#include "platform/background_activity_scheduler.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <vector>

#include "platform/counters.h"
#include "platform/fakes/fake_file_manager.h"
#include "platform/fakes/manual_dispatcher.h"
#include "platform/fakes/recording_log.h"

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;
using State = BackgroundActivity::State;
using ActivityRun = std::shared_ptr<BackgroundActivity>;

class BackgroundActivitySchedulerTest : public testing::Test {
protected:
    /// Checks in an activity whose handler leaves its run in `state`.
    void checkInLeaving(const std::string& name, State state, ActivityCriteria criteria = {}) {
        scheduler->checkIn(name, criteria, [this, state](const ActivityRun& run) {
            runs.push_back(run);
            const bool changed = state == State::run || run->setState(state);
            EXPECT_TRUE(changed);
        });
    }
    /// The error's number, 0 for success.
    int runNow(std::string_view name) {
        int code = -1;
        scheduler->run(name, [&code](const Result<void>& result) { code = result ? 0 : result.error().code; });
        time.runPending();
        return code;
    }

    /// The next process.
    void restart() { scheduler.emplace(DispatcherActivityScheduler::Services{time, counters, files, conditions}); }
    void set(Conditions now) {
        conditions.update([now](Conditions& current) { current = now; });
        time.runPending();
    }

    RecordingLog log;
    ManualDispatcher time;
    Counters counters;
    std::vector<ActivityRun> runs;
    FakeFileManager files;
    DeviceConditions conditions;
    std::optional<DispatcherActivityScheduler> scheduler{
        DispatcherActivityScheduler::Services{time, counters, files, conditions}};
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
    scheduler->checkIn("flush", {}, [&](const ActivityRun& run) {
        order.emplace_back("begins");
        EXPECT_TRUE(run->setState(State::continuing));
        if (order.size() == 1) {
            scheduler->run("flush", [&](const Result<void>&) { order.emplace_back("second answered"); });
        }
        EXPECT_TRUE(run->setState(State::done));  // the second run has not ended it
        order.emplace_back("returns");
    });
    scheduler->run("flush", [&](const Result<void>&) { order.emplace_back("first answered"); });
    time.runPending();
    EXPECT_EQ(order, (std::vector<std::string>{"begins", "returns", "first answered", "begins", "returns",
                                               "second answered"}));
    EXPECT_EQ(counters.value("activity.ended"), 0);
}

TEST_F(BackgroundActivitySchedulerTest, AnActivityIsDueAnIntervalAfterItsLastRunAcrossRestarts) {
    const ActivityCriteria everyFourHours{.interval = 4h, .grace = 1h};
    checkInLeaving("flush", State::run, everyFourHours);
    time.advance(3h);
    EXPECT_TRUE(runs.empty());
    restart();
    checkInLeaving("flush", State::run, everyFourHours);
    time.advance(59min);
    EXPECT_TRUE(runs.empty());
    time.advance(2min);
    EXPECT_EQ(runs.size(), 1u);

    time.advance(2h);
    EXPECT_EQ(runNow("flush"), 0);  // counts as a run
    time.advance(3h);
    EXPECT_EQ(runs.size(), 2u);
    time.advance(1h);
    EXPECT_EQ(runs.size(), 3u);

    scheduler.reset();
    time.jumpWall(24h);  // while nobody ran: it is overdue, once
    restart();
    checkInLeaving("flush", State::run, everyFourHours);
    time.runPending();
    EXPECT_EQ(runs.size(), 4u);
}

TEST_F(BackgroundActivitySchedulerTest, AClockThatWasWrongNeitherStopsAnActivityNorRepeatsIt) {
    const auto restartAndWait = [this](std::chrono::nanoseconds sinceClockWasWrong) {
        time.jumpWall(sinceClockWasWrong);
        restart();
        checkInLeaving("flush", State::run, {.interval = 4h, .grace = 1h});
        time.advance(3h);
    };
    restartAndWait(0s);
    EXPECT_EQ(runs.size(), 0u);
    restartAndWait(30 * 365 * 24h);  // it seems overdue, and runs
    EXPECT_EQ(runs.size(), 1u);
    restartAndWait(-30 * 365 * 24h);
    EXPECT_EQ(runs.size(), 1u);
    restartAndWait(0s);  // two processes of three hours each: the second one lives to see it
    EXPECT_EQ(runs.size(), 2u);
}

TEST_F(BackgroundActivitySchedulerTest, ADueRunWaitsForNetworkAndMainsWithoutATimer) {
    set({.isConnected = false, .isOnMains = false});
    checkInLeaving("dp", State::run, {.interval = 24h, .needsNetwork = true, .needsMains = true});
    time.advance(30h);
    EXPECT_TRUE(runs.empty());
    EXPECT_EQ(time.nextDue(), std::nullopt);
    set({.isConnected = true, .isOnMains = false});
    EXPECT_TRUE(runs.empty());
    set({.isConnected = true, .isMetered = true, .isOnMains = true});
    EXPECT_EQ(runs.size(), 1u);
    set({.isConnected = false});
    EXPECT_EQ(runNow("dp"), 0);  // whatever the criteria
    EXPECT_EQ(runs.size(), 2u);
}

TEST_F(BackgroundActivitySchedulerTest, ARunThatLastsTooLongIsEndedAndTheNextStartsAfresh) {
    checkInLeaving("flush", State::continuing, {.interval = 4h});
    time.advance(4h);
    ASSERT_EQ(runs.size(), 1u);
    time.advance(9min);
    EXPECT_EQ(runs[0]->state(), State::continuing);
    ASSERT_EQ(scheduler->activities().size(), 1u);
    EXPECT_TRUE(scheduler->activities()[0].isUnderWay);
    EXPECT_EQ(scheduler->activities()[0].due, time.wallNow() + 3h + 51min);
    time.advance(1min);
    EXPECT_EQ(runs[0]->state(), State::done);
    EXPECT_FALSE(scheduler->activities()[0].isUnderWay);
    EXPECT_EQ(counters.value("activity.ended"), 1);
    time.advance(3h + 55min);
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_EQ(runs[1]->state(), State::continuing);
}

TEST_F(BackgroundActivitySchedulerTest, AFileThatCannotBeReadIsSetAside) {
    ASSERT_TRUE((*files.stateDirectory())->replace("activities", "[1]"));
    checkInLeaving("flush", State::run, {.interval = 4h});
    time.advance(4h);
    EXPECT_EQ(runs.size(), 1u);
    EXPECT_TRUE((*files.stateDirectory())->attributes("activities.corrupt"));
}

}  // namespace
}  // namespace orvex::platform
