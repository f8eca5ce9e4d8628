#include "query/engaged_completion_cache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <random>

#include "platform/fakes/fake_user_defaults.h"
#include "platform/fakes/manual_dispatcher.h"
#include "platform/transactions.h"
#include "query/engaged_fixture_test.h"
#include "query/engaged_text.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;
constexpr double infinity = std::numeric_limits<double>::infinity();

/// One stored engagement, as the tests keep it beside the store.
struct Row {
    std::string completion, input;
    std::int64_t date;
    int origin;
    std::int64_t client;
};

/// The score computed plainly, without a database.
std::map<std::string, ORXSuggestion> plainScores(const std::vector<Row>& rows, const std::string& input,
                                                 std::int64_t client, std::int64_t now, const EngagedParameters& p) {
    const auto begins = [](const std::string& text, const std::string& prefix) {
        return text >= prefix && text <= endOfPrefixRange(prefix);
    };
    std::map<std::string, ORXSuggestion> found;
    std::map<std::string, std::int64_t> latest;
    for (const auto& row : rows) {
        if (row.client != client) continue;
        if (!begins(row.input, input) && !begins(normalizedForMatching(row.completion), normalizedForMatching(input))) {
            continue;
        }
        const std::pair<std::int64_t, double> ages[] = {{3'600, p.broviaLast1hour},
                                                        {86'400, p.broviaLast1day},
                                                        {604'800, p.broviaLast1week},
                                                        {2'592'000, p.broviaLast1month},
                                                        {31'536'000, p.broviaAll}};
        auto& suggestion = found[row.completion];
        for (const auto& [age, weight] : ages) {
            if (row.date <= now - age) continue;
            suggestion.score += weight;
            break;
        }
        auto& date = latest.try_emplace(row.completion, row.date - 1).first->second;
        if (row.date > date) {
            date = row.date;
            suggestion.type = row.origin == 1 || row.origin == 3 ? 1 : row.origin == 2 ? 8 : 0;
        }
    }
    for (auto& [completion, suggestion] : found) {
        suggestion.score += p.broviaMostRecent * static_cast<double>(latest[completion]) / static_cast<double>(now);
    }
    return found;
}

class EngagedCompletionCacheTest : public testing::Test {
protected:
    void add(std::string completion, std::string input = "in", std::int64_t client = 2, int origin = 3) {
        bool added = false;
        cache->addCompletion(
            {.completion = std::move(completion), .input = std::move(input), .origin = origin, .client = client},
            [&](const platform::Result<void>& result) { added = result.has_value(); });
        time.runPending();
        ASSERT_TRUE(added);
    }
    Texts find(const std::string& input, std::int64_t client = 2, std::uint64_t count = 10) {
        Texts texts;
        for (auto& found : cache->completionsForInput(input, client, count)) texts.push_back(found.suggestion);
        return texts;
    }
    EngagedCompletionCache::FeatureCounts featureCounts(const std::string& input) {
        EngagedCompletionCache::FeatureCounts counts{{"never called", 0}};
        cache->featureCountsForInput(input, 2, [&](auto found) { counts = std::move(found); });
        time.runPending();
        return counts;
    }
    std::int64_t seconds() const {
        return std::chrono::duration_cast<std::chrono::seconds>(time.wallNow().time_since_epoch()).count();
    }

    platform::RecordingLog log;
    EngagedDisk disk;
    platform::ManualDispatcher time;
    platform::FakeUserDefaults defaults;
    platform::Counters counters;
    std::shared_ptr<platform::Transactions> transactions = std::make_shared<platform::Transactions>(time);
    std::shared_ptr<EngagedCompletionCache> cache = EngagedCompletionCache::create({.dispatcher = time,
                                                                                    .userDefaults = defaults,
                                                                                    .fileManager = disk.files(),
                                                                                    .counters = counters,
                                                                                    .transactions = *transactions});
};

TEST_F(EngagedCompletionCacheTest, ScoresAreThoseOfAPlainComputation) {
    std::mt19937 random(5);
    const auto any = [&](auto low, auto high) { return std::uniform_int_distribution<long>(low, high)(random); };
    const Texts words = {"Paris", "paris map", "Pärt", "park", "東京", "東京駅", "ｐａｒ", "par😀", "zebra", ""};
    time.runPending();
    for (int round = 0; round < 60; ++round) {
        time.jumpWall(std::chrono::seconds(any(-900'000'000L, 900'000'000L) / (round + 1)));
        std::vector<Row> rows;
        disk.sql("BEGIN; DELETE FROM completion_cache_engagement");
        for (long i = any(0, 60); i > 0; --i) {
            const long reach = std::vector{3'700L, 90'000L, 700'000L, 3'000'000L, 40'000'000L}[any(0, 4)];
            Row row{.completion = words[any(0, 8)],
                    .input = words[any(0, 9)],
                    .date = seconds() - any(-100, reach),  // some of the future
                    .origin = static_cast<int>(any(0, 4)),
                    .client = any(0, 2)};
            const bool tie = std::ranges::any_of(
                rows, [&](const Row& r) { return r.completion == row.completion && r.date == row.date; });
            if (tie) continue;  // whose origin counts is nobody's promise
            disk.sql("INSERT INTO completion_cache_engagement VALUES ('" + row.completion + "', '" + row.input + "', " +
                     std::to_string(row.date) + ", " +
                     Texts{"NULL", "'se'", "'3d'", "'se'", "'xx'"}[static_cast<std::size_t>(row.origin)] + ", " +
                     std::to_string(row.client) + ", '" + normalizedForMatching(row.completion) + "')");
            rows.push_back(std::move(row));
        }
        disk.sql("COMMIT");
        const auto weight = [&] { return static_cast<double>(any(-1000, 100'000)) / 777; };
        const EngagedParameters parameters{weight(), weight(), weight(), weight(), weight(), weight(), weight() / 2};
        cache->updateParameters(parameters);
        for (const auto* input : {"", "p", "par", "PAR", "pär", "paris", "東", "ｐ", "nothing"}) {
            const auto client = any(0, 2);
            auto expected = plainScores(rows, input, client, seconds(), parameters);
            std::erase_if(expected, [&](const auto& e) { return e.second.score < parameters.minThresholdToSend; });
            const auto found = cache->completionsForInput(input, client, 100);
            ASSERT_EQ(found.size(), expected.size()) << round << " " << input;
            for (const auto& suggestion : found) {
                ASSERT_TRUE(expected.contains(suggestion.suggestion)) << suggestion.suggestion;
                const auto& plain = expected[suggestion.suggestion];
                EXPECT_NEAR(suggestion.score, plain.score, 1e-9 * (1 + std::abs(plain.score)));
                EXPECT_EQ(suggestion.type, plain.type);
                EXPECT_EQ(suggestion.query, input);
            }
            EXPECT_TRUE(std::ranges::is_sorted(found, std::greater<>(), &ORXSuggestion::score));
            const auto best = cache->completionsForInput(input, client, 2);
            EXPECT_EQ(best.size(), std::min<std::size_t>(2, found.size()));
            EXPECT_TRUE(best.empty() || best[0].score == found[0].score);
        }
    }
}

TEST_F(EngagedCompletionCacheTest, TextsOfAnyKindComeBackAsTheyWere) {
    const Texts hostile = {"'; DROP TABLE completion_cache_engagement; --",
                           "50% %s %q %n",
                           std::string("a\0b", 3),
                           "\u202Eright to left\u05D0",
                           std::string(1'000'000, 'm'),
                           "\xED\xA0\x80 half",
                           "\"quoted\""};
    for (const auto& text : hostile) {
        add(text, text);
        EXPECT_EQ(find(text), Texts{text});
    }
    EXPECT_EQ(find("a"), (Texts{hostile[2]}));
    add("a😀", "emoji");
    add("b", "a😀");
    EXPECT_EQ(find("a").size(), 1u);  // what goes on beyond U+FFEE is outside of the range
    add("no origin", "q", 2, 7);
    EXPECT_EQ(cache->completionForInput("no", 2)->type, 0u);
    cache->addCompletion({.completion = "", .input = "empty", .client = 2});
    time.runPending();
    EXPECT_EQ(find("empty"), Texts{});
}

TEST_F(EngagedCompletionCacheTest, NumbersThatAreNoneAreRefusedAndHugeOnesOfferNothingWithoutAScore) {
    add("tree");
    cache->updateParameters({.broviaLast1hour = std::nan(""), .minThresholdToSend = 50});
    cache->updateParameters({.broviaMostRecent = infinity, .minThresholdToSend = 50});
    EXPECT_EQ(find("tr"), Texts{"tree"});
    cache->updateParameters({.broviaLast1hour = 1e308});
    add("tree");
    EXPECT_EQ(find("tr"), Texts{});  // the sum is infinite
    cache->updateParameters({.broviaLast1hour = -5, .broviaMostRecent = 0, .minThresholdToSend = -10});
    EXPECT_EQ(find("tr"), Texts{"tree"});
    cache->updateParameters({.broviaLast1hour = -5, .broviaMostRecent = 0, .minThresholdToSend = -9});
    EXPECT_EQ(find("tr"), Texts{});
}

TEST_F(EngagedCompletionCacheTest, EachClearTakesWhatItSays) {
    const auto seed = [&] {
        for (std::int64_t client : {0, 1, 2}) add("tree", "tr", client);
    };
    const auto left = [&] { return find("tr", 0).size() * 100 + find("tr", 1).size() * 10 + find("tr", 2).size(); };
    seed();
    EXPECT_EQ(left(), 111u);
    const auto date = time.wallNow();
    cache->clearCompletionsFromDate(date + 4s, date + 4s);
    time.runPending();
    EXPECT_EQ(left(), 11u);
    cache->clearAllClientCompletionsFromDate(date + 1s, date + 4s);
    time.runPending();
    EXPECT_EQ(left(), 11u);
    cache->clearAllClientCompletionsFromDate(platform::WallTime::min(), platform::WallTime::max());
    time.runPending();
    EXPECT_EQ(left(), 0u);
    seed();
    cache->clearAllCompletionsForClient(1);
    time.runPending();
    EXPECT_EQ(left(), 101u);
    cache->lumiskDidClearSuggestions();
    time.runPending();
    EXPECT_EQ(left(), 0u);
}

TEST_F(EngagedCompletionCacheTest, CountsAreOfOneAgeAndNoneBeyondAYear) {
    EXPECT_TRUE(featureCounts("tr").empty());
    const auto put = [&](std::chrono::seconds age) {
        disk.sql("INSERT INTO completion_cache_engagement VALUES ('tree', 'tr', " +
                 std::to_string(seconds() - age.count()) + ", NULL, 2, 'tree')");
    };
    put(24h * 100);
    EXPECT_EQ(featureCounts("tr"), (EngagedCompletionCache::FeatureCounts{{"y", 1}}));
    put(24h * 2);
    put(24h * 3);
    EXPECT_EQ(featureCounts("tr"), (EngagedCompletionCache::FeatureCounts{{"w", 2}}));
    put(60s);
    EXPECT_EQ(featureCounts("tr"), (EngagedCompletionCache::FeatureCounts{{"h", 1}}));
    put(24h * 366);
    EXPECT_TRUE(featureCounts("tr").empty());
}

TEST_F(EngagedCompletionCacheTest, DamageThatASearchMeetsIsRepaired) {
    time.runPending();
    disk.sql(
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 3000) "
        "INSERT INTO completion_cache_engagement SELECT 'tree ' || i, 'tr', 1700000000, 'se', 2, 'tree ' || i FROM n");
    EXPECT_EQ(find("tree 29").size(), 10u);
    cache->closeDBConnection();
    disk.leave();
    auto bytes = platform::readFile(disk.file());
    std::fill(bytes.begin() + 4096 * 8, bytes.end(), '\xA5');
    platform::writeFile(disk.file(), bytes);
    EXPECT_EQ(find("tree"), Texts{});  // closed
    add("trunk", "tr");
    (void)find("tr");
    time.runPending();
    add("trunk", "tr");
    EXPECT_EQ(find("trunk"), Texts{"trunk"});
    EXPECT_EQ(counters.value("com.kelvar.orvexd.completions.repaired"), 1);
}

TEST_F(EngagedCompletionCacheTest, ASearchThatComesFirstWaitsForTheFileAndSeesWhatIsStored) {
    add("tree");
    cache = nullptr;
    cache = EngagedCompletionCache::create({.dispatcher = time,
                                            .userDefaults = defaults,
                                            .fileManager = disk.files(),
                                            .counters = counters,
                                            .transactions = *transactions});
    EXPECT_EQ(find("tr"), Texts{"tree"});
    EXPECT_TRUE(transactions->openNames().empty());
}

}  // namespace
}  // namespace orvex
