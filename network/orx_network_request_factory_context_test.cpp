#include <fmt/format.h>

#include <random>

#include "core/orx_request.h"
#include "network/context_fixture_test.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using platform::LocationAuthorization;
using testing::HasSubstr;
using testing::Not;
using Item = std::optional<std::string>;

TEST_F(ContextTest, ALocationTravelsWithItsSourceAndEndsWithItsReason) {
    start("{\"search_url\": \"https://a.example/s\"}");
    EXPECT_EQ(itemOf(search(), "geosrc"), "bagno.all");
    EXPECT_FALSE(location.updating && fuzzed());
    useBag(allSources);
    EXPECT_TRUE(location.updating);
    locate(37.77, -122.42);
    EXPECT_EQ(itemOf(search(), "latlng"), "37.770000,-122.420000");
    EXPECT_EQ(itemOf(search(), "geosrc"), "gps,12.000000");
    EXPECT_EQ(platform::headerValue(search().headers, "X-Kelvar-Whitelisted-App-Signature"), "SIGNATURE");
    locate(38.5, -121.5, 900, 5);
    EXPECT_EQ(itemOf(search(), "geosrc"), "wifi,900.000000");
    EXPECT_EQ(fuzzed(), "37.000000,-122.000000") << "the first one stays";
    factory().setPerformedSearch();
    EXPECT_EQ(fuzzed(), "38.500000,-121.500000");

    locate(1, 1, 1, 0);
    EXPECT_EQ(itemOf(search(), "geosrc"), "bagno.unknown");
    EXPECT_EQ(itemOf(search(), "latlng"), std::nullopt);
    EXPECT_EQ(header("X-Kelvar-Whitelisted-App-Signature"), std::nullopt);
    EXPECT_EQ(fuzzed(), std::nullopt);
    locate(1, 1, 1, 7);
    useBag(R"({"search_url": "https://a.example/s", "supported_geo_location_sources": ["gps"]})");
    EXPECT_EQ(itemOf(search(), "geosrc"), "bagno.cell") << "held, but the new bag does not take it";
    location.authorize(LocationAuthorization::denied);
    time.runPending();
    EXPECT_EQ(itemOf(search(), "geosrc"), "userno");
    location.fail("no luck");
    EXPECT_TRUE(
        log.contains(platform::LogLevel::fault, "Orvex_Request", "Location determination failed with error no luck"));
}

TEST_F(ContextTest, WhatALocationIsNotYetThereForIsTold) {
    start();
    EXPECT_EQ(itemOf(search(), "geosrc"), "slow");
    locate(1, 2);
    const int starts = location.starts;
    time.advance(299s);
    (void)search();
    EXPECT_EQ(location.starts, starts);
    time.advance(1s);
    EXPECT_EQ(itemOf(search(), "latlng"), "1.000000,2.000000");
    time.runPending();
    EXPECT_EQ(location.starts, starts + 1);
}

TEST_F(ContextTest, MoreResultsOfAnEndpointWithALocationAskForNone) {
    start(R"({"more_results_url": "https://a.example/m?latlng=1,2", "search_url": "https://a.example/s",
              "supported_geo_location_sources": ["gps"]})");
    time.runPending();
    const int starts = location.starts;
    EXPECT_EQ(itemOf(factory().moreResultsRequest({}, *bag, "GUID").value(), "latlng"), "1,2");
    time.runPending();
    EXPECT_EQ(location.starts, starts);
    (void)search();
    time.runPending();
    EXPECT_EQ(location.starts, starts + 1);
}

// Positions, masks, authorisations, bags and clients at random: whatever looks like a position in any request is the
// one that was reported, and there only by the rules.
TEST_F(ContextTest, NoLocationLeavesTheDeviceAgainstTheRules) {
    start();
    std::mt19937 random(7);
    std::uniform_real_distribution<double> latitude(-95, 95);
    std::uniform_real_distribution<double> longitude(-185, 185);
    const auto any = [&](int count) { return static_cast<int>(random() % static_cast<unsigned>(count)); };
    const std::vector<std::string> lists = {R"([])", R"(["gps"])", R"(["wifi", "cell"])", R"(["unknown"])"};
    const std::map<int, std::string> names = {{0, "unknown"}, {1, "gps"}, {4, "wifi"}, {6, "cell"}};
    int tellings = 0;
    for (int round = 0; round < 400; ++round) {
        const auto& list = lists[static_cast<std::size_t>(any(4))];
        const bool gazel = any(2) == 0;
        useBag(R"({"search_url": "https://a.example/s", "more_results_url": "https://a.example/m",
                    "flight_url": "https://a.example/f", "supported_geo_location_sources": )" +
                   list + "}",
               gazel ? "Gazel/2" : "lumisk/1");
        const auto status = static_cast<LocationAuthorization>(any(5));
        location.authorize(status);
        location.gazelStatus = static_cast<LocationAuthorization>(any(5));
        const int type = std::next(names.begin(), any(4))->first;
        const double north = latitude(random), east = longitude(random);
        const bool valid = any(9) != 0;
        locate(north, east, valid ? 5 : std::nan(""), type);
        defaults.store("ORXLocationDisabled", any(6) == 0);
        const auto mask = any(3) == 0 ? FieldMask::withoutLocation : FieldMask::none;

        const bool allowed = platform::mayLocate(status) && !defaults.boolean("ORXLocationDisabled");
        const bool accepted = list.contains('"' + names.at(type) + '"');
        const ORXCardRequest card{{}, "https://a.example/c"};
        const std::pair<std::optional<platform::URLRequest>, bool> requests[] = {
            {factory().searchRequest({}, *bag, "GUID", mask),
             mask == FieldMask::none && (!gazel || platform::mayLocate(location.gazelStatus))},
            {factory().zeroKeywordRequest({}, *bag, "GUID", mask), mask == FieldMask::none},
            {factory().moreResultsRequest({}, *bag, "GUID", mask), mask == FieldMask::none},
            {factory().lookupRequest({}, *bag, "GUID"), true},
            {factory().flightSearchRequest({}, *bag, "GUID"), true},
            {factory().cardRequest(card, *bag, "GUID"), true},
        };
        const bool onEarth = std::abs(north) <= 90 && std::abs(east) <= 180 && valid;
        for (const auto& [request, byItsKind] : requests) {
            const auto told = itemOf(request.value(), "latlng");
            const auto signature = platform::headerValue(request->headers, "X-Kelvar-Whitelisted-App-Signature");
            ASSERT_TRUE(told || !signature) << round;
            if (onEarth && allowed && accepted && byItsKind) tellings += told.has_value();
            if (!told) continue;
            ASSERT_TRUE(allowed && byItsKind) << round << ' ' << request->url;
            ASSERT_TRUE(!onEarth || (accepted && told == fmt::format("{:f},{:f}", north, east))) << round;
        }
        const auto inDownloads = fuzzed();
        ASSERT_TRUE(allowed || !inDownloads);
        ASSERT_THAT(inDownloads.value_or("0.000000,0.000000"),
                    testing::MatchesRegex("-?[0-9]+.000000,-?[0-9]+.000000"));
    }
    EXPECT_GT(tellings, 50) << "the rules were put to the test";
}

TEST_F(ContextTest, OneSampleOfTheMovementIsTakenForARequest) {
    start();
    const std::pair<platform::MotionActivity, std::string> cases[] = {
        {{.stationary = true, .automotive = true}, "2"},
        {{.automotive = true, .walking = true}, "6"},
        {{.walking = true, .running = true}, "3"},
        {{.running = true, .cycling = true}, "4"},
        {{.cycling = true}, "5"},
        {{}, "1"},
    };
    for (const auto& [activity, mode] : cases) {
        (void)search();
        ASSERT_TRUE(motion.updating());
        motion.report(activity);
        EXPECT_FALSE(motion.updating());
        EXPECT_EQ(itemOf(search(), "tm"), mode);
    }
}

TEST_F(ContextTest, TheRoutineIsAskedWhenALocationWasTaken) {
    start();
    const std::pair<std::optional<std::int32_t>, Item> cases[] = {
        {-1, "1"}, {0, "2"}, {1, "3"}, {2, std::nullopt}, {std::nullopt, std::nullopt}};
    for (const auto& [mode, sent] : cases) {
        routine.answer = mode;
        locate(1, 2);
        EXPECT_EQ(itemOf(search(), "rm"), sent);
    }
}

TEST_F(ContextTest, PolicyAndDictionariesAreInTheNextRequest) {
    start();
    const std::pair<std::string, Item> cases[] = {
        {R"({"managed_account": true})", "managed"},
        {R"({"managed_account": fal)", "managed"},  // half written: what was known holds
        {R"({"managed_account": 1})", "managed"},
        {R"({})", std::nullopt},
        {R"({"media_store_allowed": false})", "managed"},
        {R"({"app_installation_allowed": true})", std::nullopt},
    };
    for (const auto& [text, mode] : cases) {
        policy.write(text);
        EXPECT_EQ(itemOf(search(), "mode"), mode) << text;
    }
    EXPECT_TRUE(log.contains(platform::LogLevel::standard, "Orvex_Request",
                             "device restriction have changed, currently restriction status is 1"));
    policy.write(platform::failure(EPERM, "not the owner's"));
    EXPECT_TRUE(log.contains(platform::LogLevel::error, "Orvex_Request", "the policy stays as it was"));

    dictionaries.install({"de", "en"});
    time.runPending();
    EXPECT_EQ(itemOf(search(), "dicts"), "de,en");
    defaults.store("LULookupDisabled", true);
    EXPECT_EQ(itemOf(search(), "dicts"), "off");
}

TEST_F(ContextTest, SubscriptionsThatTheBagWantsAreTold) {
    start();
    const auto now = std::to_string(platform::secondsSince1970(time.wallNow()) - 90);
    const auto old = std::to_string(platform::secondsSince1970(time.wallNow()) - 110);
    subscriptions.write(R"({"storefront": "143443", "weft": true, "subscriptions": [
        {"provider": "b", "type": "paid", "active": true, "domain": "tv.example", "valid_until": )" +
                        now + R"(},
        {"provider": "c", "type": "paid", "active": true, "domain": "tv.example", "valid_until": )" +
                        old + R"(},
        {"provider": "d", "type": "free", "active": false, "bundle_identifier": "example.film"},
        {"provider": "e", "type": "free", "active": true, "domain": "other.example"},
        {"provider": "f", "type": "free", "active": 1, "domain": "tv.example"}, 7]})");
    time.runPending();
    const std::string told = R"([{"provider":"b","type":"paid","active":true},)"
                             R"({"provider":"d","type":"free","active":false},)"
                             R"({"provider":"weft","attribute":"premium","active":true}])";
    EXPECT_EQ(header("X-Kelvar-Subscriptions"), told);
    EXPECT_EQ(itemOf(search(), "storefront"), "143443");

    subscriptions.write("[");
    time.runPending();
    EXPECT_EQ(header("X-Kelvar-Subscriptions"), told);
    EXPECT_TRUE(log.contains(platform::LogLevel::error, "Orvex_Subscription",
                             "Error fetching third party subscription information from daemon: "));
    useBag(R"({"search_url": "https://a.example/s"})");
    EXPECT_EQ(header("X-Kelvar-Subscriptions"), std::nullopt);
}

TEST_F(ContextTest, TheMapsSessionCountsRequestsAndRollsWithTheUser) {
    defaults.store("ORXMapsEnvironment", "staging");
    defaults.store("ORXMapsClientMetadata", "metadata");
    start();
    const auto first = header("X-Kelvar-GeoSession").value();
    time.advance(1500ms);
    EXPECT_EQ(header("X-Kelvar-GeoSession"), first.substr(0, 36) + " 2 1.500000");
    notifications.post(ORXUserGUIDChangeNotification{});
    const auto next = header("X-Kelvar-GeoSession").value();
    EXPECT_THAT(next, testing::EndsWith(" 1 0.000000"));
    EXPECT_NE(next.substr(0, 36), first.substr(0, 36));
    EXPECT_EQ(header("X-Kelvar-GeoEnvironment"), "staging");
    EXPECT_EQ(header("X-Kelvar-GeoMetadata"), "metadata");
}

TEST_F(ContextTest, ANewBagSaysWhatIsVisibleAndWhetherQueriesGoThroughAProxy) {
    defaults.store("ORXUseCindora", true);
    start(R"({"hashtag_images_enabled": false, "user_agents": [{"match": "gazel", "values": {"enabled": false}}]})");
    EXPECT_FALSE(factory().gazelVisible());
    EXPECT_FALSE(factory().hashtagImagesVisible());
    EXPECT_EQ(factory().cindoraStatus(), 0);
    const auto configured = [&](std::string_view proxy) {
        useBag(R"({"cindora_configuration": {"appRule": {"enable": {"Enabled": true}}, "proxy_url": )" +
               std::string(proxy) + "}}");
        const auto task = assembly.urlSession().dataTask({.url = "https://a.example/"}, [](auto&&...) {});
        factory().enableCindora(*task);
    };
    configured(R"("https://proxy.example:8443")");
    EXPECT_TRUE(factory().gazelVisible() && factory().hashtagImagesVisible());
    EXPECT_EQ(factory().cindoraStatus(), 1);
    EXPECT_FALSE(log.contains(platform::LogLevel::error, "Orvex_Connection", "Enabling Cindora for request failed."));
    for (const auto* refused : {"1", R"("http://proxy.example")"}) {
        configured(refused);
        EXPECT_TRUE(log.contains(platform::LogLevel::error, "Orvex_Request", "NSP configuration failed."));
        EXPECT_TRUE(
            log.contains(platform::LogLevel::error, "Orvex_Connection", "Enabling Cindora for request failed."));
    }
    defaults.store("ORXUseCindora", false);
    EXPECT_EQ(factory().cindoraStatus(), 0);
}

}  // namespace
}  // namespace orvex
