#include <gtest/gtest.h>

#include "core/constants.h"
#include "daemon/daemon_world_test.h"
#include "platform/fakes/temporary_directory.h"
#include "platform/url.h"
#include "query/engaged_completion_cache.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using platform::BusArray;
using platform::BusDictionary;
using Texts = std::vector<std::string>;

constexpr std::string_view smartBag =
    R"({"version": "7", "search_url": "https://search.example/search", "minimum_query_length": 4,
        "smart_history_enabled": true, "smart_history_minimum_query_length": 2, "min_threshold_to_send": 0.5})";

/// Engaged completions, from the bus to the store and back.
class EngagedCompletionsRoadTest : public testing::Test {
protected:
    EngagedCompletionsRoadTest() {
        world.files.serveCachesFrom(*disk);
        world.serveBag(std::string(smartBag));
    }
    void start() {
        world.start();
        ASSERT_TRUE(world.configure(lumisk)->arguments);
        ASSERT_TRUE(world.configure(brovia, "com.kelvar.brovia", "Brovia/9")->arguments);
    }
    /// What an engagement will do once records of engagements come in.
    void engage(const std::string& completion, const std::string& input, std::int64_t client, int origin = 3) {
        bool added = false;
        EngagedCompletionCache::sharedInstance(world.assembly)
            ->addCompletion({.completion = completion, .input = input, .origin = origin, .client = client},
                            [&](const platform::Result<void>& result) { added = result.has_value(); });
        world.time.runPending();
        ASSERT_TRUE(added);
    }
    /// The completions that a search gets: the best in its request, the others in its reply.
    Texts offered(const std::string& client, const std::string& text, std::uint32_t event = 21) {
        BusDictionary entries;
        entries.set("trigger_event", event);
        const auto outcome = world.search(client, text, std::move(entries));
        if (outcome->arrived()) return {};
        const auto url = world.server().sent().back().request.url;
        world.answer({.statusCode = 200, .body = "[]"});
        Texts found;
        for (const auto& [name, value] : platform::decodeQuery(url.substr(url.find('?') + 1))) {
            if (name == "lc") found.push_back(value);
        }
        const auto* local = outcome->arguments->at(1).as<BusDictionary>()->find("local_suggestions");
        for (const auto& entry : local != nullptr ? local->as<BusArray>()->items : std::vector<platform::BusValue>()) {
            found.push_back(*entry.as<BusDictionary>()->find("suggestion")->as<std::string>());
        }
        return found;
    }
    bool clear(const std::string& client, double from, double to) {
        const auto outcome = world.callDaemon(client, "ClearEngagedCompletions", {from, to});
        return outcome->arguments.has_value();
    }
    double seconds() const { return platform::secondsSince1970(world.time.wallNow()); }

    const std::string lumisk = ":1.1";
    const std::string brovia = ":1.2";

    platform::TemporaryDirectory home;
    std::unique_ptr<platform::FileManager> disk = platform::fileManagerBelow(home.path());
    DaemonWorld world;
};

TEST_F(EngagedCompletionsRoadTest, ACompletionIsOfferedForItsPrefixToItsClientAtItsEvents) {
    start();
    engage("paris hotels", "par", engagedByLumisk);
    EXPECT_EQ(offered(lumisk, "pa"), Texts{"paris hotels"});
    EXPECT_EQ(offered(lumisk, "pari", 24), Texts{"paris hotels"});
    EXPECT_EQ(offered(lumisk, "pari", 22), Texts{});
    EXPECT_EQ(offered(lumisk, "parx"), Texts{});
    EXPECT_EQ(offered(lumisk, "p"), Texts{});
    EXPECT_EQ(offered(brovia, "pari"), Texts{});
    engage("paris map", "par", engagedByBrovia, 1);
    EXPECT_EQ(offered(brovia, "pari", 22), Texts{"paris map"});
    EXPECT_EQ(offered(lumisk, "pari"), Texts{"paris hotels"});
}

TEST_F(EngagedCompletionsRoadTest, TheBestGoesToTheServerAndTheOthersToTheClient) {
    start();
    for (const auto* completion : {"parrot", "parsley", "park", "park", "parsley", "park", "parka"}) {
        engage(completion, "par", engagedByLumisk);
    }
    EXPECT_EQ(offered(lumisk, "par").size(), 3u);
    EXPECT_EQ(offered(lumisk, "par").at(0), "park");
    EXPECT_EQ(offered(lumisk, "par").at(1), "parsley");
    for (int i = 0; i < 2; ++i) engage("parquet", "par", engagedByBrovia);
    engage("parade", "par", engagedByBrovia);
    EXPECT_EQ(offered(brovia, "par"), Texts{"parquet"});
}

TEST_F(EngagedCompletionsRoadTest, AccentsMayBeLeftOutWhenTyping) {
    start();
    engage("Crème Brûlée", "desserts", engagedByLumisk);
    EXPECT_EQ(offered(lumisk, "creme b").size(), 1u);
    EXPECT_EQ(offered(lumisk, "CRÈME").size(), 1u);
    EXPECT_EQ(offered(lumisk, "dess").size(), 1u);
    engage("東京タワー", "x", engagedByLumisk);
    EXPECT_EQ(offered(lumisk, "東京").size(), 1u);
}

TEST_F(EngagedCompletionsRoadTest, ClearingTakesTheClientsOwnBetweenTheDates) {
    start();
    engage("paris one", "par", engagedByLumisk);
    engage("paris map", "par", engagedByBrovia);
    world.time.advance(60s);
    engage("paris two", "par", engagedByLumisk);
    EXPECT_TRUE(clear(lumisk, seconds() - 30, seconds() - 10));
    EXPECT_EQ(offered(lumisk, "pari").size(), 2u);
    EXPECT_TRUE(clear(lumisk, seconds() - 60.9, seconds() - 1));
    EXPECT_EQ(offered(lumisk, "pari"), Texts{"paris two"});
    EXPECT_TRUE(clear(lumisk, seconds() + 4.5, seconds() + 4.5));  // the ten seconds around it
    EXPECT_EQ(offered(lumisk, "pari"), Texts{});
    EXPECT_EQ(offered(brovia, "pari"), Texts{"paris map"});
    EXPECT_TRUE(clear(brovia, -1e300, 1e300));
    EXPECT_EQ(offered(brovia, "pari"), Texts{});
}

TEST_F(EngagedCompletionsRoadTest, EventsClearWhatTheyAreAboutEvenWhileSwitchedOff) {
    start();
    const auto launchEvent = [&](const std::string& name) {
        return world.call(":1.9", kORXLaunchEventsInterface, "NotificationMatched", {name})->arguments.has_value();
    };
    engage("paris", "par", engagedByLumisk);
    engage("paris map", "par", engagedByBrovia);
    EXPECT_TRUE(launchEvent("com.kelvar.other"));
    EXPECT_EQ(offered(lumisk, "pari").size(), 1u);
    world.defaults.store("ORXDisableLocalCompletions", true);
    EXPECT_EQ(offered(lumisk, "pari"), Texts{});
    EXPECT_TRUE(launchEvent("com.kelvar.proactive.queries.clearData"));
    world.defaults.store("ORXDisableLocalCompletions", false);
    EXPECT_EQ(offered(lumisk, "pari"), Texts{});
    EXPECT_EQ(offered(brovia, "pari").size(), 1u);
    world.bus.emitSignal(":1.7", std::string(kORXNotifyPath), std::string(kORXNotifyInterface),
                         std::string(kORXNotifySignal), {"com.kelvar.lumisk.suggestionsCleared"});
    world.time.runPending();
    EXPECT_EQ(offered(brovia, "pari"), Texts{});
}

TEST_F(EngagedCompletionsRoadTest, AddingAnswersOnceItIsStoredOrSaysWhyNot) {
    start();
    EXPECT_TRUE(world.callDaemon(lumisk, "AddCompletion", {"tree", "tr"})->arguments);
    EXPECT_TRUE(EngagedCompletionCache::sharedInstance(world.assembly)->completionForInput("tr"));
    EXPECT_EQ(offered(lumisk, "tree"), Texts{});  // it is nobody's of those who are offered some
    EXPECT_EQ(world.callDaemon(lumisk, "AddCompletion", {std::string(2 << 20, 'x'), "tr"})->errorName(),
              platform::bus_error::limitsExceeded);
    EngagedCompletionCache::sharedInstance(world.assembly)->closeDBConnection();
    world.files.setAvailable(false);
    platform::writeFile(home / "in the way", "");
    const auto other = platform::fileManagerBelow(home / "in the way");
    world.files.serveCachesFrom(*other);
    EXPECT_EQ(world.callDaemon(lumisk, "AddCompletion", {"tree", "tr"})->errorName(),
              "com.kelvar.orvexd.Error.Internal");
    EXPECT_FALSE(clear(lumisk, 0, 1));
}

TEST_F(EngagedCompletionsRoadTest, TheBagAndTheClientSetWhatAnEngagementIsWorth) {
    start();
    engage("paris", "par", engagedByLumisk);
    const auto set = [&](double threshold) {
        return world.callDaemon(lumisk, "UpdateParameters", {10.0, 1.0, 0.1, 0.01, 0.001, 1.0, threshold})
            ->arguments.has_value();
    };
    EXPECT_TRUE(set(100));
    EXPECT_EQ(offered(lumisk, "pari"), Texts{});
    ASSERT_TRUE(world.configure(":1.3", "com.kelvar.other", "Other/1")->arguments);  // the bag's own again
    EXPECT_EQ(offered(lumisk, "pari"), Texts{"paris"});
}

TEST_F(EngagedCompletionsRoadTest, WithoutSmartHistoryNothingIsOffered) {
    world.serveBag(std::string(DaemonWorld::plainBag));
    start();
    engage("paris", "par", engagedByLumisk);
    EXPECT_TRUE(world.callDaemon(lumisk, "UpdateParameters", {0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 9.0})->arguments);
    EXPECT_EQ(offered(lumisk, "pari"), Texts{});
    EXPECT_TRUE(EngagedCompletionCache::sharedInstance(world.assembly)->completionForInput("par", engagedByLumisk));
}

}  // namespace
}  // namespace orvex
