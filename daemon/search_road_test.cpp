#include <gtest/gtest.h>

#include <set>

#include "daemon/client_state_manager.h"
#include "daemon/daemon_world_test.h"
#include "query/client_state.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using platform::BusDictionary;
using platform::LogLevel;

/// The road of a search, from the bus to the server and back.
class SearchRoadTest : public testing::Test {
protected:
    void startWithClient() {
        world.start();
        ASSERT_TRUE(world.configure(":1.1")->arguments);
    }
    static const BusDictionary& reply(const DaemonWorld::Outcome& outcome) {
        return *outcome->arguments->at(1).as<BusDictionary>();
    }
    static const BusDictionary& error(const DaemonWorld::Outcome& outcome) {
        return *outcome->arguments->at(2).as<BusDictionary>();
    }
    static std::string reason(const DaemonWorld::Outcome& outcome) {
        const auto* text = error(outcome).find("reason");
        return text != nullptr ? *text->as<std::string>() : std::string();
    }
    static bool isNothing(const DaemonWorld::Outcome& outcome) {
        return outcome->arguments && reply(outcome).entries.empty() && error(outcome).entries.empty();
    }

    DaemonWorld world;
};

TEST_F(SearchRoadTest, TheServersBodyComesBackWithTheQueryId) {
    startWithClient();
    BusDictionary entries;
    entries.set("query_id", std::uint64_t{42}).set("scale", 2.0);
    const auto outcome = world.search(":1.1", "tree", std::move(entries));
    ASSERT_FALSE(outcome->arrived());
    const auto sent = world.server().sent().at(0).request;
    EXPECT_TRUE(sent.url.starts_with("https://search.example/search?")) << sent.url;
    EXPECT_NE(sent.url.find("&q=tree"), std::string::npos);
    EXPECT_EQ(platform::headerValue(sent.headers, "X-Kelvar-UI-Scale"), "2.0");
    EXPECT_TRUE(platform::headerValue(sent.headers, "X-Kelvar-UserGuid").has_value());
    world.answer({.statusCode = 200, .body = R"([{"status": "OK"}])"});
    ASSERT_TRUE(outcome->arguments);
    EXPECT_EQ(*outcome->arguments->at(0).as<std::uint64_t>(), 42u);
    EXPECT_EQ(reply(outcome).find("data")->as<platform::BusBytes>()->view(), R"([{"status": "OK"}])");
    EXPECT_EQ(*reply(outcome).find("scale")->as<double>(), 2.0);
    EXPECT_EQ(reply(outcome).find("http_response"), nullptr);
    EXPECT_EQ(world.counters.value("com.kelvar.orvexd.search"), 1);
    EXPECT_EQ(world.counters.value("com.kelvar.orvexd.lumisk.keystrokes"), 1);
}

TEST_F(SearchRoadTest, AVerboseReplyTellsRequestAndResponse) {
    startWithClient();
    BusDictionary entries;
    entries.set("verbose_reply", true);
    const auto outcome = world.search(":1.1", "tree", std::move(entries));
    world.answer({.statusCode = 404,
                  .headers = {{"A", "1"}, {"A", "2"}, {"B", "\xE9"}},
                  .body = "[]",
                  .error = {},
                  .timing = {}});
    const auto* response = reply(outcome).find("http_response")->as<BusDictionary>();
    EXPECT_EQ(*response->find("status_code")->as<std::int64_t>(), 404);
    const auto* headers = response->find("headers")->as<BusDictionary>();
    EXPECT_EQ(*headers->find("A")->as<std::string>(), "1, 2");
    EXPECT_EQ(*headers->find("B")->as<std::string>(), "\xC3\xA9");
    const auto* request = reply(outcome).find("http_request")->as<BusDictionary>();
    EXPECT_EQ(*reply(outcome).find("geo_session_entity")->as<std::string>(),
              *request->find("headers")->as<BusDictionary>()->find("X-Kelvar-GeoSession")->as<std::string>());
    EXPECT_NE(request->find("url")->as<std::string>()->find("q=tree"), std::string::npos);
}

TEST_F(SearchRoadTest, WithoutABagTheWaitCountsFromTheArrivalOfTheCall) {
    world.serveBag(std::nullopt);
    world.start();
    const auto begin = world.time.now();
    ASSERT_TRUE(world.configure(":1.1")->arguments);
    EXPECT_EQ(world.time.now() - begin, kORXDefaultBagSemaphoreWait);
    std::vector<DaemonWorld::Outcome> outcomes;
    const auto second = world.time.now();
    for (int i = 0; i < 10; ++i) {
        BusDictionary entries;
        entries.set("query_string", "tree");
        outcomes.push_back(world.bus.call(":1.1", "com.kelvar.orvexd.Daemon", "Request", {"search", entries}));
    }
    world.time.runPending();
    EXPECT_EQ(world.time.now() - second, kORXDefaultBagSemaphoreWait);
    for (const auto& outcome : outcomes) EXPECT_EQ(reason(outcome), "timeout");
    EXPECT_TRUE(
        world.log.contains(LogLevel::error, "Orvex_Search", "Bag fetch failed, can't complete non-cached query"));
}

TEST_F(SearchRoadTest, TheFirstLaunchWaitsTwiceAsLong) {
    ASSERT_TRUE(world.defaults.removeObject("download_resources"));
    world.serveBag(std::nullopt);
    world.start();
    const auto begin = world.time.now();
    ASSERT_TRUE(world.configure(":1.1")->arguments);
    EXPECT_EQ(world.time.now() - begin, kORXFirstLaunchBagSemaphoreWait);
}

TEST_F(SearchRoadTest, ABagThatComesDuringTheWaitWakesEveryWaiter) {
    world.serveBag(std::nullopt);
    world.start();
    world.time.submit(platform::Priority::background, [&] {
        world.sessions.session("com.kelvar.orvexd.bagSession")
            ->answer({.statusCode = 200, .body = std::string(DaemonWorld::plainBag)});
    });
    const auto begin = world.time.now();
    const auto first = world.bus.call(":1.1", "com.kelvar.orvexd.Daemon", "Configure",
                                      {BusDictionary{}.set("identifier", "a").set("user_agent", "A/1")});
    const auto second = world.bus.call(":1.2", "com.kelvar.orvexd.Daemon", "Configure",
                                       {BusDictionary{}.set("identifier", "b").set("user_agent", "B/1")});
    world.time.runPending();
    EXPECT_EQ(world.time.now(), begin);
    EXPECT_FALSE(world.bus.takeSignals(":1.1").at(0).arguments[0].as<std::string>()->empty());
    EXPECT_FALSE(world.bus.takeSignals(":1.2").at(0).arguments[0].as<std::string>()->empty());
}

TEST_F(SearchRoadTest, ADisabledBagAShortQueryAndNoEndpointAreAnsweredWithNothing) {
    world.serveBag(R"({"enabled": true, "search_url": "https://s.example/", "minimum_query_length": 3,
                       "user_agents": [{"match": "off/1", "values": {"enabled": false}},
                                       {"match": "lost/1", "values": {"search_url": 5}}]})");
    world.start();
    ASSERT_TRUE(world.configure(":1.1", "a", "Plain/1")->arguments);
    EXPECT_TRUE(isNothing(world.search(":1.1", "ab")));
    EXPECT_TRUE(world.log.contains(LogLevel::debug, "Orvex_Search", "input 'ab' less than 3"));
    EXPECT_FALSE(world.search(":1.1", "\xF0\x9F\x8C\xB2g")->arrived());  // a tree counts two
    ASSERT_TRUE(world.configure(":1.2", "b", "Off/1")->arguments);
    EXPECT_TRUE(isNothing(world.search(":1.2", "tree")));
    EXPECT_TRUE(world.log.contains(LogLevel::standard, "Orvex_Search", "no search, bag disabled"));
    ASSERT_TRUE(world.configure(":1.3", "c", "Lost/1")->arguments);
    EXPECT_TRUE(isNothing(world.search(":1.3", "tree")));
    EXPECT_EQ(world.server().sent().size(), 1u);
}

TEST_F(SearchRoadTest, EachFailureOfTheTransportIsTheClientsToKnow) {
    startWithClient();
    auto outcome = world.search(":1.1", "tree");
    world.answer({.error = platform::TransportError{platform::TransportError::timedOut, "too slow"}});
    EXPECT_EQ(*error(outcome).find("domain")->as<std::string>(), "ORXURLErrorDomain");
    EXPECT_EQ(*error(outcome).find("code")->as<std::int64_t>(), -1001);
    EXPECT_EQ(reason(outcome), "too slow");
    outcome = world.search(":1.1", "tree");
    world.answer({.body = "x", .isHTTP = false});
    EXPECT_EQ(reason(outcome), "invalid response class");
    outcome = world.search(":1.1", "tree");
    world.answer({.statusCode = 204, .body = ""});
    EXPECT_TRUE(isNothing(outcome));
}

TEST_F(SearchRoadTest, AForcedFetchIsFollowedWhenTheHintIsNewer) {
    startWithClient();
    const auto fetches = world.bagFetches();
    const auto answerWith = [&](std::string hint) {
        (void)world.search(":1.1", "tree");
        world.answer({.headers = {{"X-Kelvar-ForceFetch", std::move(hint)}}, .body = "[]", .error = {}, .timing = {}});
    };
    answerWith(R"({"bag": 7})");
    answerWith(R"({"bag": "8"})");
    answerWith("[8]");
    answerWith("{");
    EXPECT_EQ(world.bagFetches(), fetches);
    EXPECT_TRUE(world.log.contains(LogLevel::error, "Orvex_Search",
                                   "Failed to deserialize X-Kelvar-ForceFetch header data into a dictionary"));
    answerWith(R"({"bag": 10})");
    EXPECT_EQ(world.bagFetches(), fetches + 1);
}

TEST_F(SearchRoadTest, AnOlderQueryIsAnsweredThoughANewerOneCame) {
    startWithClient();
    const auto older = world.search(":1.1", "tr");
    const auto newer = world.search(":1.1", "tre");
    world.answer({.body = "1"});
    world.answer({.body = "2"});
    EXPECT_EQ(reply(older).find("data")->as<platform::BusBytes>()->view(), "1");
    EXPECT_EQ(reply(newer).find("data")->as<platform::BusBytes>()->view(), "2");
}

TEST_F(SearchRoadTest, ClientsShareTheUserGUIDUnlessEachIsToHaveItsOwn) {
    const auto userGUIDs = [](DaemonWorld& daemon) {
        daemon.start();
        std::set<std::string> different;
        for (const auto* client : {":1.1", ":1.2"}) {
            EXPECT_TRUE(daemon.configure(client, client, "A/1")->arguments);
            (void)daemon.search(client, "tree");
            different.insert(
                *platform::headerValue(daemon.server().sent().back().request.headers, "X-Kelvar-UserGuid"));
        }
        return different.size();
    };
    EXPECT_EQ(userGUIDs(world), 1u);
    DaemonWorld other;
    other.defaults.store("ORXSharedSession", false);
    EXPECT_EQ(userGUIDs(other), 2u);
    EXPECT_TRUE(other.log.contains(LogLevel::standard, "Orvex_Session",
                                   "Orvex is using individual instance of guid controller :1.1"));
}

TEST_F(SearchRoadTest, TheToolMayChangeItsAgentAndHasTheBagOfTheNewOne) {
    world.serveBag(R"({"search_url": "https://s.example/",
                       "user_agents": [{"match": "off/1", "values": {"enabled": false}}]})");
    world.start();
    ASSERT_TRUE(world.configure(":1.1", "orvex_tool", "On/1")->arguments);
    EXPECT_FALSE(world.search(":1.1", "tree")->arrived());
    ASSERT_TRUE(world.configure(":1.2", "orvex_tool", "Off/1")->arguments);
    EXPECT_TRUE(isNothing(world.search(":1.2", "tree")));
    EXPECT_TRUE(world.log.contains(LogLevel::error, "Orvex_Session", "userAgent changed to orvexd/"));
}

TEST_F(SearchRoadTest, AConnectionIsWarmedAtMostOnceInThirtySeconds) {
    const auto warm = [this] {
        (*world.assembly.clientStateManager()->stateForClientIdentifier("com.kelvar.lumisk"))->warm();
        world.time.runPending();
    };
    const auto told = [this](std::string_view why) {
        return world.log.contains(LogLevel::standard, "Orvex_Search", why);
    };
    world.serveBag(std::nullopt);
    world.start();
    warm();
    EXPECT_TRUE(told("warm not required, bag fetch in process"));
    world.sessions.session("com.kelvar.orvexd.bagSession")->answer({.body = std::string(DaemonWorld::plainBag)});
    world.time.runPending();
    warm();
    ASSERT_EQ(world.server().sent().size(), 1u);
    EXPECT_EQ(world.server().sent()[0].request.url, "https://search.example/warm");
    world.answer({.statusCode = 204});
    EXPECT_TRUE(told("Status for warm request: (204) error: ((null))"));
    world.time.advance(29s);
    warm();
    EXPECT_TRUE(told("warm not required, connection still warm"));
    EXPECT_EQ(world.server().sent().size(), 1u);
    world.time.advance(1s);
    warm();
    EXPECT_EQ(world.server().sent().size(), 2u);
}

TEST_F(SearchRoadTest, MissingInputModeAndScaleAreFilledIn) {
    world.defaults.store("ORXScreenScale", 1.5);
    startWithClient();
    (void)world.search(":1.1", "tree");
    const auto sent = world.server().sent().at(0).request;
    EXPECT_NE(sent.url.find("kb_ime=de&"), std::string::npos) << sent.url;
    EXPECT_EQ(platform::headerValue(sent.headers, "X-Kelvar-UI-Scale"), "1.5");
    EXPECT_TRUE(world.log.contains(LogLevel::debug, "Orvex_Request", "request scale property not set, using 1.500000"));
    auto settings = world.locale.current();
    settings.keyboardLayout = "us";
    world.locale.set(settings);
    (void)world.search(":1.1", "trees");
    EXPECT_NE(world.server().sent().at(1).request.url.find("kb_ime=us&"), std::string::npos);
}

TEST_F(SearchRoadTest, TheTextOfAQueryIsInNoLogButADebugLog) {
    const platform::RecordingLog usual(LogLevel::info);
    startWithClient();
    (void)world.search(":1.1", "secret");
    world.answer({.body = "[]"});
    for (const auto& line : usual.lines()) EXPECT_EQ(line.text.find("secret"), std::string::npos) << line.text;
}

}  // namespace
}  // namespace orvex
