#include <fmt/format.h>

#include <random>

#include "core/orx_request.h"
#include "network/app_whitelist_signature.h"
#include "network/network_fixture_test.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using platform::LocationAuthorization;
using testing::HasSubstr;
using testing::Not;
using Item = std::optional<std::string>;

constexpr std::string_view allSources =
    R"({"search_url": "https://a.example/s", "more_results_url": "https://a.example/m",
        "flight_url": "https://a.example/f", "supported_geo_location_sources": ["gps", "wifi", "cell"],
        "send_geo_environment_header": true, "subscription_ttl": 100, "hashtag_images_enabled": false,
        "subscription_provider_domain_whitelist": ["tv.example"],
        "subscription_provider_bundle_identifier_whitelist": ["example.film"]})";

struct Signature final : AppWhitelistSignature {
    [[nodiscard]] std::optional<std::string> whitelistSignature() const override { return "SIGNATURE"; }
};

/// The context as requests tell it: a test changes the device and looks at the next request.
class ContextTest : public NetworkFixture {
protected:
    void start(std::string_view bagJSON = allSources) {
        makeFactory();
        assembly.setAppWhitelistController(std::make_shared<Signature>());
        useBag(bagJSON);
    }
    void useBag(std::string_view json, std::string agent = "lumisk/1") {
        const auto raw =
            std::make_shared<const boost::json::object>(parseJSON(json, kBagJSONDepth).value().as_object());
        bag = std::make_shared<const ORXBag>(raw, std::move(agent));
        notifications.post(ORXBagChangeNotification{bag});
        time.runPending();
    }
    void useAgent(std::string agent) { bag = std::make_shared<const ORXBag>(bag->rawBag(), std::move(agent)); }
    ORXNetworkRequestFactory& factory() { return *assembly.requestFactory(); }
    platform::URLRequest search(FieldMask mask = FieldMask::none) {
        return factory().searchRequest({}, *bag, "GUID", mask).value();
    }
    static std::map<std::string, std::string> itemsOf(const platform::URLRequest& request) {
        std::map<std::string, std::string> items;
        for (auto& [name, value] : platform::decodeQuery(platform::parseURL(request.url).value().query.value_or("")))
            items[name] = value;
        return items;
    }
    static Item itemOf(const platform::URLRequest& request, const std::string& name) {
        const auto items = itemsOf(request);
        const auto found = items.find(name);
        return found == items.end() ? std::nullopt : Item(found->second);
    }
    Item header(std::string_view name) { return platform::headerValue(search().headers, name); }
    Item fuzzed() {
        return platform::headerValue(
            factory().fileDownloadRequest({.url = "https://a.example/r", .includeLatLong = true}).value().headers,
            "X-Kelvar-FuzzedLatLong");
    }
    void locate(double latitude, double longitude, double accuracy = 12, std::int32_t type = 1) {
        location.report({latitude, longitude, accuracy, type});
        time.runPending();
    }

    std::shared_ptr<const ORXBag> bag;
};

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

// What each kind of request is, to the byte, on a device that tells everything.

class GoldenTest : public ContextTest {
protected:
    void startFull() {
        defaults.store("ORXMapsEnvironment", "env");
        defaults.store("ORXMapsClientMetadata", "meta");
        defaults.store("ORXDiagnosticsAndUsage", true);
        policy.write(R"({"managed_account": true})");
        dictionaries.install({"de"});
        subscriptions.write(R"({"storefront": "143", "weft": true})");
        routine.answer = 0;
        start();
        factory().setSilhouetteTopics("topics");
        locate(52.52, 13.405);
        (void)search();
        motion.report({.walking = true});
        time.runPending();
    }
    /// "QUERY" and a line for each header, the maps session's identifier left out.
    static std::string wire(const std::optional<platform::URLRequest>& request) {
        std::string text = request.value().url.substr(std::string("https://a.example/").size()) + "\n";
        for (const auto& [name, value] : request->headers)
            text += name + ": " + (name == "X-Kelvar-GeoSession" ? value.substr(36) : value) + "\n";
        return text;
    }
    /// A device that tells next to nothing, and queries that say nothing.
    void startEmpty() {
        locale.set({});
        location.authorize(LocationAuthorization::denied);
        start(R"({"search_url": "https://a.example/s", "more_results_url": "https://a.example/m",
                  "flight_url": "https://a.example/f"})");
    }
    static constexpr std::string_view languages = "X-Kelvar-Languages: [\"de-DE\",\"en-GB\"]\n";
    static constexpr std::string_view subscribed =
        "X-Kelvar-Subscriptions: [{\"provider\":\"weft\",\"attribute\":\"premium\",\"active\":true}]\n";
};

TEST_F(GoldenTest, Search) {
    startFull();
    ORXSearchRequest request{};
    request.queryString = "a b";
    request.scale = 2;
    request.triggerEvent = 22;
    request.temperatureUnit = "F";
    request.keyboardInputMode = "de";
    request.l2Version = "2";
    request.l3Version = "3";
    request.topTopics = "[1]";
    request.queryItems = {{"cc", "own"}};
    request.completionCacheSuggestions = {{.suggestion = "s", .score = 1, .type = 7}};
    EXPECT_EQ(wire(factory().searchRequest(request, *bag, "GUID")),
              "s?24h=1&alwaysSendTophit=off&calendar=gregorian&card=1&cc=own&dicts=de&esl=de-DE&geosrc=gps%2C12.000000&"
              "kb_ime=de&key=tabbycat5208&l2=2&l3=3&latlng=52.520000%2C13.405000&lc=s&lco=co&lcs=1&locale=de_DE&"
              "mode=managed&q=a%20b&qtype=explicit&rm=2&sil=topics&storefront=143&temp=F&time_zone=Europe%2FBerlin&"
              "tm=3&units=SI\n"
              "X-Kelvar-TopTopics: [1]\n" +
                  std::string(languages) +
                  "X-Kelvar-GeoMetadata: meta\nX-Kelvar-Whitelisted-App-Signature: SIGNATURE\n" +
                  std::string(subscribed) +
                  "X-Kelvar-UserGuid: GUID\nUser-Agent: lumisk/1\nX-Kelvar-UI-Scale: 2.0\n"
                  "X-Kelvar-GeoEnvironment: env\nX-Kelvar-GeoSession:  2 0.000000\n");
}

TEST_F(GoldenTest, ZeroKeywordAndMoreResults) {
    startFull();
    EXPECT_EQ(wire(factory().zeroKeywordRequest({}, *bag, "GUID")),
              "s?24h=1&calendar=gregorian&cc=DE&esl=de-DE&geosrc=gps%2C12.000000&key=tabbycat5208&"
              "latlng=52.520000%2C13.405000&locale=de_DE&mode=managed&qtype=zkw&rm=2&sil=topics&storefront=143&temp=C&"
              "time_zone=Europe%2FBerlin&tm=3&units=SI\n" +
                  std::string(languages) + "X-Kelvar-GeoMetadata: meta\n" + std::string(subscribed) +
                  "X-Kelvar-UserGuid: GUID\nUser-Agent: lumisk/1\nX-Kelvar-GeoEnvironment: env\n"
                  "X-Kelvar-GeoSession:  2 0.000000\n");
    EXPECT_EQ(wire(factory().moreResultsRequest({}, *bag, "GUID")),
              "m?esl=de-DE&geosrc=gps%2C12.000000&key=tabbycat5208&latlng=52.520000%2C13.405000&locale=de_DE&"
              "mode=managed&rm=2&storefront=143&tm=3\n" +
                  std::string(languages) + "X-Kelvar-Whitelisted-App-Signature: SIGNATURE\n" + std::string(subscribed) +
                  "X-Kelvar-UserGuid: GUID\nUser-Agent: lumisk/1\n");
}

TEST_F(GoldenTest, LookupFlightAndCard) {
    startFull();
    ORXLookupRequest lookup{};
    lookup.queryString = "zq";
    lookup.queryContext = "The weather is very nice today and tomorrow it will be even better";
    lookup.lookupHintDomain = "movies";
    lookup.lookupSelectionType = 2;
    lookup.clientContext = "reader";
    const std::string tail = "User-Agent: lumisk/1\nX-Kelvar-Whitelisted-App-Signature: SIGNATURE\n";
    EXPECT_EQ(wire(factory().lookupRequest(lookup, *bag, "GUID")),
              "s?cc=DE&context=reader&esl=de-DE&geosrc=gps%2C12.000000&key=tabbycat5208&"
              "latlng=52.520000%2C13.405000&lctxlang=en&ldomain=movies&locale=de_DE&ltype=hint&mode=managed&q=zq&rm=2&"
              "storefront=143&tm=3\n" +
                  std::string(languages) + "X-Kelvar-GeoMetadata: meta\n" + std::string(subscribed) + tail +
                  "X-Kelvar-GeoSession:  2 0.000000\n");
    ORXFlightSearchRequest flight{};
    flight.flightQuery = "XY 12";
    flight.flightDate = 1e9 + 0.5;
    flight.clientContext = "mail";
    EXPECT_EQ(wire(factory().flightSearchRequest(flight, *bag, "GUID")),
              "f?cc=DE&context=mail&esl=de-DE&geosrc=gps%2C12.000000&key=tabbycat5208&latlng=52.520000%2C13.405000&"
              "locale=de_DE&q=XY%2012&rm=2&timestamp=1000000000.5&tm=3\n" +
                  std::string(languages) + "X-Kelvar-GeoMetadata: meta\nX-Kelvar-UserGuid: GUID\n" + tail +
                  "X-Kelvar-GeoSession:  3 0.000000\nAccept: application/x-protobuf\n");
    ORXCardRequest card{};
    card.cardURL = "https://a.example/c?id=7";
    EXPECT_EQ(wire(factory().cardRequest(card, *bag, "GUID")),
              "c?cc=DE&esl=de-DE&geosrc=gps%2C12.000000&id=7&key=tabbycat5208&latlng=52.520000%2C13.405000&"
              "locale=de_DE&rm=2&storefront=143&tm=3\n" +
                  std::string(languages) + "X-Kelvar-GeoMetadata: meta\n" + tail +
                  "X-Kelvar-GeoSession:  4 0.000000\n" + std::string(subscribed));
}

TEST_F(GoldenTest, DownloadAndUpload) {
    startFull();
    const auto daemon = [&](std::string_view name) {
        return "User-Agent: " + ORXNetworkRequestFactory::createUserAgentString(device, name) + "\n";
    };
    EXPECT_EQ(
        wire(factory().fileDownloadRequest({.url = "https://a.example/r", .version = "v9", .includeLatLong = true})),
        "r?key=tabbycat5208\n" + daemon("Lumisk/1") +
            "X-Kelvar-FuzzedLatLong: 52.000000,13.000000\nIf-None-Match: v9\n");
    const auto upload =
        factory().flusherUploadRequest({.url = "https://a.example/u", .timeout = 30s, .digest = "DIGEST"});
    EXPECT_EQ(wire(upload), "u?cc=DE&du_enabled=1&key=tabbycat5208&locale=de_DE\n" + std::string(languages) +
                                daemon("") + "X-Kelvar-Digest: DIGEST\nContent-Encoding: deflate\n");
    EXPECT_EQ(upload->method, "POST");
    EXPECT_EQ(upload->timeout, 30s);
}

TEST_F(GoldenTest, OfAnEmptyContextEachKindTellsNextToNothing) {
    startEmpty();
    const ORXCardRequest card{{}, "https://a.example/c"};
    const std::string agent = "User-Agent: lumisk/1\n", guid = "X-Kelvar-UserGuid: GUID\n";
    const auto session = [](int number) { return fmt::format("X-Kelvar-GeoSession:  {} 0.000000\n", number); };
    const std::string items = "geosrc=userno&key=tabbycat5208&locale=&";
    const std::pair<std::optional<platform::URLRequest>, std::string> cases[] = {
        {factory().searchRequest({}, *bag, "GUID"),
         "s?alwaysSendTophit=off&card=1&" + items + "q=&tm=1&units=SI\n" + guid + agent + session(1)},
        {factory().zeroKeywordRequest({}, *bag, "GUID"),
         "s?" + items + "qtype=zkw&tm=1&units=SI\n" + guid + agent + session(2)},
        {factory().moreResultsRequest({}, *bag, "GUID"), "m?" + items + "tm=1\n" + guid + agent},
        {factory().lookupRequest({}, *bag, "GUID"), "s?" + items + "ltype=default&q=&tm=1\n" + agent + session(3)},
        {factory().flightSearchRequest({}, *bag, "GUID"),
         "f?" + items + "q=&tm=1\n" + guid + agent + session(4) + "Accept: application/x-protobuf\n"},
        {factory().cardRequest(card, *bag, "GUID"), "c?" + items + "tm=1\n" + agent + session(5)},
        {factory().fileDownloadRequest({.url = "https://a.example/r", .includeLatLong = true}),
         "r?key=tabbycat5208\nUser-Agent: " + ORXNetworkRequestFactory::createUserAgentString(device, "Lumisk/1") +
             "\n"},
        {factory().flusherUploadRequest({.url = "https://a.example/u", .timeout = 30s, .digest = "D"}),
         "u?key=tabbycat5208&locale=\nUser-Agent: " + ORXNetworkRequestFactory::createUserAgentString(device, "") +
             "\nX-Kelvar-Digest: D\nContent-Encoding: deflate\n"},
    };
    for (const auto& [request, expected] : cases) EXPECT_EQ(wire(request), expected);
}

TEST_F(GoldenTest, TheMessagingClientsQueriesTellNothingOfThePlace) {
    startFull();
    useAgent("Missiv/3");
    const std::string tail = std::string(subscribed) + "X-Kelvar-UserGuid: GUID\nUser-Agent: Missiv/3\n";
    const std::string head = std::string(languages) + "X-Kelvar-GeoMetadata: meta\n";
    const std::string maps = "X-Kelvar-GeoEnvironment: env\nX-Kelvar-GeoSession:  ";
    EXPECT_EQ(wire(factory().searchRequest({}, *bag, "GUID", FieldMask::withoutLocation)),
              "s?24h=1&alwaysSendTophit=off&calendar=gregorian&card=1&cc=DE&dicts=de&esl=de-DE&key=tabbycat5208&"
              "locale=de_DE&mode=managed&q=&sil=topics&storefront=143&temp=C&time_zone=Europe%2FBerlin&units=SI\n" +
                  head + tail + maps + "2 0.000000\n");
    EXPECT_EQ(wire(factory().zeroKeywordRequest({}, *bag, "GUID", FieldMask::withoutLocation)),
              "s?24h=1&calendar=gregorian&cc=DE&esl=de-DE&key=tabbycat5208&locale=de_DE&mode=managed&qtype=zkw&"
              "sil=topics&storefront=143&temp=C&time_zone=Europe%2FBerlin&units=SI\n" +
                  head + tail + maps + "3 0.000000\n");
    EXPECT_EQ(
        wire(factory().moreResultsRequest({}, *bag, "GUID", FieldMask::withoutLocation)),
        "m?esl=de-DE&key=tabbycat5208&locale=de_DE&mode=managed&storefront=143\n" + std::string(languages) + tail);
}

TEST_F(GoldenTest, GazelTellsALocationOnlyWhereItMayLocateItself) {
    startFull();
    useAgent("Gazel/2");
    for (const auto status :
         {LocationAuthorization::notDetermined, LocationAuthorization::restricted, LocationAuthorization::denied,
          LocationAuthorization::always, LocationAuthorization::whenInUse}) {
        location.gazelStatus = status;
        const auto request = search();
        const bool may = platform::mayLocate(status);
        EXPECT_EQ(itemOf(request, "latlng").has_value(), may);
        EXPECT_EQ(itemOf(request, "geosrc"), may ? "gps,12.000000" : "userno");
        EXPECT_EQ(itemOf(request, "tm").has_value(), may);
        EXPECT_EQ(itemOf(search(FieldMask::withoutLocation), "geosrc"), "userno");
    }
}

}  // namespace
}  // namespace orvex
