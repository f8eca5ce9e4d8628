#include "platform/linux/thread_dispatcher.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <latch>
#include <random>
#include <set>
#include <thread>
#include <vector>

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;

constexpr auto never = 1h;  // of a wait that is to be ended by a signal

TEST(ThreadDispatcherTest, WhatComesBeforeTheStartWaitsForItAndSyncDoesNot) {
    ThreadDispatcher dispatcher({.workers = 2});
    SerialQueue queue(dispatcher, "test.queue");
    std::atomic<int> ran = 0;
    TaskGroup group(dispatcher);
    for (int item = 0; item < 3; ++item) group.enter();
    GlobalQueue(dispatcher, Priority::high).async([&] {
        ++ran;
        group.leave();
    });
    queue.after(0s, [&] {
        ++ran;
        group.leave();
    });
    queue.async([&] { group.leave(); });
    queue.sync([] {});  // runs what is before it
    EXPECT_FALSE(group.wait(5ms));
    EXPECT_EQ(ran, 0);
    dispatcher.start();
    EXPECT_TRUE(group.wait(never));
    EXPECT_EQ(ran, 2);
}

TEST(ThreadDispatcherTest, TheMainQueueRunsOnItsThreadUntilStopped) {
    ThreadDispatcher dispatcher({.workers = 2});
    dispatcher.start();
    std::vector<std::thread::id> threads;
    const MainQueue main(dispatcher);
    main.after(1ms, [&] {
        threads.push_back(std::this_thread::get_id());
        GlobalQueue(dispatcher, Priority::standard).async([&] {
            main.async([&] { threads.push_back(std::this_thread::get_id()); });
            main.async([&] {
                dispatcher.stopMain(3);
                dispatcher.stopMain(4);
                main.async([] {});  // stays behind
            });
        });
    });
    EXPECT_EQ(dispatcher.runMain(), 3);
    EXPECT_EQ(threads, std::vector(2, std::this_thread::get_id()));
}

TEST(ThreadDispatcherTest, ADestroyedDispatcherDestroysWhatHasNotRun) {
    auto held = std::make_shared<int>();
    {
        ThreadDispatcher dispatcher({.workers = 1});
        dispatcher.submitMain([held] {});
        dispatcher.schedule(dispatcher.now() + 1h, {}, [held] {});
        for (int item = 0; item < 100; ++item) dispatcher.submit(Priority::background, [held] {});
        EXPECT_EQ(held.use_count(), 103);
        dispatcher.start();
    }
    EXPECT_EQ(held.use_count(), 1);
}

// With leeway the timer of the later date waits for the earlier one's end of leeway, and both come in one go.
TEST(ThreadDispatcherTest, TimersWithLeewayShareAWakeUp) {
    ThreadDispatcher dispatcher({.workers = 2});
    dispatcher.start();
    const auto start = dispatcher.now();
    TaskGroup group(dispatcher);
    std::array<MonotonicTime, 2> fired;
    for (auto* time : {&fired[0], &fired[1]}) {
        group.enter();
        const auto due = start + (time == &fired[0] ? 1ms : 20ms);
        dispatcher.schedule(due, time == &fired[0] ? 30ms : 1h, [&, time] {
            *time = dispatcher.now();
            group.leave();
        });
    }
    ASSERT_TRUE(group.wait(never));
    EXPECT_GE(fired[0] - start, 31ms);
    EXPECT_GE(fired[1] - start, 31ms);
}

// Each waiter blocks the only worker; the one that lets them go comes last.
TEST(ThreadDispatcherTest, APoolOfOneIsNotStarvedByManyWaiters) {
    ThreadDispatcher dispatcher({.workers = 1, .spares = 256});
    dispatcher.start();
    constexpr int waiters = 200;
    Semaphore release(dispatcher, 0);
    SerialQueue held(dispatcher, "test.held");
    TaskGroup ended(dispatcher);
    const GlobalQueue pool(dispatcher, Priority::standard);
    held.async([&] { EXPECT_TRUE(release.wait(never)); });
    for (int waiter = 0; waiter < waiters; ++waiter) {
        ended.enter();
        pool.async([&, waiter] {
            if (waiter % 2 == 0) {
                EXPECT_TRUE(release.wait(never));
            } else {
                held.sync([] {});
            }
            ended.leave();
        });
    }
    GlobalQueue(dispatcher, Priority::background).async([&] {
        for (int signal = 0; signal < waiters / 2 + 1; ++signal) release.signal();
    });
    EXPECT_TRUE(ended.wait(never));
}

TEST(ThreadDispatcherTest, NoMoreRunAtATimeThanTheLimit) {
    ThreadDispatcher dispatcher({.workers = 2, .spares = 8});
    dispatcher.start();
    std::atomic<int> running = 0, most = 0;
    TaskGroup group(dispatcher);
    for (int item = 0; item < 2000; ++item) {
        group.enter();
        dispatcher.submit(Priority::standard, [&] {
            const int now = ++running;
            for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) continue;
            --running;
            group.leave();
        });
    }
    ASSERT_TRUE(group.wait(never));
    EXPECT_LE(most, 2);
}

TEST(ThreadDispatcherTest, SyncBehindARunningItemWaitsForItAndTakesTheRestOver) {
    ThreadDispatcher dispatcher({.workers = 2});
    dispatcher.start();
    SerialQueue queue(dispatcher, "test.queue");
    std::latch began(1);
    Semaphore release(dispatcher, 0);
    std::thread::id second;
    queue.async([&] {
        began.count_down();
        EXPECT_TRUE(release.wait(never));
    });
    began.wait();
    queue.async([&] { second = std::this_thread::get_id(); });
    dispatcher.submit(Priority::standard, [&] { release.signal(); });
    queue.sync([&] { EXPECT_NE(second, std::thread::id()); });
}

TEST(ThreadDispatcherTest, ReadsRunSideBySideAndABarrierKeepsItsPlace) {
    ThreadDispatcher dispatcher({.workers = 2});
    dispatcher.start();
    ConcurrentQueue queue(dispatcher, "test.queue");
    int value = 0;
    std::latch bothInside(2);
    std::jthread other([&] { queue.sync([&] { bothInside.arrive_and_wait(); }); });
    queue.sync([&] { bothInside.arrive_and_wait(); });

    // While a read holds the queue, a barrier comes, and then a read: that one sees what the barrier wrote.
    std::optional<std::jthread> late;
    queue.sync([&] {
        queue.barrierAsync([&] { value = 1; });
        late.emplace([&] { EXPECT_EQ(queue.sync([&] { return value; }), 1); });
    });
}

// Every way in at once, from pool threads and others; each queue's data is touched on that queue alone.
class DispatchStressTest : public testing::TestWithParam<std::size_t> {
protected:
    static constexpr int rounds = 400;
    static constexpr int threads = 4;

    void hammer(unsigned seed) {
        std::minstd_rand random(seed);
        for (int round = 0; round < rounds; ++round) {
            switch (random() % 8) {
                case 0:
                    serial.sync([&] { ++written; });
                    break;
                case 1:
                    shared.sync([&] { EXPECT_GE(read, 0); });
                    break;
                case 2:
                    shared.barrierSync([&] { ++read; });
                    break;
                case 3:
                    post([&](auto done) { shared.barrierAsync([&, done] { ++read; }); });
                    break;
                case 4:
                    post([&](auto done) { serial.after(1us, [&, done] { ++written; }); });
                    break;
                case 5:
                    serial.sync([&] { shared.sync([&] { written += read >= 0 ? 1 : 0; }); });
                    break;
                case 6:
                    post([&](auto done) { inThePool([&, done] { serial.sync([&] { ++written; }); }); });
                    break;
                default:
                    post([&](auto done) { serial.async([&, done] { ++written; }); });
                    break;
            }
        }
    }

    struct Leaves {
        explicit Leaves(TaskGroup& ofGroup) : group(ofGroup) { group.enter(); }
        ~Leaves() { group.leave(); }
        TaskGroup& group;
    };
    template <class Post>
    void post(Post how) {
        ++posted;
        how(std::make_shared<Leaves>(underWay));
    }
    void inThePool(Work work) { dispatcher.submit(Priority::standard, std::move(work)); }

    ThreadDispatcher dispatcher{{.workers = GetParam(), .spares = 8}};
    TaskGroup underWay{dispatcher};
    std::atomic<int> posted = 0;
    int written = 0;  ///< on `serial`
    int read = 0;     ///< on `shared`
    SerialQueue serial{dispatcher, "test.serial"};
    ConcurrentQueue shared{dispatcher, "test.shared"};
};

INSTANTIATE_TEST_SUITE_P(Workers, DispatchStressTest, testing::Values(1, 3));

TEST_P(DispatchStressTest, NothingIsLostAndNothingRunsTwice) {
    dispatcher.start();
    {
        std::vector<std::jthread> hammering;
        for (unsigned seed = 1; seed <= threads; ++seed) hammering.emplace_back([this, seed] { hammer(seed); });
    }
    ASSERT_TRUE(underWay.wait(never));
    std::minstd_rand random;
    int reads = 0;
    for (unsigned seed = 1; seed <= threads; ++seed) {
        random.seed(seed);
        for (int round = 0; round < rounds; ++round) reads += random() % 8 == 1 ? 1 : 0;
    }
    EXPECT_EQ(serial.sync([&] { return written; }) + shared.sync([&] { return read; }), threads * rounds - reads);
    EXPECT_GT(posted, 0);
}

TEST_P(DispatchStressTest, TimersThatAreTakenBackWhileTheyFireNeverRunAnOldBlock) {
    dispatcher.start();
    Timer timer(serial);
    int current = 0;
    bool stale = false;
    for (int round = 0; round < rounds; ++round) {
        serial.sync([&] {
            const int mine = ++current;
            timer.armAfter(std::chrono::microseconds(round % 3), [&, mine] { stale = stale || mine != current; });
        });
    }
    serial.sync([&] {
        timer.cancel();
        ++current;
    });
    serial.close();
    EXPECT_FALSE(stale);
}

TEST_P(DispatchStressTest, QueuesComeAndGoWhileTheyAreUsed) {
    dispatcher.start();
    std::atomic<int> ran = 0;
    for (int round = 0; round < rounds; ++round) {
        auto queue = std::make_shared<SerialQueue>(dispatcher, "test.short");
        queue->async([&ran, queue] { ++ran; });
        queue->async([&ran, queue] { ++ran; });
        inThePool([&ran, queue] { queue->sync([&ran] { ++ran; }); });
    }
    while (ran < 3 * rounds) std::this_thread::yield();
}

}  // namespace
}  // namespace orvex::platform
