#pragma once

#include <boost/json/fwd.hpp>
#include <optional>
#include <string>

namespace google::protobuf {
class Message;
}
namespace orvex::platform {
class Counters;
}

/// The JSON forms of feedback records, as they are uploaded and shown. The same record always gives the same text: the
/// keys of a message come in the order of its fields, those of a map sorted.
namespace orvex {

class CXOrvexFeedback;

/// How deep a record may be nested to have a JSON form.
inline constexpr int kORXMaximumDictionaryNesting = 100;

/// The fields that are set, by their names in lowerCamelCase: numbers as numbers, bytes in base64, a value (`CXValue`)
/// as what it holds, a session end's `reason` and a skip's `triggerEvent` by name. What is not UTF-8 in a text becomes
/// U+FFFD. None when a number in it is not finite, or when it is nested too deep.
[[nodiscard]] std::optional<boost::json::object> dictionaryRepresentation(const google::protobuf::Message& codable);

/// What a custom record carries, if that is a JSON object; none for any other record.
[[nodiscard]] std::optional<boost::json::object> feedbackJSON(const google::protobuf::Message& codable);

/// The record for upload: `feedbackJSON` if there is one, else `dictionaryRepresentation`, and over it "query_id" (for
/// types that have one), "type", "orvex_developer_id" (when set) and "timestamp", its `rel_timestamp`. None without a
/// codable, and when that has no form.
[[nodiscard]] std::optional<boost::json::object> dictionary(const CXOrvexFeedback& record);

/// The record for people, as JSON text on one line: as `dictionary`, but "timestamp" is the record's own time in
/// milliseconds. None counts as "com.kelvar.orvexd.feedbacknotsent".
[[nodiscard]] std::optional<std::string> description(const CXOrvexFeedback& record, platform::Counters& counters);

}  // namespace orvex
