#include "tools/tool/feedback_json.h"

#include <fmt/format.h>
#include <google/protobuf/util/json_util.h>

#include <boost/json.hpp>
#include <optional>
#include <vector>

#include "core/feedback_dictionary.h"
#include "core/feedback_record.h"
#include "core/feedback_records.pb.h"
#include "core/feedback_vocabulary.h"
#include "core/json.h"
#include "platform/text.h"

namespace orvex::tool {
namespace {

namespace json = boost::json;
using platform::failure;

constexpr int recordFieldOffset = 16;
constexpr std::size_t maxLineBytes = 2000;

/// The type of the only record in it.
std::optional<std::int32_t> typeOfRecordIn(const CXFeedbackPayload& payload) {
    std::vector<const google::protobuf::FieldDescriptor*> fields;
    payload.GetReflection()->ListFields(payload, &fields);
    if (fields.size() != 1 || fields[0]->number() <= recordFieldOffset) return std::nullopt;
    return fields[0]->number() - recordFieldOffset;
}

json::value recordAsJSON(std::string_view bytes) {
    CXOrvexFeedback record;
    if (!record.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) return nullptr;
    auto form = dictionary(record);
    if (!form) return nullptr;
    (*form)["timestamp"] = timestampMilliseconds(codableTimestamp(record));
    (*form)["user_agent"] = platform::wellFormed(record.user_agent());
    (*form)["user_guid"] = platform::wellFormed(record.user_guid());
    return *std::move(form);
}

std::uint64_t timestampOf(const json::object& record) {
    const auto* timestamp = record.if_contains("timestamp");
    return timestamp != nullptr && timestamp->is_uint64() ? timestamp->get_uint64() : 0;
}

std::string recordLine(json::object record, std::uint64_t begin) {
    const auto timestamp = timestampOf(record);
    const auto since = timestamp < begin ? 0 : timestamp - begin;
    const auto type = stringMember(record, "type").value_or("");
    for (const auto* shown : {"timestamp", "type"}) record.stable_erase(shown);
    return fmt::format("{:>9.3f} s  {:<30}  {}\n", static_cast<double>(since) / 1000, platform::escaped(type, 100),
                       platform::escaped(compactJSON(record), maxLineBytes));
}

}  // namespace

platform::Result<std::string> payloadFromJSON(std::string_view text) {
    CXFeedbackPayload payload;
    const auto read = google::protobuf::util::JsonStringToMessage({text.data(), text.size()}, &payload);
    if (!read.ok()) return failure(0, fmt::format("no feedback payload: {}", read.message().ToString()));
    if (!payload.has_type()) {
        const auto type = typeOfRecordIn(payload);
        if (!type) return failure(0, "no feedback payload: it has no type, and not one record");
        payload.set_type(*type);
    }
    return payload.SerializeAsString();
}

std::string payloadTypeName(std::string_view payload) {
    CXFeedbackPayload read;
    static_cast<void>(read.ParseFromArray(payload.data(), static_cast<int>(payload.size())));
    return feedbackTypeName(read.type());
}

json::array recordsAsJSON(const std::vector<std::string>& records) {
    json::array list;
    for (const auto& record : records) list.push_back(recordAsJSON(record));
    return list;
}

std::string recordsPage(const json::array& records) {
    std::string page;
    std::optional<std::uint64_t> begin;
    for (const auto& item : records) {
        const auto* record = item.if_object();
        if (record == nullptr) {
            page += "(unreadable)\n";
            continue;
        }
        if (const auto timestamp = timestampOf(*record); !begin && timestamp != 0) begin = timestamp;
        page += recordLine(*record, begin.value_or(0));
    }
    return page;
}

}  // namespace orvex::tool
