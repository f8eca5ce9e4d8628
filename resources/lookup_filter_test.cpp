#include <gmock/gmock.h>

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include "core/json.h"
#include "core/orx_request.h"
#include "platform/fakes/recording_log.h"
#include "resources/lookup.h"

namespace orvex {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// The "id"s of the results that are kept of one element with these results.
std::vector<std::string> kept(const std::string& context, const std::string& results,
                              const std::string& locale = "en_US") {
    ORXLookupRequest request;
    request.queryContext = context;
    auto response = parseJSON("[{\"results\": [" + results + "]}, 7, {\"other\": 1}]", 32).value();
    Lookup::filterLookupResultsWithRequest(request, response, locale);
    std::vector<std::string> ids;
    for (const auto& result : response.at(0).at("results").get_array())
        ids.push_back(result.is_object() ? std::string(result.at("id").get_string()) : "no object");
    return ids;
}
std::string result(const std::string& instructions) {
    return R"({"id": "a", "lookup_instructions": {"completion": "York")" + instructions + "}}";
}
bool keeps(const std::string& context, const std::string& instructions) {
    return !kept(context, result(instructions)).empty();
}

TEST(LookupFilterTest, AResultWithoutInstructionsIsKept) {
    EXPECT_THAT(kept("x", R"({"id": "a"}, {"id": "b", "lookup_instructions": 7}, "text")"),
                ElementsAre("a", "b", "no object"));
}

TEST(LookupFilterTest, TheCompletionMustOccurWhateverTheCase) {
    EXPECT_TRUE(keeps("in new YORK today", ""));
    EXPECT_FALSE(keeps("in new jersey", ""));
    for (const auto* none :
         {R"({"id": "a", "lookup_instructions": {}})", R"({"id": "a", "lookup_instructions": {"completion": ""}})",
          R"({"id": "a", "lookup_instructions": {"completion": 7}})"})
        EXPECT_THAT(kept("new york", none), IsEmpty()) << none;
    EXPECT_FALSE(keeps("", ""));
}

TEST(LookupFilterTest, LettersCompareAsTheLocaleHasThem) {
    const std::string istanbul = R"({"id": "a", "lookup_instructions": {"completion": "istanbul"}})";
    EXPECT_THAT(kept("ISTANBUL", istanbul, "en_US"), ElementsAre("a"));
    EXPECT_THAT(kept("ISTANBUL", istanbul, "tr_TR"), IsEmpty());
    EXPECT_THAT(kept("\u0130STANBUL", istanbul, "tr_TR"), ElementsAre("a"));
    EXPECT_THAT(kept("zurich", R"({"id": "a", "lookup_instructions": {"completion": "z\u00fcrich"}})"), IsEmpty());
}

TEST(LookupFilterTest, KeywordsAddTheirWeightsInSinglePrecision) {
    const std::string keywords = R"(, "keywords": [{"word": "new", "weight": 0.1}, {"word": "TODAY", "weight": 0.2},
                                     {"word": "absent", "weight": 9}, {"word": "", "weight": 9}, 7, {"weight": 9}])";
    EXPECT_TRUE(keeps("new york today", keywords + R"(, "min_keywords_score": 0.3)"));  // in doubles it would be less
    EXPECT_FALSE(keeps("new york today", keywords + R"(, "min_keywords_score": 0.31)"));
    EXPECT_FALSE(keeps("york today", keywords + R"(, "min_keywords_score": 0.3)"));
    const std::string twice = R"(, "keywords": [{"word": "new", "weight": 5}, {"word": "new", "weight": 1}])";
    EXPECT_TRUE(keeps("new york", twice + R"(, "min_keywords_score": 1)"));
    EXPECT_FALSE(keeps("new york", twice + R"(, "min_keywords_score": 2)"));
    EXPECT_FALSE(keeps("new york", R"(, "keywords": [{"word": "new", "weight": -1}])"));
    EXPECT_TRUE(keeps("york", R"(, "keywords": "new", "min_keywords_score": 1e400)"));  // no number: 0
}

TEST(LookupFilterTest, TheSubjectSharesEnoughWords) {
    const std::string subject = R"(, "subject": "Weather in New-York!", "min_subject_score": )";
    EXPECT_TRUE(keeps("new york, weather", subject + "0.75"));
    EXPECT_FALSE(keeps("new york, weather", subject + "0.76"));
    EXPECT_TRUE(keeps("york", subject + "0"));
    EXPECT_TRUE(keeps("york", subject + "-1"));
    EXPECT_FALSE(keeps("york", R"(, "subject": "", "min_subject_score": 0.1)"));
    EXPECT_FALSE(keeps("york", R"(, "min_subject_score": 0.1)"));
}

TEST(LookupFilterTest, AnAnswerOfAnotherShapeIsLeftAndTold) {
    const platform::RecordingLog log;
    for (const auto* text : {R"({"results": []})", "[]", "null"}) {
        auto response = parseJSON(text, 8).value();
        const auto before = response;
        Lookup::filterLookupResultsWithRequest({}, response, "en_US");
        EXPECT_EQ(response, before);
    }
    EXPECT_TRUE(log.contains(platform::LogLevel::error, "Orvex_LookUp", "lookup response is not an array."));
    EXPECT_TRUE(log.contains(platform::LogLevel::error, "Orvex_LookUp", "no data to process for lookup response."));
}

}  // namespace
}  // namespace orvex
