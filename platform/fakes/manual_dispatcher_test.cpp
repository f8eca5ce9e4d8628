#include "platform/fakes/manual_dispatcher.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;

class ManualDispatcherTest : public testing::Test {
protected:
    Work note(std::string word) {
        return [this, word = std::move(word)] { heard.push_back(word); };
    }
    std::chrono::nanoseconds passed() const { return time.now() - start; }
    using Words = std::vector<std::string>;

    std::vector<std::string> heard;
    ManualDispatcher time;
    MonotonicTime start = time.now();
};

TEST_F(ManualDispatcherTest, NothingRunsUntilItIsToldToAndThenInAFixedOrder) {
    time.submit(Priority::background, note("background"));
    time.submit(Priority::standard, note("first"));
    time.submit(Priority::standard, note("second"));
    time.submit(Priority::high, note("high"));
    time.submitMain(note("main"));
    EXPECT_TRUE(heard.empty());
    EXPECT_EQ(time.runPending(), 5u);
    EXPECT_EQ(heard, (Words{"main", "high", "first", "second", "background"}));
    EXPECT_EQ(passed(), 0s);
}

TEST_F(ManualDispatcherTest, AdvanceCallsWhatFallsDueEachAtItsTime) {
    SerialQueue queue(time, "test.queue");
    std::vector<std::chrono::nanoseconds> times;
    queue.after(3h, [&] { times.push_back(passed()); });
    queue.after(1h, [&] {
        times.push_back(passed());
        queue.after(1h, [&] { times.push_back(passed()); });
    });
    EXPECT_EQ(time.nextDue(), start + 1h);
    time.advance(2h);
    EXPECT_EQ(times, (std::vector<std::chrono::nanoseconds>{1h, 2h}));
    EXPECT_EQ(passed(), 2h);
    time.advance(1h - 1ns);
    EXPECT_EQ(times.size(), 2u);
    time.advance(1ns);
    EXPECT_EQ(times.back(), 3h);
    EXPECT_FALSE(time.nextDue().has_value());
}

TEST_F(ManualDispatcherTest, AWaitRunsOthersWorkThenTimersThenTheTimeOut) {
    SerialQueue queue(time, "test.queue");
    Semaphore semaphore(time, 0);
    queue.async(note("pending"));
    queue.after(200ms, note("due"));
    queue.after(400ms, note("too late"));
    EXPECT_FALSE(semaphore.wait(300ms));
    EXPECT_EQ(passed(), 300ms);
    EXPECT_EQ(heard, (Words{"pending", "due"}));

    GlobalQueue(time, Priority::standard).after(50ms, [&] { semaphore.signal(); });
    EXPECT_TRUE(semaphore.wait(300ms));
    EXPECT_EQ(passed(), 350ms);
}

TEST_F(ManualDispatcherTest, WorkInsideAWaitIsNotOnTheWaitersQueue) {
    SerialQueue waiting(time, "test.waiting");
    SerialQueue other(time, "test.other");
    Semaphore semaphore(time, 0);
    waiting.async([&] {
        waiting.async(note("after the wait"));
        other.async([&] {
            heard.push_back(waiting.isCurrent() ? "on both" : "on other");
            semaphore.signal();
        });
        heard.push_back(semaphore.wait(1s) ? "signalled" : "timed out");
        waiting.assertCurrent();
    });
    time.runPending();
    EXPECT_EQ(heard, (Words{"on other", "signalled", "after the wait"}));
    EXPECT_EQ(passed(), 0s);
}

TEST(ManualDispatcherDeathTest, ATrueDeadlockAborts) {
    const auto waitForEver = [] {
        ManualDispatcher time;
        (void)Semaphore(time, 0).waitUntil({});
    };
    EXPECT_DEATH(waitForEver(), "deadlock: a wait without a deadline");

    const auto syncBehindTheWaiter = [] {
        ManualDispatcher time;
        SerialQueue waiting(time, "test.waiting");
        GlobalQueue(time, Priority::standard).async([&] { waiting.sync([] {}); });
        waiting.sync([&] { (void)Semaphore(time, 0).wait(1s); });
    };
    EXPECT_DEATH(syncBehindTheWaiter(), "deadlock");
}

}  // namespace
}  // namespace orvex::platform
