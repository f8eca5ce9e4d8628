#include "core/feedback_dictionary.h"

#include <fmt/format.h>
#include <google/protobuf/message.h>

#include <algorithm>
#include <boost/json.hpp>
#include <cmath>
#include <map>
#include <vector>

#include "core/feedback_record.h"
#include "core/feedback_records.pb.h"
#include "core/feedback_vocabulary.h"
#include "core/json.h"
#include "platform/base64.h"
#include "platform/counters.h"
#include "platform/text.h"

// A walker of our own over the message's descriptors. The library's JSON prints 64-bit integers as strings, cannot
// leave out a zero that was not set without leaving out one that was, and knows maps in no order.

namespace orvex {
namespace {

namespace json = boost::json;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

constexpr std::size_t customJSONDepth = 64;

class Walker {
public:
    /// Nothing that it returned counts once this is true.
    [[nodiscard]] bool failed() const { return _failed; }

    json::object object(const Message& message) {
        json::object result;
        if (!_enter()) return result;
        std::vector<const FieldDescriptor*> fields;
        message.GetReflection()->ListFields(message, &fields);
        for (const auto* field : fields) result[field->json_name()] = _field(message, field);
        --_depth;
        return result;
    }

private:
    bool _enter() {
        if (++_depth > kORXMaximumDictionaryNesting) _failed = true;
        return !_failed;
    }

    json::value _field(const Message& message, const FieldDescriptor* field) {
        if (field->is_map()) return _map(message, field);
        if (!field->is_repeated()) return _single(message, field);
        json::array list;
        const auto* reflection = message.GetReflection();
        for (int index = 0; index < reflection->FieldSize(message, field); ++index) {
            list.push_back(field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE
                               ? _message(reflection->GetRepeatedMessage(message, field, index))
                               : json::value(_text(reflection->GetRepeatedString(message, field, index))));
        }
        return list;
    }

    json::value _map(const Message& message, const FieldDescriptor* field) {
        const auto* reflection = message.GetReflection();
        const auto* keyField = field->message_type()->map_key();
        const auto* valueField = field->message_type()->map_value();
        std::map<std::string, json::value> sorted;
        for (int index = 0; index < reflection->FieldSize(message, field); ++index) {
            const auto& entry = reflection->GetRepeatedMessage(message, field, index);
            sorted[_key(entry, keyField)] = _single(entry, valueField);
        }
        json::object result;
        for (auto& [key, value] : sorted) result[key] = std::move(value);
        return result;
    }

    static std::string _key(const Message& entry, const FieldDescriptor* field) {
        if (field->cpp_type() == FieldDescriptor::CPPTYPE_INT32) {
            return fmt::to_string(entry.GetReflection()->GetInt32(entry, field));
        }
        return platform::wellFormed(entry.GetReflection()->GetString(entry, field));
    }

    json::value _single(const Message& message, const FieldDescriptor* field) {
        const auto* reflection = message.GetReflection();
        switch (field->cpp_type()) {
            case FieldDescriptor::CPPTYPE_BOOL:
                return reflection->GetBool(message, field);
            case FieldDescriptor::CPPTYPE_INT32:
                return _number(message, reflection->GetInt32(message, field));
            case FieldDescriptor::CPPTYPE_UINT32:
                return reflection->GetUInt32(message, field);
            case FieldDescriptor::CPPTYPE_INT64:
                return reflection->GetInt64(message, field);
            case FieldDescriptor::CPPTYPE_UINT64:
                return reflection->GetUInt64(message, field);
            case FieldDescriptor::CPPTYPE_DOUBLE:
                return _finite(reflection->GetDouble(message, field));
            case FieldDescriptor::CPPTYPE_FLOAT:
                return _finite(reflection->GetFloat(message, field));
            case FieldDescriptor::CPPTYPE_ENUM:
                return reflection->GetEnumValue(message, field);
            case FieldDescriptor::CPPTYPE_STRING:
                if (field->type() != FieldDescriptor::TYPE_BYTES) return _text(reflection->GetString(message, field));
                return json::value(platform::encodedBase64(reflection->GetString(message, field)));
            case FieldDescriptor::CPPTYPE_MESSAGE:
                return _message(reflection->GetMessage(message, field));
        }
        return nullptr;
    }

    /// Two records have numbers that are shown as words.
    static json::value _number(const Message& message, std::int32_t number) {
        if (message.GetDescriptor() == CXSessionEndFeedback::descriptor()) {
            return json::value(sessionEndReasonText(number));
        }
        if (message.GetDescriptor() == CXSkipSearchFeedback::descriptor()) {
            if (const auto name = skipReasonName(number)) return json::string(*name);
        }
        return number;
    }

    json::value _finite(double number) {
        if (!std::isfinite(number)) _failed = true;
        return number;
    }

    static json::value _text(std::string_view text) { return json::value(platform::wellFormed(text)); }

    json::value _message(const Message& message) {
        if (message.GetDescriptor() == CXValue::descriptor()) return _value(static_cast<const CXValue&>(message));
        return object(message);
    }

    json::value _value(const CXValue& value) {
        const auto* kind = value.GetDescriptor()->FindFieldByNumber(value.kind_case());
        if (kind == nullptr || value.has_null_value()) return nullptr;
        if (!_enter()) return nullptr;
        json::value result;
        if (value.has_list_value()) {
            for (auto& list = result.emplace_array(); const auto& item : value.list_value().values()) {
                list.push_back(_value(item));
            }
        } else if (value.has_map_value()) {
            result =
                _map(value.map_value(), CXValueMap::descriptor()->FindFieldByNumber(CXValueMap::kValuesFieldNumber));
        } else {
            result = _single(value, kind);
        }
        --_depth;
        return result;
    }

    int _depth = 0;
    bool _failed = false;
};

bool allFinite(const json::value& value) {  // as deep as the parser let it be
    if (const auto* number = value.if_double()) return std::isfinite(*number);
    if (const auto* list = value.if_array()) return std::ranges::all_of(*list, allFinite);
    if (const auto* object = value.if_object()) {
        return std::ranges::all_of(*object, [](const auto& member) { return allFinite(member.value()); });
    }
    return true;
}

/// What both forms share.
std::optional<json::object> dictionaryHelper(const CXOrvexFeedback& record) {
    const auto* codable = codableOf(record);
    if (codable == nullptr) return std::nullopt;
    auto result = feedbackJSON(*codable);
    if (!result) result = dictionaryRepresentation(*codable);
    if (!result) return std::nullopt;
    const auto type = feedbackType(record);
    if (requiresQueryId(type)) (*result)["query_id"] = record.query_id();
    (*result)["type"] = feedbackTypeName(type);
    if (record.has_orvex_developer_id()) {
        (*result)["orvex_developer_id"] = platform::wellFormed(record.orvex_developer_id());
    }
    return result;
}

}  // namespace

std::optional<json::object> dictionaryRepresentation(const Message& codable) {
    Walker walker;
    auto result = walker.object(codable);
    return walker.failed() ? std::nullopt : std::optional(std::move(result));
}

std::optional<json::object> feedbackJSON(const Message& codable) {
    if (codable.GetDescriptor() != CXCustomFeedback::descriptor()) return std::nullopt;
    auto parsed = parseJSON(static_cast<const CXCustomFeedback&>(codable).json_feedback(), customJSONDepth);
    if (!parsed || !parsed->is_object() || !allFinite(*parsed)) return std::nullopt;
    return std::move(parsed->as_object());
}

std::optional<json::object> dictionary(const CXOrvexFeedback& record) {
    auto result = dictionaryHelper(record);
    if (result) (*result)["timestamp"] = record.rel_timestamp();
    return result;
}

std::optional<std::string> description(const CXOrvexFeedback& record, platform::Counters& counters) {
    auto result = dictionaryHelper(record);
    if (!result) {
        counters.add("com.kelvar.orvexd.feedbacknotsent");
        return std::nullopt;
    }
    (*result)["timestamp"] = timestampMilliseconds(codableTimestamp(record));
    return compactJSON(*result);
}

}  // namespace orvex
