#include "feedback/session_processing_helper.h"

#include <gtest/gtest.h>

namespace orvex {
namespace {

CXResult result(const std::string& identifier, std::int32_t type = 0) {
    CXResult made;
    if (!identifier.empty()) made.set_identifier(identifier);
    made.set_type(type);
    return made;
}

template <class Record>
Record ofResult(const std::string& identifier, std::int32_t type = 0) {
    Record record;
    *record.mutable_result() = result(identifier, type);
    return record;
}

template <class Record>
Record ofSection(const std::string& identifier) {
    Record record;
    *record.add_sections()->add_results()->mutable_result() = result(identifier);
    return record;
}

CXVisibleResultsFeedback visible(std::initializer_list<const char*> identifiers) {
    CXVisibleResultsFeedback record;
    for (const auto* identifier : identifiers) *record.add_results() = result(identifier, 8);
    return record;
}

TEST(SessionProcessingHelperTest, WhatWasAnnouncedBeforeIsNotMissing) {
    SessionProcessingHelper helper;
    helper.process(ofSection<CXRankingFeedback>("3"));
    helper.process(ofSection<CXRankSectionsFeedback>("4"));
    helper.process(ofResult<CXResultRankingFeedback>("5"));
    helper.process(ofResult<CXResultFeedback>("6"));
    CXResultsReceivedAfterTimeoutFeedback late;
    *late.add_results() = result("23");
    helper.process(late);
    helper.process(ofSection<CXLateSectionsAppendedFeedback>("24"));
    helper.process(visible({"3", "4", "5", "6", "23", "24", ""}));
    helper.process(ofResult<CXResultEngagementFeedback>("4"));
    EXPECT_TRUE(helper.missingResults().empty());
}

TEST(SessionProcessingHelperTest, WhatWasNotIsMissingOnceAndStaysSo) {
    SessionProcessingHelper helper;
    helper.process(visible({"b", "a"}));
    helper.process(ofResult<CXResultEngagementFeedback>("b", 7));
    helper.process(ofResult<CXResultEngagementFeedback>("c", 7));
    helper.process(ofSection<CXRankingFeedback>("a"));  // too late
    std::string missing;
    for (const auto& one : helper.missingResults()) missing += one.identifier() + std::to_string(one.type()) + ' ';
    EXPECT_EQ(missing, "b8 a8 c7 ");
}

TEST(SessionProcessingHelperTest, SuggestionsAreJudgedByThoseThatWereVisible) {
    SessionProcessingHelper helper;
    CXVisibleSuggestionsFeedback shown;
    shown.add_suggestions()->set_identifier("shown");
    helper.process(shown);
    CXSuggestionEngagementFeedback engaged;
    for (const auto* identifier : {"shown", "hidden", "", "hidden"}) {
        engaged.mutable_suggestion()->set_identifier(identifier);
        helper.process(engaged);
    }
    ASSERT_EQ(helper.missingSuggestions().size(), 1U);
    EXPECT_EQ(helper.missingSuggestions()[0].identifier(), "hidden");
    EXPECT_TRUE(helper.missingResults().empty());
}

}  // namespace
}  // namespace orvex
