#include "tools/tool/feedback_json.h"

#include <gtest/gtest.h>

#include <boost/json.hpp>

#include "core/feedback_record.h"
#include "core/feedback_records.pb.h"
#include "core/json.h"

namespace orvex::tool {
namespace {

TEST(FeedbackJSONTest, APayloadIsReadAsProtobufWritesItInJSON) {
    const auto given = payloadFromJSON(R"({"startSearch": {"timestamp": "5", "queryId": 7}})");
    ASSERT_TRUE(given);
    const auto payload = decodeFeedbackPayload(*given);
    ASSERT_TRUE(payload) << "the type follows from the record";
    EXPECT_EQ(payload->type(), 12);
    EXPECT_EQ(payload->start_search().query_id(), 7U);
    EXPECT_EQ(payloadTypeName(*given), "search_start");
    for (const auto* wrong : {"", "[]", "{}", R"({"startSearch": {"nonsense": 1}})", R"({"startSearch": 1})",
                              R"({"startSearch": {}, "endSearch": {}})"})
        EXPECT_FALSE(payloadFromJSON(wrong)) << wrong;
}

TEST(FeedbackJSONTest, RecordsAreShownWithTheirOriginAndTime) {
    CXVisibleResultsFeedback visible;
    visible.set_timestamp(7'500'000'000);
    std::vector<std::string> records;
    records.push_back(
        orvexFeedbackWithCodable(visible, {.userGuid = "GUID", .userAgent = "agent\x1b"})->SerializeAsString());
    visible.set_timestamp(9'000'000'000);
    visible.add_results()->set_identifier("r");
    records.push_back(orvexFeedbackWithCodable(visible, {})->SerializeAsString());
    records.emplace_back("\xFF");
    const auto shown = recordsAsJSON(records);
    EXPECT_EQ(compactJSON(shown.at(0)), R"({"timestamp":7500,"query_id":0,"type":"visible_results",)"
                                        R"("user_agent":"agent\u001b","user_guid":"GUID"})");
    EXPECT_TRUE(shown.at(2).is_null());
    EXPECT_EQ(recordsPage(shown),
              "    0.000 s  visible_results                 "
              "{\"query_id\":0,\"user_agent\":\"agent\\u001b\",\"user_guid\":\"GUID\"}\n"
              "    1.500 s  visible_results                 "
              "{\"results\":[{\"identifier\":\"r\"}],\"query_id\":0,\"user_agent\":\"\",\"user_guid\":\"\"}\n"
              "(unreadable)\n");
}

}  // namespace
}  // namespace orvex::tool
