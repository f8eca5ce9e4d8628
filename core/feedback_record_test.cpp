#include "core/feedback_record.h"

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <limits>

#include "core/feedback_dictionary.h"
#include "core/feedback_records.pb.h"
#include "core/feedback_vocabulary.h"
#include "core/json.h"
#include "platform/counters.h"

namespace orvex {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

/// The class's message with every field set to something, two levels deep in messages that hold themselves.
void fill(Message& message, int depth = 0) {
    const auto* reflection = message.GetReflection();
    for (int index = 0; index < message.GetDescriptor()->field_count(); ++index) {
        const auto* field = message.GetDescriptor()->field(index);
        if (field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) {
            if (depth > 5) continue;
            auto* part = field->is_repeated() ? reflection->AddMessage(&message, field)
                                              : reflection->MutableMessage(&message, field);
            fill(*part, depth + 1);
        } else if (field->cpp_type() == FieldDescriptor::CPPTYPE_STRING) {
            if (field->is_repeated())
                reflection->AddString(&message, field, "text");
            else
                reflection->SetString(&message, field, "text");
        } else if (field->cpp_type() == FieldDescriptor::CPPTYPE_UINT64) {
            reflection->SetUInt64(&message, field, 7);
        }
    }
}

std::string jsonOf(const Message& codable, RecordOrigin origin = {.queryId = -5}) {
    const auto form = dictionary(*orvexFeedbackWithCodable(codable, std::move(origin)));
    return form ? compactJSON(*form) : "none";
}

std::string bytesOf(const CXFeedbackPayload& payload) { return payload.SerializeAsString(); }

/// How decoding ends: "decoded" or the fault.
std::string decoding(std::string_view bytes) {
    const auto payload = decodeFeedbackPayload(bytes);
    if (payload) return codableOf(*payload) != nullptr ? "decoded" : "decoded without a record";
    switch (payload.error()) {
        case PayloadFault::tooLarge:
            return "too large";
        case PayloadFault::undecodable:
            return "undecodable";
        default:
            return "not UTF-8";
    }
}

/// A field as it lies on the wire, its length before it.
std::string field(std::string_view key, std::string_view content) {
    std::string bytes(key);
    auto length = content.size();
    for (; length > 127; length >>= 7) bytes += static_cast<char>(length | 128);
    return bytes + static_cast<char>(length) + std::string(content);
}

/// An error whose user info holds a list in a list in …, so many deep. Encoded by hand: as a message it would overflow
/// the stack itself.
std::string nested(int depth) {
    std::string value;
    for (int level = 0; level < depth; ++level) value = field("\x3A", field("\x0A", value));
    const auto entry = field("\x0A", "n") + field("\x12", value);
    return "\x08\x12" + field("\x92\x02", field("\x1A", field("\x1A", entry)));
}

CXFeedbackPayload startOfNetworkSearch() {
    CXFeedbackPayload payload;
    payload.set_type(14);
    auto* start = payload.mutable_start_network_search();
    start->set_input("caf\xC3\xA9");
    (*start->mutable_headers())["Accept"] = "text/plain";
    return payload;
}

TEST(FeedbackRecordTest, EveryRecordClassIsWrappedUnderItsTypeAndHasItsDictionary) {
    const auto* payloadClass = CXFeedbackPayload::descriptor();
    CXFeedbackPayload templates;
    int records = 0;
    for (int index = 1; index < payloadClass->field_count(); ++index) {
        const auto* field = payloadClass->field(index);
        auto* codable = templates.GetReflection()->MutableMessage(&templates, field);
        fill(*codable);
        ASSERT_EQ(codable->GetDescriptor()->FindFieldByNumber(1)->name(), "timestamp") << field->name();
        ASSERT_EQ(codable->GetDescriptor()->FindFieldByNumber(2)->name(), "identifier") << field->name();
        CXFeedbackPayload sent;
        sent.set_type(field->number() - 16);
        sent.GetReflection()->MutableMessage(&sent, field)->CopyFrom(*codable);
        EXPECT_EQ(decoding(bytesOf(sent)), "decoded") << field->name();
        const auto record = orvexFeedbackWithPayload(sent, {});
        EXPECT_EQ(codableTimestamp(*record), 7U) << field->name();
        EXPECT_EQ(dictionary(*record)->at("type").as_string(), feedbackTypeName(sent.type()));
        if (codable->GetDescriptor() == CXCustomFeedback::descriptor()) continue;
        EXPECT_EQ(feedbackType(*orvexFeedbackWithCodable(*codable, {})), sent.type()) << field->name();
        ++records;
    }
    EXPECT_EQ(records, 40);  // 1 to 41 but for the custom record

    const auto typeOfCustom = [](std::uint32_t customType) {
        CXCustomFeedback custom;
        custom.set_custom_type(customType);
        return feedbackType(*orvexFeedbackWithCodable(custom, {}));
    };
    EXPECT_EQ(typeOfCustom(1), 102);
    EXPECT_EQ(typeOfCustom(3), 101);
    EXPECT_EQ(typeOfCustom(6), 19);
}

TEST(FeedbackRecordTest, NumbersHaveTheNamesThatTheServerKnows) {
    const std::pair<std::int32_t, std::string_view> types[] = {
        {0, "unknown"},
        {3, "rank_sections"},
        {4, "rank_sections"},
        {11, "card_engagement"},
        {14, "network_search_start"},
        {19, "custom_unknown"},
        {31, "session_missing_suggestions"},
        {38, "skip_orvex_search"},
        {41, "client_timing"},
        {42, "(unknown: 42)"},
        {99, "(unknown: 99)"},
        {100, "custom_crowdsourcing"},
        {103, "last_"},
        {104, "(unknown: 104)"},
        {-1, "(unknown: -1)"},
        {std::numeric_limits<std::int32_t>::min(), "(unknown: -2147483648)"},
    };
    for (const auto& [type, name] : types) EXPECT_EQ(feedbackTypeName(type), name);
    EXPECT_EQ(eventTypes().size(), 38U);
    EXPECT_EQ(eventTypeToString(8), "result_engagement");
    EXPECT_EQ(eventTypeToString(21), "unknown");
    EXPECT_EQ(eventTypeToString(37), "card_section_engagement");
    EXPECT_EQ(eventTypeToString(38), std::nullopt);
    EXPECT_EQ(sessionEndReasonText(5), "guid_changed");
    EXPECT_EQ(sessionEndReasonText(12), "(unknown: 12)");
    EXPECT_EQ(skipReasonName(1), "less_than_minimum_query_length");
    EXPECT_EQ(skipReasonName(4), std::nullopt);
    std::string without;
    for (std::int32_t type = 0; type < 103; ++type) {
        if (!requiresQueryId(type)) without += std::to_string(type) + ' ';
    }
    EXPECT_EQ(without, "18 19 30 31 34 36 100 101 102 ");
}

TEST(FeedbackRecordTest, OriginIsSetWhereThereIsOne) {
    const auto bare = orvexFeedbackWithPayload(startOfNetworkSearch(), {});
    EXPECT_FALSE(bare->has_user_agent() || bare->has_user_guid() || bare->has_orvex_developer_id());
    EXPECT_TRUE(bare->has_query_id());
    EXPECT_EQ(codableTimestamp(*bare), 0U);

    const platform::MonotonicTime now{std::chrono::nanoseconds{5'999'999}};
    auto record = orvexFeedbackWithPayload(startOfNetworkSearch(), {9, "GUID", "agent", "dev", now});
    EXPECT_EQ(codableTimestamp(*record), 5'999'999U);
    EXPECT_EQ(record->user_agent() + record->user_guid() + record->orvex_developer_id(), "agentGUIDdev");
    EXPECT_EQ(timeStampComparator(*bare, *record), std::strong_ordering::less);

    record = orvexFeedbackWithPayload(record->payload(), {.now = now + std::chrono::seconds{1}});
    EXPECT_EQ(codableTimestamp(*record), 5'999'999U) << "a record keeps its own time";
}

TEST(FeedbackDictionaryTest, DictionariesReadAsTheServerExpects) {
    CXStartNetworkSearchFeedback start;
    start.set_timestamp(77);
    start.set_query_id(std::numeric_limits<std::uint64_t>::max());
    start.set_lookup_selection_type(0);
    for (const auto* name : {"c", "a", "b"}) (*start.mutable_headers())[name] = "1";
    EXPECT_EQ(jsonOf(start, {.queryId = -5, .developerID = "me"}),
              R"({"timestamp":0,"queryId":18446744073709551615,"headers":{"a":"1","b":"1","c":"1"},)"
              R"("lookupSelectionType":0,"query_id":-5,"type":"network_search_start","orvex_developer_id":"me"})");

    CXVisibleResultsFeedback visible;
    visible.add_results()->set_is_top_hit(false);
    visible.mutable_results(0)->mutable_punchout()->add_urls("https://a.example/");
    visible.add_results();
    EXPECT_EQ(jsonOf(visible), R"({"results":[{"isTopHit":false,"punchout":{"urls":["https://a.example/"]}},{}],)"
                               R"("query_id":-5,"type":"visible_results","timestamp":0})");

    CXErrorFeedback error;
    error.mutable_error()->set_code(500);
    auto& info = *error.mutable_error()->mutable_user_info();
    info["reason"].set_string_value("bad \xFF byte");
    info["nothing"].set_null_value(CX_NULL);
    info["blob"].set_bytes_value(std::string("\0\1", 2));
    info["list"].mutable_list_value()->add_values()->set_double_value(0.5);
    (*info["map"].mutable_map_value()->mutable_values())["k"].set_bool_value(true);
    EXPECT_EQ(jsonOf(error), R"({"error":{"code":500,"userInfo":{"blob":"AAE=","list":[0.5],"map":{"k":true},)"
                             "\"nothing\":null,\"reason\":\"bad \xEF\xBF\xBD byte\"}},"
                             R"("type":"error","timestamp":0})");

    CXEndNetworkSearchFeedback end;
    (*end.mutable_network_timing_data()->mutable_int_key_fields())[49].set_int64_value(1);
    (*end.mutable_network_timing_data()->mutable_values())["connect"] = 2;
    end.set_response_size(1);
    EXPECT_EQ(jsonOf(end), R"({"responseSize":1,"networkTimingData":{"values":{"connect":2},"intKeyFields":{"49":1}},)"
                           R"("query_id":-5,"type":"network_search_end","timestamp":0})");

    CXSessionEndFeedback sessionEnd;
    sessionEnd.set_reason(7);
    EXPECT_EQ(jsonOf(sessionEnd), R"({"reason":"engagement_received","type":"session_end","timestamp":0})");
    CXSkipSearchFeedback skip;
    skip.set_trigger_event(3);
    EXPECT_EQ(jsonOf(skip),
              R"({"triggerEvent":"bag_fetch_failed","query_id":-5,"type":"skip_orvex_search","timestamp":0})");
    skip.set_trigger_event(9);
    EXPECT_EQ(jsonOf(skip), R"({"triggerEvent":9,"query_id":-5,"type":"skip_orvex_search","timestamp":0})");
}

TEST(FeedbackDictionaryTest, ACustomRecordIsItsOwnJSONWhereThatIsAnObject) {
    CXCustomFeedback custom;
    custom.set_custom_type(6);
    custom.set_json_feedback(R"({"b":1.5,"a":[1],"type":"forged","timestamp":12})");
    EXPECT_EQ(jsonOf(custom), R"({"b":1.5,"a":[1],"type":"custom_unknown","timestamp":0})");
    for (const std::string_view noObject : {"[1]", "{", "", "{\"a\":1e400}"}) {
        custom.set_json_feedback(std::string(noObject));
        EXPECT_EQ(feedbackJSON(custom), std::nullopt) << noObject;
    }
    custom.set_json_feedback("[1]");
    EXPECT_EQ(jsonOf(custom), R"({"customType":6,"jsonFeedback":"WzFd","type":"custom_unknown","timestamp":0})");
    EXPECT_EQ(feedbackJSON(CXErrorFeedback()), std::nullopt);
}

TEST(FeedbackDictionaryTest, WhatHasNoFormIsNoneAndCountedWhenShown) {
    platform::Counters counters;
    const auto shown = [&counters](const CXOrvexFeedback& record) {
        return description(record, counters).value_or("none " + std::to_string(counters.snapshot().size()));
    };
    CXClientTimingFeedback timing;
    timing.set_timestamp(5'999'999);
    EXPECT_EQ(shown(*orvexFeedbackWithCodable(timing, {})), R"({"timestamp":5,"query_id":0,"type":"client_timing"})");
    EXPECT_TRUE(counters.snapshot().empty());
    timing.set_seconds(std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(jsonOf(timing), "none");
    EXPECT_EQ(shown(*orvexFeedbackWithCodable(timing, {})), "none 1");
    EXPECT_EQ(counters.value("com.kelvar.orvexd.feedbacknotsent"), 1);
    EXPECT_EQ(dictionary(CXOrvexFeedback()), std::nullopt);

    CXErrorFeedback deep;
    auto* value = &(*deep.mutable_error()->mutable_user_info())["deep"];
    for (int depth = 0; depth < 200; ++depth) value = value->mutable_list_value()->add_values();
    EXPECT_EQ(jsonOf(deep), "none");
}

TEST(FeedbackPayloadTest, APayloadThatIsNotWholeIsRefused) {
    const auto whole = bytesOf(startOfNetworkSearch());
    ASSERT_EQ(decoding(whole), "decoded");
    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_EQ(decoding(std::string_view(whole).substr(0, size)), "undecodable") << size;
    }
    EXPECT_EQ(decoding(whole + '\0'), "undecodable");
    EXPECT_EQ(decoding(std::string(kORXMaximumPayloadBytes + 1, '\0')), "too large");

    auto payload = startOfNetworkSearch();
    for (const std::int32_t type : {0, 12, 42, 99, 103, -1, std::numeric_limits<std::int32_t>::max()}) {
        payload.set_type(type);
        EXPECT_EQ(decoding(bytesOf(payload)), "undecodable") << type;
    }
    payload.clear_type();
    EXPECT_EQ(decoding(bytesOf(payload)), "undecodable");
    payload.set_type(14);
    payload.mutable_end_search()->set_identifier("another");
    EXPECT_EQ(decoding(bytesOf(payload)), "undecodable") << "two records";
}

TEST(FeedbackPayloadTest, TextsMustBeUTF8WhereverTheyStand) {
    auto payload = startOfNetworkSearch();
    (*payload.mutable_start_network_search()->mutable_headers())["\xC3"] = "";
    EXPECT_EQ(decoding(bytesOf(payload)), "not UTF-8");
    CXFeedbackPayload visible;
    visible.set_type(8);
    visible.mutable_visible_results()->add_results()->mutable_punchout()->add_urls("https://\xED\xA0\x80/");
    EXPECT_EQ(decoding(bytesOf(visible)), "not UTF-8");
    CXFeedbackPayload custom;
    custom.set_type(19);
    custom.mutable_custom()->set_json_feedback("\xFF");
    EXPECT_EQ(decoding(bytesOf(custom)), "decoded") << "bytes are bytes";
}

TEST(FeedbackPayloadTest, LongListsPassAndDeepNestsDoNot) {
    CXFeedbackPayload payload;
    payload.set_type(8);
    for (int index = 0; index < 100'000; ++index) payload.mutable_visible_results()->add_results()->set_type(1);
    EXPECT_EQ(decoding(bytesOf(payload)), "decoded");

    EXPECT_EQ(decoding(nested(20)), "decoded");
    EXPECT_EQ(decoding(nested(10'000)), "undecodable");

    // What is accepted must be readable within a session's file.
    int depth = 20;
    while (decoding(nested(depth + 1)) == "decoded") ++depth;
    CXClientSession session;
    *session.add_feedbacks() = *orvexFeedbackWithPayload(*decodeFeedbackPayload(nested(depth)), {});
    EXPECT_TRUE(CXClientSession().ParseFromString(session.SerializeAsString())) << depth;
    EXPECT_TRUE(dictionary(session.feedbacks(0)).has_value());
}

}  // namespace
}  // namespace orvex
