#include <gtest/gtest.h>

#include <fstream>

#include "daemon/daemon_world_test.h"
#include "network/orx_network_request_factory.h"
#include "platform/fakes/temporary_directory.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using platform::BusDictionary;
using platform::LogLevel;

/// The queries that are no search, from the bus to the server and back.
class QueriesRoadTest : public testing::Test {
protected:
    void start(const std::string& more = "") {
        world.serveBag(R"({"search_url": "https://s.example/s", "more_results_url": "https://s.example/m?q=all",
                           "card_url": "https://s.example/c", "flight_url": "https://s.example/f")" +
                       more + "}");
        world.start();
        ASSERT_TRUE(world.configure(":1.1")->arguments);
    }
    DaemonWorld::Outcome ask(const char* kind, BusDictionary entries = {}) {
        entries.set("query_id", std::uint64_t{3}).set("scale", 2.0);
        return world.callDaemon(":1.1", "Request", {kind, std::move(entries)});
    }
    DaemonWorld::Outcome askCard() { return ask("card", BusDictionary{}.set("card_url", "https://cards.example/1")); }
    void answer(std::string body, std::int64_t status = 200) {
        world.answer({.statusCode = status, .body = std::move(body)});
    }
    void failTransport() {
        world.answer({.error = platform::TransportError{platform::TransportError::connectionLost, "lost"}});
        world.time.advance(0s);  // another attempt begins from a timer
    }
    void expectLastURL(std::string_view start, const std::vector<std::string>& items) {
        const auto url = world.server().sent().back().request.url;
        EXPECT_TRUE(url.starts_with(start)) << url;
        for (const auto& item : items) EXPECT_NE(url.find(item), std::string::npos) << item << " in " << url;
    }
    bool tellsUserGUID() {
        const auto sent = world.server().sent();
        return platform::headerValue(sent.back().request.headers, "X-Kelvar-UserGuid").has_value();
    }
    static std::string data(const DaemonWorld::Outcome& outcome) {
        const auto* bytes = outcome->arguments->at(1).as<BusDictionary>()->find("data");
        return bytes != nullptr ? std::string(bytes->as<platform::BusBytes>()->view()) : "(none)";
    }
    /// "domain code reason"; empty for no error.
    static std::string error(const DaemonWorld::Outcome& outcome) {
        const auto* entries = outcome->arguments->at(2).as<BusDictionary>();
        if (entries->entries.empty()) return "";
        return *entries->find("domain")->as<std::string>() + " " +
               std::to_string(*entries->find("code")->as<std::int64_t>()) + " " +
               *entries->find("reason")->as<std::string>();
    }
    bool logged(LogLevel level, const char* text) { return world.log.contains(level, "Orvex_Search", text); }

    DaemonWorld world;
};

TEST_F(QueriesRoadTest, EachKindGoesToItsEndpointWithWhatWasAsked) {
    start();
    (void)ask("zero_keyword", BusDictionary{}.set("temperature_unit", "F"));
    expectLastURL("https://s.example/s?", {"&qtype=zkw&", "&temp=F&"});
    (void)ask("more_results");
    expectLastURL("https://s.example/m?", {"&q=all"});
    (void)ask("lookup", BusDictionary{}
                            .set("query_string", "oak")
                            .set("client_context", "mail")
                            .set("lookup_hint_domain", "tree")
                            .set("lookup_selection_type", std::uint32_t{2}));
    expectLastURL("https://s.example/s?", {"&q=oak", "&context=mail&", "&ldomain=tree&", "&ltype=hint&"});
    EXPECT_FALSE(tellsUserGUID());
    (void)ask("flight", BusDictionary{}.set("flight_query", "LH-1").set("flight_date", 1700000000.5));
    expectLastURL("https://s.example/f?", {"&q=LH-1&", "&timestamp=1700000000.5"});
    EXPECT_TRUE(tellsUserGUID());
    (void)askCard();
    expectLastURL("https://cards.example/1?", {"&key="});
    EXPECT_FALSE(tellsUserGUID());
    EXPECT_EQ(world.counters.value("com.kelvar.orvexd.search"), 0);
    EXPECT_EQ(world.counters.value("com.kelvar.orvexd.lumisk.keystrokes"), 0);
}

TEST_F(QueriesRoadTest, SomeKindsTakeAnyBodyOfAnyStatus) {
    start();
    for (const auto* kind : {"zero_keyword", "lookup", "flight"}) {
        const auto outcome = ask(kind, BusDictionary{}.set("verbose_reply", true));
        answer("\x0A\x01", 404);
        ASSERT_TRUE(outcome->arguments);
        EXPECT_EQ(*outcome->arguments->at(0).as<std::uint64_t>(), 3u);
        EXPECT_EQ(data(outcome), "\x0A\x01") << kind;
        const auto* reply = outcome->arguments->at(1).as<BusDictionary>();
        EXPECT_EQ(*reply->find("scale")->as<double>(), 2.0);
        EXPECT_NE(reply->find("http_response"), nullptr);
    }
    for (const auto* text : {"Got network response for zkw query", "Got network response for lookup query",
                             "Got network response for flight query"})
        EXPECT_TRUE(logged(LogLevel::standard, text)) << text;
}

TEST_F(QueriesRoadTest, MoreResultsAndCardsTakeAListWithStatus200Only) {
    start();
    auto outcome = ask("more_results");
    answer("[]");
    EXPECT_EQ(data(outcome), "[]");
    EXPECT_EQ(*outcome->arguments->at(0).as<std::uint64_t>(), 3u);
    outcome = ask("more_results");
    answer("{}");
    EXPECT_EQ(error(outcome), "ORXErrorDomain 500 invalid response class");
    outcome = ask("more_results");
    answer("[]", 503);
    EXPECT_EQ(error(outcome), "ORXErrorDomain 500 status code 503");
    EXPECT_TRUE(logged(LogLevel::error, "More results fetch failed with HTTP status code 503 error []"));
    outcome = askCard();
    answer("[1");
    EXPECT_TRUE(error(outcome).starts_with("ORXErrorDomain 500 "));
    EXPECT_TRUE(logged(LogLevel::error, "Failed to deserialize card details for into a dictionary. Error: "));
    outcome = askCard();
    answer("", 204);
    EXPECT_EQ(error(outcome), "ORXErrorDomain 500 status code 204");
    EXPECT_TRUE(logged(LogLevel::error, "Card fetch failed with HTTP status code 204 error (null)"));
    outcome = askCard();
    failTransport();
    EXPECT_EQ(error(outcome), "ORXURLErrorDomain -1005 lost");
    EXPECT_EQ(data(outcome), "(none)");
}

TEST_F(QueriesRoadTest, LookupsAndFlightsAreTriedAgainAtMostThreeTimesInTime) {
    start(R"(, "search_render_timeout": 1500)");
    (void)world.assembly.urlSession();
    for (const auto* kind : {"lookup", "flight"}) {
        const auto before = world.server().sent().size();
        const auto outcome = ask(kind);
        for (int attempt = 0; attempt < 4; ++attempt) {
            EXPECT_FALSE(outcome->arrived());
            failTransport();
        }
        EXPECT_EQ(error(outcome), "ORXURLErrorDomain -1005 lost");
        EXPECT_EQ(world.server().sent().size() - before, 4u) << kind;
        const auto late = ask(kind);
        world.time.advance(1s);  // the last moment
        failTransport();
        EXPECT_FALSE(late->arrived());
        world.time.advance(1ms);
        failTransport();
        EXPECT_EQ(error(late), "ORXURLErrorDomain -1005 lost");
    }
    for (const auto* kind : {"zero_keyword", "more_results"}) {
        const auto outcome = ask(kind);
        failTransport();
        EXPECT_TRUE(outcome->arrived()) << kind;
    }
}

TEST_F(QueriesRoadTest, EveryAttemptOfEveryKindGoesThroughTheProxy) {
    start(R"(, "search_render_timeout": 1500, "cindora_configuration": {"proxy_url": "https://proxy.example:8443",
               "appRule": {"enable": {"Enabled": true}}})");
    const auto lastProxy = [this] { return world.server().sent().back().proxyURL; };
    for (const auto* kind : {"zero_keyword", "more_results", "lookup", "flight"}) {
        (void)ask(kind);
        EXPECT_EQ(lastProxy(), "https://proxy.example:8443") << kind;
    }
    failTransport();  // of the zero-keyword query
    failTransport();  // of more results
    EXPECT_EQ(world.server().sent().size(), 4u);
    failTransport();
    EXPECT_EQ(world.server().sent().size(), 5u);
    EXPECT_EQ(lastProxy(), "https://proxy.example:8443") << "a proxy that fails is not gone round";
    ASSERT_TRUE(world.configure(":1.2", "com.kelvar.missiv", "Missiv/1")->arguments);
    (void)world.callDaemon(":1.2", "Request", {"lookup", BusDictionary{}.set("query_string", "oak")});
    EXPECT_EQ(lastProxy(), std::nullopt);
}

TEST_F(QueriesRoadTest, AReplyTellsTheUseOfTheMapsServiceThatItsRequestTold) {
    start();
    std::optional<std::string> told;
    for (const auto* kind : {"zero_keyword", "lookup", "flight", "more_results"}) {
        const auto outcome = ask(kind);
        const auto header = platform::headerValue(world.server().sent().back().request.headers, "X-Kelvar-GeoSession");
        EXPECT_EQ(header.has_value(), kind != std::string("more_results"));
        if (header) told = header;
        answer("[]");
        const auto* entity = outcome->arguments->at(1).as<BusDictionary>()->find("geo_session_entity");
        ASSERT_NE(entity, nullptr) << kind;
        EXPECT_EQ(*entity->as<std::string>(), told);  // time stands still
    }
}

TEST_F(QueriesRoadTest, ASearchOrALookupMakesDownloadsTellTheExactPlace) {
    start(R"(, "supported_geo_location_sources": ["gps"])");
    const auto told = [&] {
        const auto request = world.assembly.requestFactory()->fileDownloadRequest(
            {.url = "https://s.example/r", .includeLatLong = true});
        return platform::headerValue(request->headers, "X-Kelvar-FuzzedLatLong").value_or("");
    };
    for (const auto* kind : {"search", "lookup"}) {
        world.location.report({.latitude = 1.25, .longitude = 2.5, .horizontalAccuracy = 5, .type = 1});
        (void)ask("zero_keyword");
        EXPECT_EQ(told(), "1.000000,2.000000");
        (void)ask(kind);
        EXPECT_EQ(told(), "1.250000,2.500000") << kind;
        world.location.authorize(platform::LocationAuthorization::denied);  // which forgets it
        world.location.authorize(platform::LocationAuthorization::always);
    }
}

TEST_F(QueriesRoadTest, WithoutABagEachSaysWhatItCouldNotDo) {
    world.serveBag(std::nullopt);
    world.start();
    ASSERT_TRUE(world.configure(":1.1")->arguments);
    BusDictionary more;
    more.set("query_items",
             platform::BusArray{"(ss)", {platform::BusStruct{{platform::BusValue("q"), platform::BusValue("pine")}}}});
    EXPECT_EQ(error(ask("more_results", std::move(more))), "ORXErrorDomain 1 timeout");
    for (const auto* kind : {"zero_keyword", "card", "lookup", "flight"})
        EXPECT_EQ(error(ask(kind)), "ORXErrorDomain 1 timeout");
    for (const auto* text : {"can't complete non-cached zkw query.", "can't complete non-cached lookup query.",
                             "Bag fetch failed, can't complete flight query.", "can't complete non-cached query pine.",
                             "can't complete non-cached query ."})
        EXPECT_TRUE(logged(LogLevel::error, text)) << text;
}

TEST_F(QueriesRoadTest, ADisabledBagAndAMissingEndpointAnswerNothing) {
    world.serveBag(R"({"user_agents": [{"match": "off/1", "values": {"enabled": false}}]})");
    world.start();
    ASSERT_TRUE(world.configure(":1.1")->arguments);
    const auto isNothing = [](const auto& outcome) { return data(outcome) == "(none)" && error(outcome).empty(); };
    for (const auto* kind : {"zero_keyword", "more_results", "lookup", "flight"}) EXPECT_TRUE(isNothing(ask(kind)));
    EXPECT_TRUE(isNothing(askCard()));
    ASSERT_TRUE(world.configure(":1.1", "com.kelvar.other", "Off/1")->arguments);
    ASSERT_TRUE(world.configure(":1.2", "com.kelvar.off", "Off/1")->arguments);
    for (const auto* kind : {"zero_keyword", "card", "lookup", "flight"})
        EXPECT_TRUE(isNothing(world.callDaemon(":1.2", "Request", {kind, BusDictionary{}})));
    for (const auto* text :
         {"no zkw, bag disabled", "no search, bag disabled", "no lookup, bag disabled", "no flights, bag disabled"})
        EXPECT_TRUE(logged(LogLevel::standard, text)) << text;
    EXPECT_EQ(world.sessions.session("com.kelvar.orvexd.urlSession"), nullptr);
}

TEST_F(QueriesRoadTest, FlightsCanComeFromATestFile) {
    const platform::TemporaryDirectory directory;
    const std::string file = directory.path() + "/flights.json";
    std::ofstream(file) << R"([{"carrier_code": "LH", "flight_number": "1", "a": 1}, 5,
                               {"carrier_code": "LH", "flight_number": 2}, {"carrier_code": "LH"}])";
    world.defaults.store("ORXFlightUseDebugData", true);
    world.defaults.store("ORXFlightDebugDataLocation", "file://" + file);
    start();
    const auto flights = [&](const char* query) {
        return data(ask("flight", BusDictionary{}.set("flight_query", query)));
    };
    EXPECT_EQ(flights("LH-1"), R"([{"carrier_code":"LH","flight_number":"1","a":1}])");
    EXPECT_EQ(flights("LH-2"), R"([{"carrier_code":"LH","flight_number":2}])");
    for (const auto* query : {"LH-3", "LH", "LH-1-", ""}) EXPECT_EQ(flights(query), "[]") << query;
    std::ofstream(file) << "[";
    EXPECT_EQ(flights("LH-1"), "[]");
    EXPECT_TRUE(logged(LogLevel::error, "Failed to parse flight test data json. Error: "));
    world.defaults.store("ORXFlightDebugDataLocation", "file://" + directory.path());
    EXPECT_EQ(flights("LH-1"), "[]");
    EXPECT_TRUE(logged(LogLevel::error, "Failed to load flight test data. Error: "));
    EXPECT_EQ(world.sessions.session("com.kelvar.orvexd.urlSession"), nullptr);
}

}  // namespace
}  // namespace orvex
