#include "core/orx_request.h"
#include "network/network_fixture_test.h"

namespace orvex {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::Pair;

class FactoryTest : public NetworkFixture {
protected:
    std::shared_ptr<OrvexBagController> controller() {
        factory();
        return OrvexBagController::create(assembly);
    }
    static std::shared_ptr<const ORXBag> bag(std::string_view json = R"({"search_url": "https://a.example/s"})") {
        return makeBag(json);
    }
    static ORXSearchRequest query(std::string text, std::uint32_t triggerEvent = 9) {
        ORXSearchRequest request;
        request.queryString = std::move(text);
        request.triggerEvent = triggerEvent;
        return request;
    }
    std::string urlOf(const ORXSearchRequest& request) {
        return factory().searchRequest(request, *bag(), "GUID").value().url;
    }
};

TEST_F(FactoryTest, TheTriggerEventChoosesTheKindOfQuery) {
    const std::map<std::uint32_t, std::string> kinds = {{22, "&qtype=explicit"},
                                                        {23, "&qtype=explicit"},
                                                        {8, "&qtype=suggested"},
                                                        {10, "&qtype=suggested"},
                                                        {24, "&qtype=suggest_with_results"},
                                                        {21, "&suggest_queries=withtop"}};
    for (const auto& [event, item] : kinds) EXPECT_THAT(urlOf(query("a", event)), HasSubstr(item)) << event;
    EXPECT_THAT(urlOf(query("a", 21)), Not(HasSubstr("qtype")));
    EXPECT_THAT(urlOf(query("a", 9)), Not(testing::AnyOf(HasSubstr("qtype"), HasSubstr("suggest_queries"))));
}

TEST_F(FactoryTest, TheClientsItemsWinOverOursAndDebugItemsOverTheirs) {
    defaults.store("ORXDebugParameters", "a=1&q=debug");
    auto request = query("typed");
    request.queryItems = {{"locale", "xx"}, {"a", "client"}, {"key", "mine"}, {"", "&"}};
    const auto url = urlOf(request);
    EXPECT_THAT(url, HasSubstr("locale=xx"));
    EXPECT_THAT(url, HasSubstr("a=1&"));
    EXPECT_THAT(url, HasSubstr("key=mine"));
    EXPECT_THAT(url, HasSubstr("q=debug"));
    EXPECT_THAT(url, HasSubstr("?=%26&"));
}

TEST_F(FactoryTest, SuggestionsTravelAsThreeListsOfOneLength) {
    auto request = query("a");
    request.completionCacheSuggestions = {
        {.suggestion = "one", .score = 0.5, .type = 1},
        {.suggestion = "two & more", .score = 3, .type = 5, .topicIdentifier = "t9"},
        {.suggestion = "no code", .score = 9, .type = 2},
        {.suggestion = "one", .score = 0.75, .type = 9},
        {.suggestion = "12:30", .score = 1, .type = 6},
        {.suggestion = "", .score = 1, .type = 6},
        {.suggestion = "t", .score = 1, .type = 5, .topicIdentifier = "a:b"},
        {.suggestion = "three", .score = 1e-7, .type = 8},
    };
    const auto url = urlOf(request);
    EXPECT_THAT(url, HasSubstr("&lc=one%3Atwo%20%26%20more%3Athree&lco=en%3Ass-t9%3A3d&lcs=0.75%3A3%3A0.0000001&"));
    request.completionCacheSuggestions.resize(0);
    EXPECT_THAT(urlOf(request), Not(HasSubstr("lc")));
}

TEST_F(FactoryTest, SilhouetteTopicsAreScoredByTheSuggestionTakenBefore) {
    const auto blob = [](std::string_view base64) { return ORXSuggestion{.fbr = std::string(base64)}; };
    const auto all = R"({"sil": "plain", "pv": 3, "all": {"a": 0.5, "b": 2, "c": "x"}})";
    const auto scored = blob("eyJzaSI6IHsiYSI6IDAuNSwgImMiOiAzLCAiZCI6IDRlMCwgImUiOiAieCJ9fQ==");
    const std::tuple<std::string, std::optional<ORXSuggestion>, std::optional<std::string>> cases[] = {
        {"", std::nullopt, std::nullopt},
        {"no json", std::nullopt, "no json"},
        {all, std::nullopt, "plain"},
        {all, scored, R"({"a":0.25,"b":2,"c":"x","d":4})"},
        {all, blob("not base64"), "plain"},
        {all, blob("eyJzaSI6IDF9"), "plain"},
        {R"({"sil": "plain", "all": {}})", scored, "plain"},
        {R"({"all": 1})", scored, std::nullopt},
    };
    for (const auto& [topics, engaged, sent] : cases) {
        factory().setSilhouetteTopics(topics);
        auto request = query("a");
        request.engagedSuggestion = engaged;
        time.runPending();
        EXPECT_EQ(itemOf(factory().searchRequest(request, *bag(), "").value(), "sil"), sent) << topics;
        EXPECT_EQ(itemOf(factory().zeroKeywordRequest({}, *bag(), "").value(), "sil"),
                  SilhouetteTopics::fromText(topics).itemValue(nullptr));
    }
}

TEST_F(FactoryTest, TopTopicsThatAreNoJSONAreLeftOut) {
    auto request = query("a");
    request.topTopics = "{\"a\":\n 1.50}";
    const auto headers = [&] { return factory().searchRequest(request, *bag(), "GUID").value().headers; };
    EXPECT_EQ(platform::headerValue(headers(), "X-Kelvar-TopTopics"), R"({"a":1.5})");
    request.topTopics = "{\"a\":";
    EXPECT_EQ(platform::headerValue(headers(), "X-Kelvar-TopTopics"), std::nullopt);
}

TEST_F(FactoryTest, WithoutAnEndpointThereIsNoRequest) {
    EXPECT_FALSE(factory().searchRequest(query("a"), *bag("{}"), "GUID"));
    EXPECT_FALSE(factory().warmRequest("http://a.example/warm"));
}

TEST_F(FactoryTest, TheBagsTimeoutHoldsForQueriesWhateverItSays) {
    const auto timeoutOf = [&](std::string_view seconds) {
        const auto json =
            R"({"search_url": "https://a.example/s", "timeout_interval_for_request": )" + std::string(seconds) + "}";
        return factory().searchRequest(query("a"), *bag(json), "GUID").value().timeout;
    };
    EXPECT_EQ(timeoutOf("0.5"), std::chrono::milliseconds(500));
    EXPECT_EQ(timeoutOf("0"), std::nullopt);
    EXPECT_GT(timeoutOf("1e300"), std::chrono::hours(24));
}

TEST_F(FactoryTest, AWarmUpCarriesNothing) {
    const auto request = factory().warmRequest("https://a.example/warm").value();
    EXPECT_EQ(request.url, "https://a.example/warm");
    EXPECT_TRUE(request.headers.empty());
    EXPECT_EQ(request.cachePolicy, platform::CachePolicy::reloadIgnoringLocalCache);
}

TEST_F(FactoryTest, TheBagIsFetchedWithKeyAndAgentButToldApartWithoutThem) {
    defaults.store("ORXUseCindora", true);
    const auto bags = controller();
    const auto fetch = factory().bagFetchRequest(*bags, "agent/1", "12").value();
    EXPECT_THAT(fetch.url,
                testing::EndsWith("/bag?cc=DE&cindora=1&esl=de-DE&key=tabbycat5208&locale=de_DE&version=12"));
    EXPECT_THAT(fetch.headers,
                ElementsAre(Pair("X-Kelvar-Languages", R"(["de-DE","en-GB"])"), Pair("User-Agent", "agent/1")));
    EXPECT_EQ(fetch.cachePolicy, platform::CachePolicy::reloadIgnoringLocalCache);

    const auto cache = factory().bagCacheRequest(*bags, "agent/1", std::nullopt).value();
    EXPECT_THAT(cache.url, testing::EndsWith("/bag?agent=agent%2F1&cc=DE&cindora=1&esl=de-DE&locale=de_DE"));
    EXPECT_TRUE(cache.headers.empty());

    locale.set({});
    time.runPending();
    const auto little = factory().bagFetchRequest(*bags, "", std::nullopt).value();
    EXPECT_THAT(little.url, testing::EndsWith("/bag?cindora=1&key=tabbycat5208&locale="));
    EXPECT_TRUE(little.headers.empty());
    const auto least = factory().bagCacheRequest(*bags, "", std::nullopt).value();
    EXPECT_THAT(least.url, testing::EndsWith("/bag?cindora=1&locale="));
}

TEST_F(FactoryTest, ALocaleChangeIsInTheNextRequestAndAsksForABagAfterwards) {
    auto& requests = factory();
    struct Observer {
        int heard = 0;
    };
    const auto observer = std::make_shared<Observer>();
    std::string localeThen;
    notifications.observe<ORXBagRefreshRequiredNotification>(observer, [&](Observer& self, const auto&) {
        ++self.heard;
        localeThen = urlOf(query("a"));
    });
    const auto generation = requests.localeGeneration();
    auto settings = locale.current();
    settings.identifier = "fr_FR";
    locale.set(settings);
    EXPECT_EQ(observer->heard, 0);
    time.runPending();
    EXPECT_EQ(observer->heard, 1);
    EXPECT_THAT(localeThen, HasSubstr("locale=fr_FR"));
    EXPECT_EQ(requests.localeGeneration(), generation + 1);

    settings.timeZoneName = "Europe/Paris";
    locale.set(settings);
    time.runPending();
    EXPECT_EQ(observer->heard, 1);
    EXPECT_THAT(urlOf(query("a")), HasSubstr("time_zone=Europe%2FParis"));
}

TEST_F(FactoryTest, AnAgentWithALineEndNeverReachesTheWire) {
    const auto bags = controller();
    const auto request = factory().bagFetchRequest(*bags, "agent\r\nX-Evil: 1", std::nullopt).value();
    EXPECT_EQ(platform::headerValue(request.headers, "User-Agent"), std::nullopt);
    EXPECT_EQ(counters.value("com.kelvar.orvexd.request.refusedheaders"), 1);
}

TEST_F(FactoryTest, EveryEntryOfTheVocabularyExplainsItself) {
    for (const auto& entry : requestVocabulary()) {
        EXPECT_FALSE(entry.source.empty() || entry.purpose.empty()) << entry.name;
        EXPECT_NE(entry.value == nullptr, entry.add == nullptr) << entry.name;
    }
}

}  // namespace
}  // namespace orvex
