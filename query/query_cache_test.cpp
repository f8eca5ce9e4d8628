#include "query/query_cache.h"

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <map>
#include <random>

#include "core/notifications.h"
#include "core/orx_request.h"
#include "daemon/assembly.h"
#include "platform/fakes/fake_platform.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using platform::LogLevel;

class QueryCacheTest : public testing::Test, protected platform::TestPlatform {
protected:
    static platform::URLRequest requestFor(std::string query, std::string scale = "") {
        platform::URLRequest request;
        request.url = "https://search.example/search?" + std::move(query);
        if (!scale.empty()) request.headers.emplace_back("X-Kelvar-UI-Scale", std::move(scale));
        return request;
    }
    std::shared_ptr<const CachedResultSet> entry(std::string_view input, std::string_view resultSet,
                                                 const platform::URLRequest& request = requestFor("q=x"),
                                                 std::size_t bytes = 10) {
        const auto response = std::make_shared<const CachedResponse>(
            input, request, "UUID", std::make_shared<const std::string>(bytes, 'x'), time.now());
        return std::make_shared<const CachedResultSet>(response, boost::json::parse(resultSet).as_object());
    }
    void set(std::string_view input, std::string_view resultSet,
             const platform::URLRequest& request = requestFor("q=x"), std::size_t bytes = 10) {
        cache->set(entry(input, resultSet, request, bytes));
    }
    std::string found(const std::string& text, double scale = 0,
                      const platform::URLRequest& httpRequest = requestFor("q=x")) {
        ORXSearchRequest request;
        request.queryString = text;
        request.scale = scale;
        const auto entry = cache->getRequest(request, &httpRequest);
        return entry ? entry->query : "";
    }

    Assembly assembly{as<Assembly::Platform>()};
    std::shared_ptr<QueryCache> cache = QueryCache::create(assembly);
};

TEST_F(QueryCacheTest, TheSmallestExtensionWinsAndThenTheHigherScore) {
    set("we", R"({"query": "Weak", "completion_score": 0.2})");
    set("we", R"({"query": "wear", "completion_score": 0.9})");
    set("we", R"({"query": "weather", "completion_score": 5.0})");
    EXPECT_EQ(found("WEA"), "wear");
    EXPECT_EQ(found("weat"), "weather");
    EXPECT_EQ(found("w"), "");  // it was typed longer than this
    EXPECT_EQ(found("weathers"), "");
    EXPECT_EQ(cache->get("weak")->query, "weak");
    set("we", R"({"query": "wean", "completion_score": -1})");
    set("we", R"({"query": "weak", "completion_score": -2})");
    set("we", R"({"query": "wear", "completion_score": -0.5})");
    EXPECT_EQ(found("wea"), "weak");  // no score is positive: the first
}

TEST_F(QueryCacheTest, AnAnswerIsGoodForRequestsThatAskAlike) {
    set("we", R"({"query": "weak"})", requestFor("q=we&qtype=explicit"));
    set("we", R"({"query": "wear"})", requestFor("q=we&suggest_queries=withtop"));
    set("we", R"({"query": "weld"})", requestFor("lc=weld&q=we&lc=other"));
    EXPECT_EQ(found("we"), "");
    EXPECT_EQ(found("we", 0, requestFor("qtype=explicit")), "weak");
    EXPECT_EQ(found("we", 0, requestFor("suggest_queries=withtop")), "wear");
    EXPECT_EQ(found("we", 0, requestFor("lc=weld")), "weld");
    EXPECT_EQ(found("we", 0, requestFor("lc=weld&qtype=explicit")), "");
    ORXSearchRequest withItems;
    withItems.queryString = "we";
    withItems.queryItems = {{"a", "1"}};
    const auto request = requestFor("qtype=explicit");
    EXPECT_EQ(cache->getRequest(withItems, &request), nullptr);
}

TEST_F(QueryCacheTest, ScalesAreComparedAsTheyWereSent) {
    set("we", R"({"query": "weak"})", requestFor("q=x", "1.2"));
    set("wo", R"({"query": "word"})", requestFor("q=x", "3.0"));
    EXPECT_EQ(found("we", 1.25), "weak");
    EXPECT_EQ(found("wo", 2.0), "");
    EXPECT_EQ(found("wo", 3.0), "word");
    EXPECT_EQ(found("wo", 0), "word");
}

TEST_F(QueryCacheTest, EntriesExpireByAClockThatNobodySets) {
    set("we", R"({"query": "weak", "max_age": 60})");
    set("we", R"({"query": "weld", "max_age": 0})");
    set("we", R"({"query": "wear", "max_age": -5})");
    set("we", R"({"query": "west", "max_age": 1e300})");
    set("we", R"({"query": "weal", "max_age": 1e400})");
    set("we", R"({"query": "weir", "max_age": "60"})");
    time.jumpWall(-1h);
    time.advance(60s - 1ns);
    time.jumpWall(24h * 365);
    EXPECT_EQ(found("weak"), "weak");
    time.advance(1ns);
    EXPECT_EQ(found("weak"), "");
    EXPECT_EQ(found("wear"), "");
    for (const auto* text : {"weld", "west", "weal", "weir"}) EXPECT_EQ(found(text), text);
    EXPECT_EQ(cache->count(), 4u);
    EXPECT_EQ(cache->usage().cost, 6u * 1034);  // what expired stays charged
}

TEST_F(QueryCacheTest, WhatCannotBeKeptIsRefused) {
    set("we", R"({})");
    set("we", R"({"query": ""})");
    set("we", R"({"query": 5})");
    set("weather", R"({"query": "weather"})", requestFor("q=x"), QueryCache::maxCost - QueryCache::entryOverhead);
    set("weather", R"({"query": "we"})");
    cache->set(nullptr);
    EXPECT_EQ(cache->count(), 0u);
    EXPECT_TRUE(log.contains(LogLevel::error, "Orvex_Caching", "NOT caching 'weather' with cost 2097152"));
    EXPECT_TRUE(log.contains(LogLevel::error, "Orvex_Caching",
                             "BUG: NOT caching 'we' because input is longer than completed query 'weather'"));
    set("we", R"({"query": "weak", "completion_score": 1e300})");
    EXPECT_EQ(found("we"), "weak");
    set("a", R"({"query": "ab\u0000c"})");  // a key ends at its first zero byte
    EXPECT_EQ(found("ab"), std::string("ab\0c", 4));
}

TEST_F(QueryCacheTest, AtTwoMebibytesItStartsAnew) {
    set("a", R"({"query": "abc"})", requestFor("q=x"), 1'000'000);
    set("a", R"({"query": "abc"})", requestFor("q=x"), 1'000'000);  // replaced, and charged again
    EXPECT_EQ(cache->count(), 1u);
    EXPECT_EQ(cache->usage().cost, 2 * 1'001'024u);
    set("a", R"({"query": "abd"})", requestFor("q=x"), 2'097'152 - 2 * 1'001'024 - 1024);
    EXPECT_EQ(cache->count(), 1u);
    EXPECT_EQ(found("a"), "abd");
    EXPECT_TRUE(log.contains(LogLevel::standard, "Orvex_Caching", "!!! exceeded max cost, flushing cache !!!"));
}

TEST_F(QueryCacheTest, MemoryIsWatchedOnlyWhileSomethingIsHeld) {
    EXPECT_EQ(memoryPressure.listeners(), 0u);
    set("we", R"({"query": "weak"})");
    set("we", R"({"query": "weak"})");
    time.runPending();
    EXPECT_EQ(memoryPressure.listeners(), 1u);
    memoryPressure.becomeCritical();
    time.runPending();
    EXPECT_TRUE(log.contains(LogLevel::standard, "Orvex_Caching", "emptying caches under memory pressure"));
    EXPECT_EQ(cache->count(), 0u);
    EXPECT_EQ(memoryPressure.listeners(), 0u);
    set("we", R"({"query": "weak", "max_age": 1})");
    time.advance(1s);
    EXPECT_EQ(memoryPressure.listeners(), 1u);
    EXPECT_EQ(found("we"), "");
    EXPECT_EQ(memoryPressure.listeners(), 0u);
}

TEST_F(QueryCacheTest, AChangeOfUserSessionPlaceOrAccountEmptiesIt) {
    const auto empties = [&](const auto& notification) {
        set("we", R"({"query": "weak"})");
        EXPECT_EQ(cache->count(), 1u);
        notifications.post(notification);
        EXPECT_EQ(cache->count(), 0u) << typeid(notification).name();
    };
    empties(ORXUserGUIDChangeNotification{});
    empties(ORXSessionSoftLimitNotification{});
    empties(ORXSessionMaxLimitNotification{});
    empties(CountryCodeDidChangeNotification{});
    empties(SystemTimeZoneDidChangeNotification{});
    empties(CurrentLocaleDidChangeNotification{});
    empties(EffectiveSettingsChangedNotification{});
    empties(AccountStoreDidChangeNotification{});
    empties(AccountCredentialsDidChangeNotification{});
    set("we", R"({"query": "weak"})");
    cache->removeAllObjects();
    EXPECT_EQ(cache->usage().cost, 0u);
}

/// A million steps in all, in parts that run side by side.
class QueryCacheModelTest : public QueryCacheTest, public testing::WithParamInterface<unsigned> {
protected:
    static constexpr int steps = 250'000;
    struct Kept {
        std::size_t inputLength;
        std::optional<platform::MonotonicTime> expires;
        float score;
    };

    unsigned upTo(unsigned limit) { return static_cast<unsigned>(random() % limit); }
    std::string text(unsigned shortest) {
        std::string letters(shortest + upTo(4), 'a');
        for (auto& letter : letters) letter = "abc"[upTo(3)];
        return letters;
    }
    void keepOne() {
        const auto query = text(2);
        const auto input = query.substr(0, upTo(3));
        const int age = static_cast<int>(upTo(4)) * 10;
        const int score = static_cast<int>(upTo(5)) - 1;
        if (cache->usage().cost + 1034 >= QueryCache::maxCost) model.clear();
        cache->set(std::make_shared<const CachedResultSet>(
            std::make_shared<const CachedResponse>(input, request, "UUID", body, time.now()),
            boost::json::object{{"query", query}, {"max_age", age}, {"completion_score", score}}));
        const auto expires = age > 0 ? std::optional(time.now() + std::chrono::seconds(age)) : std::nullopt;
        model[query] = {input.size(), expires, static_cast<float>(score)};
    }
    /// What the cache shall find, after which what has expired is gone.
    std::string expected(const std::string& input) {
        std::pair<std::string, float> best;
        for (auto it = model.lower_bound(input); it != model.end() && it->first.starts_with(input);) {
            const auto& [query, kept] = *it;
            if (kept.expires && *kept.expires <= time.now()) {
                it = model.erase(it);
                continue;
            }
            const bool shorter = best.first.empty() || query.size() < best.first.size();
            const bool better = query.size() == best.first.size() && kept.score > 0 && kept.score > best.second;
            if (kept.inputLength <= input.size() && (shorter || better)) best = {query, kept.score};
            ++it;
        }
        return best.first;
    }

    const platform::RecordingLog quiet{LogLevel::fault};
    const platform::URLRequest request = requestFor("q=x");
    const platform::Body body = std::make_shared<const std::string>(10, 'x');
    std::mt19937 random{GetParam()};
    std::map<std::string, Kept> model;
};

TEST_P(QueryCacheModelTest, RandomUseAgreesWithASortedMap) {
    for (int step = 0; step < steps; ++step) {
        if (upTo(3) == 0) {
            keepOne();
        } else {
            const auto input = text(upTo(20) == 0 ? 0 : 1);
            ASSERT_EQ(found(input, 0, request), expected(input)) << step;
        }
        if (upTo(50) == 0) time.advance(1s);
        if (upTo(5'000) == 0) {
            cache->removeAllObjects();
            model.clear();
        }
        ASSERT_EQ(cache->count(), model.size()) << step;
    }
}

INSTANTIATE_TEST_SUITE_P(AMillionSteps, QueryCacheModelTest, testing::Values(11U, 12U, 13U, 14U));

}  // namespace
}  // namespace orvex
