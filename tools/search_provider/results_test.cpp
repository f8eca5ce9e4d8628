#include "tools/search_provider/results.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "core/feedback_record.h"
#include "core/feedback_records.pb.h"
#include "platform/fakes/recording_log.h"
#include "tools/search_provider/records.h"

namespace orvex::search_provider {
namespace {

using platform::MonotonicTime;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::string_view bodyOfTwoSets = R"([
    {"query": "tea", "suggestion": "Tea", "results": [
        {"identifier": "tea#1", "title": "Tea", "subtitle": "noun", "text": "a\nbeverage", "url": "https://t.example/1"},
        {"title": "Tea", "text": "a meal", "url": "https://t.example/2"},
        {"title": "Tea", "text": "a shrub", "url": "https://t.example/2"}]},
    {"query": "team", "suggestion": "Team", "results": [
        {"identifier": "team#1", "title": "Team", "url": "http://elsewhere.example/"}]}, 7])";

std::vector<std::string> namesAndPages(const std::vector<Result>& results) {
    std::vector<std::string> lines;
    for (const auto& result : results) lines.push_back(result.name + " " + result.url);
    return lines;
}

TEST(SearchProviderResults, AreAPageOfEachSetFirstAndASuggestionWhereASetHasNone) {
    const auto results = resultsIn({.queryId = 5, .typed = "tea", .body = bodyOfTwoSets});
    EXPECT_THAT(namesAndPages(results),
                ElementsAre("Tea https://t.example/1", "Team ", "Tea https://t.example/2", "Tea https://t.example/2"));
    EXPECT_EQ(results[0], (Result{5, "Tea", "noun: a beverage", "https://t.example/1", "tea#1"}));
    EXPECT_EQ(results[1], (Result{5, "Team", "", "", "team"})) << "a page that must not be opened is none";
    const auto ofMemory = resultsIn({.queryId = 6, .typed = "TEAM", .body = bodyOfTwoSets, .fromMemory = true});
    EXPECT_EQ(ofMemory[0].name, "Team");
}

TEST(SearchProviderResults, OfAHostileAnswerAreFewShortAndNone) {
    const platform::RecordingLog log;
    std::string cards;
    for (int index = 0; index < 100; ++index) {
        cards += fmt::format(R"({}{{"title": "{}", "url": "https://t.example/{}"}})", index == 0 ? "" : ",",
                             std::string(1000, 'x'), index / 2);
    }
    const auto results = resultsIn({.typed = "x", .body = R"([{"results": [)" + cards + "]}]"});
    ASSERT_THAT(results, SizeIs(maxResults / 2)) << "two of a kind are one";
    EXPECT_THAT(results[0].name, EndsWith("x…"));
    EXPECT_TRUE(resultOf(identifierOf(results[0]))) << "what was cut is not too long for an identifier";
    for (const std::string& body :
         {std::string(), std::string("{}"), std::string("[1, null, [], {}]"),
          std::string("[{\"suggestion\": \"\xff\"}]"), std::string(maxAnswerBytes + 1, ' ')}) {
        EXPECT_THAT(resultsIn({.typed = "x", .body = body}), IsEmpty());
    }
}

TEST(SearchProviderResults, AreKnownByIdentifiersThatHoldThem) {
    for (const auto& result : resultsIn({.queryId = 1ULL << 60, .typed = "tea", .body = bodyOfTwoSets})) {
        EXPECT_EQ(resultOf(identifierOf(result)), result);
        const auto meta = metaOf(result);
        EXPECT_EQ(*meta.find("id")->as<std::string>(), identifierOf(result));
        EXPECT_EQ(meta.find("clipboardText") != nullptr, result.url.empty());
    }
    for (const auto* foreign :
         {"", "tea", "{}", "[]", R"({"query": -1, "name": "a"})", R"({"query": 1, "name": ""})",
          R"({"query": 1, "name": "a\u0000b"})", R"({"query": 1, "name": "a", "url": "file:///"})",
          R"({"query": 1, "name": "a", "url": "http://t.example/"})", "[[[[[[[["}) {
        EXPECT_FALSE(resultOf(foreign)) << foreign;
    }
    EXPECT_FALSE(resultOf(std::string(100'000, '{')));
}

TEST(SearchProviderResults, AreSearchedByTheTermsAsOneLine) {
    EXPECT_EQ(queryOf({"green", "", "tea"}), "green tea");
    EXPECT_EQ(queryOf({}), "");
    EXPECT_EQ(queryOf({"a\tb"}), "");
    EXPECT_EQ(queryOf({std::string(maxQueryBytes, 'a')}), std::string(maxQueryBytes, 'a'));
    EXPECT_EQ(queryOf({std::string(maxQueryBytes, 'a'), "b"}), "");
}

CXFeedbackPayload decoded(const Report& report) {
    const auto payload = decodeFeedbackPayload(report.payload);
    return payload ? *payload : CXFeedbackPayload();
}

TEST(SearchProviderRecords, TellCardsAndSuggestionsApart) {
    const auto results = resultsIn({.queryId = 5, .typed = "tea", .body = bodyOfTwoSets});
    const MonotonicTime now(std::chrono::seconds(3));
    const auto visible = shown(results, now);
    ASSERT_THAT(visible, SizeIs(2));
    EXPECT_EQ(visible[0].queryId, 5U);
    EXPECT_EQ(decoded(visible[0]).visible_results().results_size(), 3);
    EXPECT_EQ(decoded(visible[0]).visible_results().timestamp(), 3'000'000'000U);
    EXPECT_EQ(decoded(visible[1]).visible_suggestions().suggestions(0).identifier(), "team");
    EXPECT_EQ(decoded(found(results, now).at(0)).ranking().sections(0).results(0).result().identifier(), "tea#1");
    EXPECT_EQ(decoded(foundTooLate(results, now).at(0)).results_received_after_timeout().results_size(), 3);
    EXPECT_EQ(decoded(picked(results[0], "te", now)).result_engagement().result().user_input(), "te");
    EXPECT_EQ(decoded(picked(results[1], "te", now)).suggestion_engagement().suggestion().suggestion(), "Team");
    EXPECT_THAT(found({results[1]}, now), IsEmpty());
}

}  // namespace
}  // namespace orvex::search_provider
