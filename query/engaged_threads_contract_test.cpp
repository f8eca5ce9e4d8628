#include <gtest/gtest.h>

#include <atomic>
#include <semaphore>
#include <thread>

#include "platform/fakes/fake_user_defaults.h"
#include "platform/linux/thread_dispatcher.h"
#include "platform/transactions.h"
#include "query/engaged_completion_cache.h"
#include "query/engaged_fixture_test.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;

/// The cache on real threads.
class EngagedThreadsTest : public testing::Test {
protected:
    EngagedThreadsTest() { dispatcher.start(); }

    platform::Result<void> add(std::string completion) {
        std::binary_semaphore answered(0);
        platform::Result<void> result;
        cache->addCompletion({.completion = std::move(completion), .input = "in", .client = 2}, [&](auto added) {
            result = std::move(added);
            answered.release();
        });
        answered.acquire();
        return result;
    }
    std::size_t find(const std::string& input, std::chrono::nanoseconds timeout) {
        return cache->completionsForInput(input, 2, 1'000'000, timeout).size();
    }

    EngagedDisk disk;
    platform::FakeUserDefaults defaults;
    platform::Counters counters;
    platform::ThreadDispatcher dispatcher{{.workers = 2, .spares = 64}};
    std::shared_ptr<platform::Transactions> transactions = std::make_shared<platform::Transactions>(dispatcher);
    std::shared_ptr<EngagedCompletionCache> cache = EngagedCompletionCache::create({.dispatcher = dispatcher,
                                                                                    .userDefaults = defaults,
                                                                                    .fileManager = disk.files(),
                                                                                    .counters = counters,
                                                                                    .transactions = *transactions});
};

TEST_F(EngagedThreadsTest, TwentyThreadsSearchWhileOneInsertsAndClears) {
    constexpr int inserts = 200;
    std::atomic<bool> done = false;
    std::atomic<int> backwards = 0;
    {
        std::vector<std::jthread> searchers;
        for (int i = 0; i < 20; ++i) {
            searchers.emplace_back([&] {
                std::size_t last = 0;
                while (!done) {
                    const auto seen = find("completion", 60s);
                    if (seen < last) ++backwards;
                    last = seen;
                }
            });
        }
        for (int i = 0; i < inserts; ++i) {
            EXPECT_TRUE(add("completion " + std::to_string(i)));
            cache->updateParameters({.broviaLast1hour = static_cast<double>(i)});
        }
        done = true;
    }
    EXPECT_EQ(backwards, 0);
    EXPECT_EQ(find("completion", 60s), inserts + 0u);
    EXPECT_EQ(counters.value("com.kelvar.orvexd.completions.late"), 0);
    std::binary_semaphore answered(0);
    cache->clearAllCompletions([&](auto removed) {
        EXPECT_EQ(removed.value_or(0), inserts);
        answered.release();
    });
    answered.acquire();
    EXPECT_EQ(find("completion", 60s), 0u);
}

TEST_F(EngagedThreadsTest, ALateSearchIsGivenUpAndTheNextDoesNotWaitForIt) {
    ASSERT_TRUE(add("tree"));
    EXPECT_EQ(find("tr", 60s), 1u);
    disk.sql(
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 60000) "
        "INSERT INTO completion_cache_engagement SELECT 'x' || i, 'x' || i, 1700000000, 'se', 2, 'x' || i FROM n");
    disk.leave();
    EXPECT_EQ(find("x", 1ms), 0u);
    EXPECT_EQ(counters.value("com.kelvar.orvexd.completions.late"), 1);
    EXPECT_EQ(find("tr", 60s), 1u);
}

TEST_F(EngagedThreadsTest, ALockOfAnotherProgramHoldsUpNoSearch) {
    ASSERT_TRUE(add("tree"));
    disk.sql("BEGIN IMMEDIATE");
    std::binary_semaphore answered(0);
    cache->addCompletion({.completion = "trunk", .input = "tr", .client = 2}, [&](const auto& added) {
        EXPECT_TRUE(added);
        answered.release();
    });
    EXPECT_EQ(find("tr", 60s), 1u);
    cache->updateParameters({});
    disk.sql("COMMIT");
    answered.acquire();
    EXPECT_EQ(find("tr", 60s), 2u);
}

}  // namespace
}  // namespace orvex
