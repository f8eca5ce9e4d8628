#include "core/orx_bag.h"

#include <gmock/gmock.h>

#include <boost/json.hpp>

#include "core/json.h"

namespace orvex {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

ORXBag bag(std::string_view json, std::string userAgent = "lumisk/1.0") {
    return {std::make_shared<const boost::json::object>(parseJSON(json, kBagJSONDepth).value().as_object()),
            std::move(userAgent)};
}

TEST(ORXBagTest, AnEmptyBagHasTheDefaults) {
    const auto empty = bag("{}");
    EXPECT_TRUE(empty.isEnabled() && empty.lookupEnabled() && empty.hashtagImagesEnabled());
    EXPECT_FALSE(empty.feedbackEnabled() || empty.sendGeoEnvironmentHeader() || empty.smartHistoryEnabled());
    EXPECT_EQ(empty.version(), std::nullopt);
    EXPECT_EQ(empty.searchURL(), std::nullopt);
    EXPECT_EQ(empty.searchRenderTimeout(), std::nullopt);
    EXPECT_EQ(empty.timeoutIntervalForRequest(), 10);
    EXPECT_EQ(empty.smartHistoryTimeout(), 50);
    EXPECT_EQ(empty.broviaLast1week(), 0.1);
    EXPECT_EQ(empty.resources(), nullptr);
    EXPECT_THAT(empty.supportedGeoLocationSources(), IsEmpty());
    EXPECT_THAT(empty.problems(), IsEmpty());
}

TEST(ORXBagTest, ValuesAreReadUnderTheirKeys) {
    const auto full = bag(R"({"enabled": false, "search_url": "https://a.example/search?x=1",
        "warm_url": "http://127.0.0.1:80/warm", "minimum_query_length": 3, "timeout_interval_for_request": 2.5,
        "search_render_timeout": 1500, "supported_geo_location_sources": ["gps", "wifi"], "brovia_all": -1,
        "subscription_provider_domain_whitelist": [], "resources": {"a": "https://a.example/a"}})");
    EXPECT_FALSE(full.isEnabled());
    EXPECT_EQ(full.searchURL(), "https://a.example/search?x=1");
    EXPECT_EQ(full.warmURL(), "http://127.0.0.1:80/warm");
    EXPECT_EQ(full.minimumQueryLength(), 3u);
    EXPECT_EQ(full.timeoutIntervalForRequest(), 2.5);
    EXPECT_EQ(full.searchRenderTimeout(), 1500);
    EXPECT_THAT(full.supportedGeoLocationSources(), ElementsAre("gps", "wifi"));
    EXPECT_EQ(full.broviaAll(), -1);
    EXPECT_EQ(full.subscriptionProviderDomainWhitelist(), ORXBag::Texts());
    ASSERT_NE(full.resources(), nullptr);
    EXPECT_TRUE(full.resources()->contains("a"));
    EXPECT_THAT(full.problems(), IsEmpty());
}

TEST(ORXBagTest, AVersionIsTextOrANumber) {
    EXPECT_EQ(bag(R"({"version": "1.2"})").version(), "1.2");
    EXPECT_EQ(bag(R"({"version": 12})").version(), "12");
    EXPECT_EQ(bag(R"({"version": 18446744073709551615})").version(), "18446744073709551615");
    EXPECT_EQ(bag(R"({"version": 1.5})").version(), "1.5");
    EXPECT_EQ(bag(R"({"version": true})").version(), std::nullopt);
}

TEST(ORXBagTest, WhatIsNotFitGivesTheDefaultAndIsTold) {
    const std::vector<std::string> unfit = {
        R"({"enabled": 0})",
        R"({"minimum_query_length": -1})",
        R"({"minimum_query_length": "3"})",
        R"({"timeout_interval_for_request": 1e400})",
        R"({"supported_geo_location_sources": ["gps", 1]})",
        R"({"resources": []})",
        R"({"search_url": 7})",
        R"({"search_url": "http://a.example/search"})",
        R"({"search_url": "https://user@a.example/search"})",
        R"({"search_url": "file:///etc/passwd"})",
    };
    for (const auto& json : unfit) {
        const auto odd = bag(json);
        EXPECT_EQ(odd.problems().size(), 1u) << json;
        EXPECT_TRUE(odd.isEnabled()) << json;
        EXPECT_EQ(odd.minimumQueryLength(), 0u) << json;
        EXPECT_EQ(odd.timeoutIntervalForRequest(), 10) << json;
        EXPECT_EQ(odd.searchURL(), std::nullopt) << json;
        EXPECT_THAT(odd.supportedGeoLocationSources(), IsEmpty()) << json;
        EXPECT_EQ(odd.resources(), nullptr) << json;
    }
    EXPECT_THAT(bag(unfit[1]).problems(), ElementsAre("minimum_query_length is negative"));
}

TEST(ORXBagTest, ACountSaturates) {
    EXPECT_EQ(bag(R"({"smart_history_max_rows": 1e300})").smartHistoryMaxRows(), UINT64_MAX);
    EXPECT_EQ(bag(R"({"smart_history_max_rows": 7.9})").smartHistoryMaxRows(), 7u);
}

TEST(ORXBagTest, OverridesHoldForTheAgentsThatTheyMatchInOrder) {
    constexpr auto json = R"({"enabled": true, "minimum_query_length": 1, "user_agents": [
        {"match": "gazel", "values": {"enabled": false, "minimum_query_length": 2}},
        {"match": "gazel/2", "values": {"minimum_query_length": 5}},
        {"match": "", "values": {"card_url": "https://a.example/card"}}]})";
    EXPECT_TRUE(bag(json, "brovia/3").isEnabled());
    EXPECT_EQ(bag(json, "brovia/3").cardURL(), "https://a.example/card");
    EXPECT_EQ(bag(json, "").cardURL(), std::nullopt);
    EXPECT_FALSE(bag(json, "Gazel/1.0").isEnabled());
    EXPECT_EQ(bag(json, "Gazel/1.0").minimumQueryLength(), 2u);
    EXPECT_EQ(bag(json, "GAZEL/2.0").minimumQueryLength(), 5u);
    EXPECT_EQ(bag(json, "Gazel/1.0").rawBag()->at("enabled"), true);
}

TEST(ORXBagTest, BrokenOverridesAreToldAndTheOthersHold) {
    const auto odd = bag(R"({"user_agents": [7, {"match": 1, "values": {}}, {"match": "lumisk"},
        {"match": "lumisk", "values": {"enabled": false}}]})");
    EXPECT_FALSE(odd.isEnabled());
    EXPECT_THAT(odd.problems(),
                ElementsAre(HasSubstr("user_agents"), HasSubstr("user_agents"), HasSubstr("user_agents")));
    EXPECT_EQ(bag(R"({"user_agents": {}})").problems().size(), 1u);
}

}  // namespace
}  // namespace orvex
