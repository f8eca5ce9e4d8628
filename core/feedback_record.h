#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"

namespace google::protobuf {
class Message;
}

/// What a feedback record can do beside hold its fields. Pure functions, but for `routeProtobufLog`.
///
/// A record on its own (a *codable*) is one of the messages CX…Feedback; a payload holds one codable and its type; a
/// `CXOrvexFeedback` is a payload with where it came from.
namespace orvex {

class CXFeedbackPayload;
class CXOrvexFeedback;

/// Where a record comes from. An empty text is an absent one.
struct RecordOrigin {
    std::int64_t queryId = 0;
    std::string userGuid;  ///< upper-case UUID
    std::string userAgent;
    std::string developerID;                                    ///< the user default "ORXDevID"
    std::optional<platform::MonotonicTime> now = std::nullopt;  ///< given to a record that has no time of its own
};

/// Wraps what a client sent. The payload is kept as it is, but for the time.
[[nodiscard]] std::unique_ptr<CXOrvexFeedback> orvexFeedbackWithPayload(CXFeedbackPayload payload, RecordOrigin origin);

/// Wraps a copy of `codable`, which must be one of the record classes (aborts otherwise). Its type is its class's; a
/// custom record's is 102 for the custom type 1, 101 for 3, else 19.
[[nodiscard]] std::unique_ptr<CXOrvexFeedback> orvexFeedbackWithCodable(const google::protobuf::Message& codable,
                                                                        RecordOrigin origin);

[[nodiscard]] std::int32_t feedbackType(const CXOrvexFeedback& record);  ///< the payload's, 0 without one

/// The record that the payload's type names; null when it is not there. Lives as long as the payload does.
[[nodiscard]] const google::protobuf::Message* codableOf(const CXFeedbackPayload& payload);
[[nodiscard]] google::protobuf::Message* mutableCodableOf(CXFeedbackPayload& payload);
[[nodiscard]] const google::protobuf::Message* codableOf(const CXOrvexFeedback& record);

/// When it happened, in nanoseconds of the monotonic clock; 0 when it does not say.
[[nodiscard]] std::uint64_t codableTimestamp(const CXOrvexFeedback& record);
[[nodiscard]] constexpr std::uint64_t timestampMilliseconds(std::uint64_t nanoseconds) {
    return nanoseconds / 1'000'000;
}

/// By `codableTimestamp`: the larger is the later.
[[nodiscard]] std::strong_ordering timeStampComparator(const CXOrvexFeedback& a, const CXOrvexFeedback& b);

inline constexpr std::size_t kORXMaximumPayloadBytes = std::size_t{1024} * 1024;
/// Of messages within a payload that comes over the bus. A file puts it two levels deeper, and protobuf reads 100.
inline constexpr int kORXMaximumPayloadNesting = 64;

enum class PayloadFault : std::uint8_t {
    tooLarge,     ///< more than `kORXMaximumPayloadBytes`
    undecodable,  ///< no such message, nested too deep, an unknown type, or not exactly the one record it names
    notUTF8,      ///< a text in it is not UTF-8
};

/// A payload from whoever; what comes back has a codable.
[[nodiscard]] std::expected<CXFeedbackPayload, PayloadFault> decodeFeedbackPayload(std::string_view bytes);

/// From now on the protobuf library writes into the default log, at debug level, and never on standard error. For
/// `main`.
void routeProtobufLog();

}  // namespace orvex
