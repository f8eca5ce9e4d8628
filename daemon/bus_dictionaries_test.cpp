#include "daemon/bus_dictionaries.h"

#include <gtest/gtest.h>

#include <limits>

namespace orvex {
namespace {

using platform::BusArray;
using platform::BusDictionary;
using platform::BusStruct;
using platform::BusValue;

std::string refusal(std::string_view kind, const BusDictionary& request) {
    const auto read = requestFromBus(kind, request);
    return read ? std::string() : read.error().message;
}

BusArray items(std::vector<std::pair<std::string, std::string>> pairs) {
    BusArray array{.elementSignature = "(ss)", .items = {}};
    for (auto& [name, value] : pairs) array.items.emplace_back(BusStruct{{BusValue(name), BusValue(value)}});
    return array;
}

TEST(BusDictionariesTest, EveryEntryOfASearchIsRead) {
    BusDictionary suggestion;
    suggestion.set("suggestion", "tree").set("score", 0.5).set("type", std::uint32_t{5}).set("topic_identifier", "t");
    BusDictionary dictionary;
    dictionary.set("query_id", std::uint64_t{7})
        .set("scale", 2.0)
        .set("verbose_reply", true)
        .set("trigger_event", std::uint32_t{21})
        .set("keyboard_input_mode", "de")
        .set("query_items", items({{"a", "1"}, {"a", "2"}}))
        .set("query_string", "tree")
        .set("temperature_unit", "C")
        .set("l2_version", "2")
        .set("l3_version", "3")
        .set("top_topics", "[1]")
        .set("engaged_suggestion", suggestion)
        .set("completion_cache_suggestions", BusArray{"a{sv}", {suggestion, suggestion}})
        .set("card_url", "not ours to read")
        .set("unknown", std::uint8_t{1});
    const auto request = requestFromBus("search", dictionary);
    ASSERT_TRUE(request) << request.error().message;
    const auto& search = std::get<ORXSearchRequest>(*request);
    EXPECT_EQ(search.queryId, 7u);
    EXPECT_EQ(search.triggerEvent, 21u);
    EXPECT_EQ(search.queryItems, (std::vector<platform::QueryItem>{{"a", "1"}, {"a", "2"}}));
    EXPECT_EQ(search.queryString + search.temperatureUnit + search.l2Version + search.l3Version + search.topTopics,
              "treeC23[1]");
    ASSERT_TRUE(search.engagedSuggestion);
    EXPECT_EQ(search.engagedSuggestion->topicIdentifier, "t");
    EXPECT_EQ(search.completionCacheSuggestions.size(), 2u);
}

TEST(BusDictionariesTest, ARefusalNamesTheEntry) {
    BusDictionary nested;
    nested.set("score", std::numeric_limits<double>::quiet_NaN());
    const std::vector<std::pair<std::string, BusValue>> bad = {
        {"query_id", std::uint32_t{7}}, {"scale", std::numeric_limits<double>::infinity()},
        {"query_string", true},         {"query_string", "\xC3\x28"},
        {"trigger_event", "21"},        {"query_items", BusArray{"s", {BusValue("a")}}},
        {"engaged_suggestion", nested}, {"completion_cache_suggestions", BusArray{"a{sv}", {nested}}},
        {"engaged_suggestion", "x"},
    };
    for (const auto& [name, value] : bad) {
        BusDictionary request;
        request.set(name, value);
        EXPECT_TRUE(refusal("search", request).starts_with(name)) << name << ": " << refusal("search", request);
    }
    EXPECT_NE(refusal("search", BusDictionary{}.set("engaged_suggestion", nested)).find("score"), std::string::npos);
    EXPECT_TRUE(refusal("image", {}).starts_with("kind"));
    EXPECT_TRUE(refusal("card", BusDictionary{}.set("card_url", "http://card.example/")).starts_with("card_url"));
    EXPECT_EQ(refusal("card", BusDictionary{}.set("card_url", "https://card.example/")), "");
}

}  // namespace
}  // namespace orvex
