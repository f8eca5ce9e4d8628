#include <fmt/format.h>

#include "network/context_fixture_test.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using platform::LocationAuthorization;

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
