#include <gtest/gtest.h>

#include "daemon/daemon_world_test.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using platform::BusDictionary;
using platform::LogLevel;

/// Answers from memory, as a client sees them.
class QueryCacheRoadTest : public testing::Test {
protected:
    static constexpr auto completions = R"([{"status": "OK", "query": "weak", "completion_score": 0.2},
                                            {"status": "OK", "query": "wear", "completion_score": 0.9},
                                            {"status": "ERROR", "query": "west", "completion_score": 9},
                                            {"status": "OK", "query": "weather", "completion_score": 5.0}, 7])";
    void start() {
        world.start();
        ASSERT_TRUE(world.configure(":1.1")->arguments);
    }
    /// One search that the server answers.
    void learn(std::string body = completions, std::int64_t status = 200) {
        const auto outcome = world.search(":1.1", "we");
        ASSERT_FALSE(outcome->arrived());
        world.answer({.statusCode = status, .body = std::move(body)});
        ASSERT_TRUE(outcome->arguments);
    }
    /// Whether `text` is answered without the server.
    bool known(const std::string& text) {
        const auto outcome = world.search(":1.1", text);
        if (outcome->arrived()) return true;
        world.answer({.body = "[]"});
        return false;
    }
    std::uint64_t status(const char* entry) { return *world.status().find(entry)->as<std::uint64_t>(); }

    DaemonWorld world;
};

TEST_F(QueryCacheRoadTest, TypingOnIsAnsweredFromMemory) {
    start();
    learn();
    BusDictionary entries;
    entries.set("query_id", std::uint64_t{5}).set("verbose_reply", true);
    const auto outcome = world.search(":1.1", "wea", std::move(entries));
    ASSERT_TRUE(outcome->arguments);
    EXPECT_EQ(*outcome->arguments->at(0).as<std::uint64_t>(), 5u);
    const auto* reply = outcome->arguments->at(1).as<BusDictionary>();
    EXPECT_EQ(reply->find("data")->as<platform::BusBytes>()->view(), completions);
    EXPECT_EQ(reply->find("http_response"), nullptr);
    ASSERT_NE(reply->find("geo_session_entity"), nullptr);
    EXPECT_NE(reply->find("geo_session_entity")->as<std::string>()->find(" 2 "), std::string::npos);
    EXPECT_TRUE(world.log.contains(LogLevel::standard, "Orvex_Caching", "prefix: wear input: wea score: 0.900000"));
    EXPECT_EQ(world.counters.value("com.kelvar.orvexd.lumisk.ondevicecachehits"), 1);
    EXPECT_EQ(world.counters.value("com.kelvar.orvexd.search"), 1);
    EXPECT_FALSE(known("west"));
    EXPECT_EQ(status("query_cache_entries"), 3u);
    EXPECT_EQ(status("query_cache_cost"), 3 * (std::string_view(completions).size() + 1024));
}

TEST_F(QueryCacheRoadTest, AnyStatusIsKeptButOnlyAListIs) {
    start();
    learn(R"({"query": "weak"})");
    learn("[1");
    learn("[1]");
    learn(std::string(10'000, '['));
    EXPECT_EQ(status("query_cache_entries"), 0u);
    learn(R"([{"query": "weak"}])", 500);
    EXPECT_TRUE(known("weak"));
}

TEST_F(QueryCacheRoadTest, IdlenessAnotherAgentAndAnotherPlaceForgetIt) {
    start();
    learn();
    world.time.advance(59s);
    EXPECT_TRUE(known("wea"));
    world.time.advance(120s);
    EXPECT_EQ(status("query_cache_entries"), 0u);
    learn();
    auto settings = world.locale.current();
    settings.timeZoneName = "Europe/Vienna";
    world.locale.set(settings);
    world.time.runPending();
    EXPECT_FALSE(known("wea"));
    learn();
    settings.countryCode = "AT";
    world.locale.set(settings);
    world.time.runPending();
    EXPECT_FALSE(known("wea"));
    learn();
    ASSERT_TRUE(world.configure(":1.2")->arguments);
    EXPECT_TRUE(known("wea"));  // the same agent
    ASSERT_TRUE(world.configure(":1.3", "com.kelvar.lumisk", "Lumisk/2")->arguments);
    EXPECT_FALSE(known("wea"));
}

TEST_F(QueryCacheRoadTest, ItCanBeSwitchedOff) {
    world.defaults.store("ORXNoQueryCache", true);
    start();
    EXPECT_TRUE(world.log.contains(LogLevel::standard, "Orvex_Caching", "query cache OFF for com.kelvar.lumisk"));
    learn();
    EXPECT_FALSE(known("wea"));
    EXPECT_EQ(world.memoryPressure.listeners(), 0u);
}

}  // namespace
}  // namespace orvex
