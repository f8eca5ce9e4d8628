// What holds of queues, timers and waits over every dispatcher: the daemon's threads and a test's manual clock.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/dispatch.h"
#include "platform/fakes/manual_dispatcher.h"
#include "platform/linux/thread_dispatcher.h"

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;

constexpr auto never = 1h;  // of a wait that is to be ended by a signal

struct OnThreads {
    OnThreads() { dispatcher.start(); }
    ThreadDispatcher dispatcher{{.workers = 2}};
};

struct ByHand {
    ManualDispatcher dispatcher;
};

template <class Provider>
class DispatchTest : public testing::Test {
protected:
    Dispatcher& dispatcher() { return _provider.dispatcher; }
    auto note(std::string word) {
        return [this, word = std::move(word)] { heard.push_back(word); };
    }
    /// Waits until everything queued on `queue` so far has run.
    static void settle(const SerialQueue& queue) {
        queue.sync([] {});
    }

    std::vector<std::string> heard;  ///< on one queue at a time
    using Words = std::vector<std::string>;

private:
    Provider _provider;
};

using Providers = testing::Types<OnThreads, ByHand>;
TYPED_TEST_SUITE(DispatchTest, Providers);

TYPED_TEST(DispatchTest, ASerialQueueRunsInOrderAndSyncComesAfterWhatIsQueued) {
    SerialQueue queue(this->dispatcher(), "test.queue");
    std::vector<int> order;
    for (int item = 0; item < 1000; ++item) queue.async([&order, item] { order.push_back(item); });
    const auto count = queue.sync([&] { return order.size(); });
    EXPECT_EQ(count, 1000u);
    EXPECT_TRUE(std::ranges::is_sorted(order));
}

TYPED_TEST(DispatchTest, SyncRunsOnTheCallersThreadAndPassesTheResultAndExceptionsOn) {
    SerialQueue queue(this->dispatcher(), "test.queue");
    EXPECT_EQ(queue.sync([] { return std::this_thread::get_id(); }), std::this_thread::get_id());
    EXPECT_THROW(queue.sync([] { throw std::runtime_error("mine"); }), std::runtime_error);
    EXPECT_EQ(*queue.sync([] { return std::make_unique<int>(7); }), 7);  // the queue is free again
}

TYPED_TEST(DispatchTest, AQueueIsCurrentInItsItemsAlone) {
    SerialQueue queue(this->dispatcher(), "test.queue");
    SerialQueue other(this->dispatcher(), "test.other");
    EXPECT_FALSE(queue.isCurrent());
    bool inItem = false, otherInItem = true, inNested = false;
    queue.async([&] {
        queue.assertCurrent();
        inItem = queue.isCurrent();
        otherInItem = other.isCurrent();
        inNested = other.sync([&] { return queue.isCurrent() && other.isCurrent(); });
    });
    this->settle(queue);
    EXPECT_TRUE(inItem);
    EXPECT_FALSE(otherInItem);
    EXPECT_TRUE(inNested);
    EXPECT_FALSE(queue.isCurrent());
}

TYPED_TEST(DispatchTest, ReadsSeeEveryBarrierBeforeThem) {
    ConcurrentQueue queue(this->dispatcher(), "test.queue");
    int value = 0;
    for (int round = 1; round <= 200; ++round) {
        queue.barrierAsync([&] { ++value; });
        EXPECT_EQ(queue.sync([&] { return value; }), round);
    }
    queue.barrierAsync([&] { value = 0; });
    EXPECT_EQ(queue.barrierSync([&] {
        queue.assertBarrier();
        return value;
    }),
              0);
    queue.sync([&] { queue.assertCurrent(); });
}

TYPED_TEST(DispatchTest, CloseRunsWhatIsQueuedAndDropsTheRest) {
    SerialQueue queue(this->dispatcher(), "test.queue");
    auto kept = std::make_shared<int>();
    queue.async(this->note("queued"));
    queue.after(1h, [kept] {});
    EXPECT_EQ(kept.use_count(), 2);
    queue.close();
    EXPECT_EQ(kept.use_count(), 1);  // let go at once, not when it would have been due
    queue.async([this, kept] { this->heard.push_back("late"); });
    queue.after(0s, [this, kept] { this->heard.push_back("later"); });
    EXPECT_EQ(kept.use_count(), 1);
    EXPECT_EQ(queue.sync([] { return 1; }), 1);
    EXPECT_EQ(this->heard, std::vector<std::string>{"queued"});
}

TYPED_TEST(DispatchTest, CloseOnTheQueueItselfLetsWhatIsQueuedRun) {
    SerialQueue queue(this->dispatcher(), "test.queue");
    queue.sync([&] {
        queue.async(this->note("queued"));
        queue.close();
        queue.async(this->note("late"));
    });
    this->settle(queue);
    EXPECT_EQ(this->heard, std::vector<std::string>{"queued"});
}

TYPED_TEST(DispatchTest, AQueueMayBeDestroyedFromItsOwnItems) {
    auto dropped = std::make_shared<int>();
    TaskGroup done(this->dispatcher());

    done.enter();
    auto* inBlock = new SerialQueue(this->dispatcher(), "test.block");
    inBlock->async([&] {
        inBlock->async([dropped] { ADD_FAILURE() << "ran without its owner"; });
        delete inBlock;
        done.leave();
    });
    ASSERT_TRUE(done.wait(never));

    auto* inSync = new SerialQueue(this->dispatcher(), "test.sync");
    inSync->sync([&] {
        inSync->async([dropped] { ADD_FAILURE() << "ran without its owner"; });
        delete inSync;
    });
    EXPECT_EQ(dropped.use_count(), 1);
}

TYPED_TEST(DispatchTest, DelayedWorkRunsOnItsQueueInTheOrderOfItsTimes) {
    SerialQueue queue(this->dispatcher(), "test.queue");
    TaskGroup done(this->dispatcher());
    for (int item = 0; item < 2; ++item) done.enter();
    const auto start = this->dispatcher().now();
    std::optional<MonotonicTime> end;
    queue.after(20ms, [&] {
        queue.assertCurrent();
        this->heard.push_back("late");
        end = this->dispatcher().now();
        done.leave();
    });
    queue.after(10ms, [&] {
        queue.assertCurrent();
        this->heard.push_back("early");
        done.leave();
    });
    ASSERT_TRUE(done.wait(never));
    EXPECT_EQ(this->heard, (std::vector<std::string>{"early", "late"}));
    EXPECT_GE(*end - start, 20ms);

    for (int item = 0; item < 2; ++item) done.enter();
    GlobalQueue(this->dispatcher(), Priority::background).after(1ms, [&] { done.leave(); });
    GlobalQueue(this->dispatcher(), Priority::high).async([&] { done.leave(); });
    EXPECT_TRUE(done.wait(never));
}

TYPED_TEST(DispatchTest, ATimerFiresOnceAndIsUnarmedFromThenOn) {
    SerialQueue queue(this->dispatcher(), "test.queue");
    Timer timer(queue);
    Semaphore fired(this->dispatcher(), 0);
    EXPECT_FALSE(timer.armed());
    bool armedInBlock = true;
    timer.armAfter(1ms, [&] {
        queue.assertCurrent();
        armedInBlock = timer.armed();
        fired.signal();
    });
    EXPECT_TRUE(fired.wait(never));
    this->settle(queue);
    EXPECT_FALSE(armedInBlock);
    EXPECT_FALSE(fired.wait(5ms));
}

TYPED_TEST(DispatchTest, ReArmingReplacesAndCancellingForgets) {
    SerialQueue queue(this->dispatcher(), "test.queue");
    Timer timer(queue);
    Semaphore fired(this->dispatcher(), 0);
    auto held = std::make_shared<int>();
    timer.armAfter(1h, [held] {});
    timer.armAfter(1ms, [&] { fired.signal(); });
    EXPECT_EQ(held.use_count(), 1);
    EXPECT_TRUE(fired.wait(never));

    // Due and queued already, yet taken back by an item before it.
    for (int round = 0; round < 100; ++round) {
        queue.sync([&] {
            timer.armAfter(0ms, [&] { this->heard.push_back("cancelled"); });
            if (round % 2 == 0) (void)fired.wait(1ms);
            round % 3 == 0 ? timer.armAt(this->dispatcher().now() + 1h, [] {}) : timer.cancel();
        });
    }
    timer.cancel();
    (void)fired.wait(1ms);
    this->settle(queue);
    EXPECT_TRUE(this->heard.empty());
}

TYPED_TEST(DispatchTest, ASemaphoreCountsAndItsWaitRunsOut) {
    Semaphore semaphore(this->dispatcher(), 1);
    EXPECT_TRUE(semaphore.wait(0s));
    EXPECT_FALSE(semaphore.wait(0s));
    const auto start = this->dispatcher().now();
    EXPECT_FALSE(semaphore.wait(10ms));
    EXPECT_GE(this->dispatcher().now() - start, 10ms);

    // A wait that has run out takes no later signal with it.
    semaphore.signal();
    semaphore.signal();
    EXPECT_TRUE(semaphore.wait(0s));
    EXPECT_TRUE(semaphore.waitUntil({}));
    EXPECT_FALSE(semaphore.wait(0s));
}

TYPED_TEST(DispatchTest, AGroupIsWaitedForUntilAllHaveLeft) {
    TaskGroup group(this->dispatcher());
    SerialQueue queue(this->dispatcher(), "test.queue");
    EXPECT_TRUE(group.wait());
    std::atomic<int> ended = 0;
    for (int task = 0; task < 20; ++task) {
        group.enter();
        GlobalQueue(this->dispatcher(), Priority::standard).async([&] {
            ++ended;
            group.leave();
        });
    }
    group.notify(queue, this->note(std::to_string(20)));
    EXPECT_TRUE(group.wait());
    EXPECT_EQ(ended, 20);

    group.enter();
    EXPECT_FALSE(group.wait(5ms));
    group.leave();
    EXPECT_TRUE(group.wait(0s));

    Semaphore told(this->dispatcher(), 0);
    group.notify(queue, [&] { told.signal(); });
    EXPECT_TRUE(told.wait(never));
    EXPECT_EQ(this->heard, std::vector<std::string>{"20"});
}

using DispatchDeathTest = DispatchTest<ByHand>;

TEST_F(DispatchDeathTest, SyncOnAQueueThatIsHeldAbortsWithBothLabels) {
    SerialQueue outer(dispatcher(), "test.outer");
    SerialQueue inner(dispatcher(), "test.inner");
    const auto nested = [&] { outer.sync([&] { inner.sync([&] { outer.sync([] {}); }); }); };
    EXPECT_DEATH(nested(), "test.outer from the queue test.inner");

    ConcurrentQueue readers(dispatcher(), "test.readers");
    EXPECT_DEATH(readers.sync([&] { readers.sync([] {}); }), "test.readers");
}

TEST_F(DispatchDeathTest, BeingOnTheWrongQueueAborts) {
    SerialQueue queue(dispatcher(), "test.queue");
    EXPECT_DEATH(queue.assertCurrent(), "not on the queue test.queue");
    ConcurrentQueue readers(dispatcher(), "test.readers");
    EXPECT_DEATH(readers.sync([&] { readers.assertBarrier(); }), "not in a barrier");
    EXPECT_DEATH(TaskGroup(dispatcher()).leave(), "left more often");
}

}  // namespace
}  // namespace orvex::platform
