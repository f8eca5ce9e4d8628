#include "core/feedback_record.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/stubs/logging.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "core/feedback_records.pb.h"
#include "core/feedback_vocabulary.h"
#include "platform/log.h"
#include "platform/text.h"

// Which field of the payload holds a record follows from the descriptors alone (field 16 + type, and the field's
// message class), so a record that is added to the .proto needs nothing here.

namespace orvex {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

constexpr int recordFieldOffset = 16;
constexpr int timestampField = 1;  // in every record

const FieldDescriptor* recordFieldOfType(std::int32_t type) {
    if (type < 1 || type > FieldDescriptor::kMaxNumber - recordFieldOffset) return nullptr;
    return CXFeedbackPayload::descriptor()->FindFieldByNumber(type + recordFieldOffset);
}

const FieldDescriptor* recordFieldOfClass(const Descriptor* recordClass) {
    const auto* payload = CXFeedbackPayload::descriptor();
    for (int index = 0; index < payload->field_count(); ++index) {
        if (payload->field(index)->message_type() == recordClass) return payload->field(index);
    }
    return nullptr;
}

std::int32_t typeOfCustom(const CXCustomFeedback& custom) {
    switch (custom.custom_type()) {
        case 1:
            return static_cast<std::int32_t>(FeedbackType::customLumiskResultFeatures);
        case 3:
            return static_cast<std::int32_t>(FeedbackType::customBroviaAutofill);
        default:
            return static_cast<std::int32_t>(FeedbackType::customUnknown);
    }
}

const FieldDescriptor* recordFieldFor(const Message& codable) {
    if (codable.GetDescriptor() != CXCustomFeedback::descriptor()) return recordFieldOfClass(codable.GetDescriptor());
    return recordFieldOfType(typeOfCustom(static_cast<const CXCustomFeedback&>(codable)));
}

void giveTime(CXFeedbackPayload& payload, platform::MonotonicTime now) {
    auto* codable = mutableCodableOf(payload);
    if (codable == nullptr) return;
    const auto* field = codable->GetDescriptor()->FindFieldByNumber(timestampField);
    if (codable->GetReflection()->HasField(*codable, field)) return;
    codable->GetReflection()->SetUInt64(codable, field, static_cast<std::uint64_t>(now.time_since_epoch().count()));
}

// ---- the text of a payload

bool textsAreUTF8(const Message& message);

bool fieldIsUTF8(const Message& message, const FieldDescriptor* field) {
    const auto* reflection = message.GetReflection();
    const bool isText = field->type() == FieldDescriptor::TYPE_STRING;
    if (!isText && field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE) return true;
    std::string scratch;
    if (!field->is_repeated()) {
        if (!isText) return textsAreUTF8(reflection->GetMessage(message, field));
        return platform::isValidUTF8(reflection->GetStringReference(message, field, &scratch));
    }
    for (int index = 0; index < reflection->FieldSize(message, field); ++index) {
        const bool valid =
            isText ? platform::isValidUTF8(reflection->GetRepeatedStringReference(message, field, index, &scratch))
                   : textsAreUTF8(reflection->GetRepeatedMessage(message, field, index));
        if (!valid) return false;
    }
    return true;
}

/// Recurses as deep as the parser did, so `kORXMaximumPayloadNesting` bounds it.
bool textsAreUTF8(const Message& message) {
    std::vector<const FieldDescriptor*> fields;
    message.GetReflection()->ListFields(message, &fields);
    return std::ranges::all_of(fields, [&message](const auto* field) { return fieldIsUTF8(message, field); });
}

bool parseWithinNesting(std::string_view bytes, CXFeedbackPayload& payload) {
    google::protobuf::io::CodedInputStream input(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                                 static_cast<int>(bytes.size()));
    input.SetRecursionLimit(kORXMaximumPayloadNesting);
    return payload.ParseFromCodedStream(&input) && input.ConsumedEntireMessage();
}

/// The type and the record it names, and no other.
bool holdsItsRecordAlone(const CXFeedbackPayload& payload) {
    if (codableOf(payload) == nullptr) return false;
    std::vector<const FieldDescriptor*> fields;
    payload.GetReflection()->ListFields(payload, &fields);
    return fields.size() == 2;
}

void logOfProtobuf(google::protobuf::LogLevel level, const char* /*file*/, int /*line*/, const std::string& message) {
    const auto& logger = platform::defaultLogger();
    if (level == google::protobuf::LOGLEVEL_FATAL) return logger.fault("protobuf: {}", message);
    logger.debug("protobuf: {}", message);  // what it calls errors is bad input, which we judge and report ourselves
}

}  // namespace

std::unique_ptr<CXOrvexFeedback> orvexFeedbackWithPayload(CXFeedbackPayload payload, RecordOrigin origin) {
    auto record = std::make_unique<CXOrvexFeedback>();
    if (origin.now) giveTime(payload, *origin.now);
    *record->mutable_payload() = std::move(payload);
    record->set_query_id(origin.queryId);
    if (!origin.userAgent.empty()) record->set_user_agent(std::move(origin.userAgent));
    if (!origin.userGuid.empty()) record->set_user_guid(std::move(origin.userGuid));
    if (!origin.developerID.empty()) record->set_orvex_developer_id(std::move(origin.developerID));
    return record;
}

std::unique_ptr<CXOrvexFeedback> orvexFeedbackWithCodable(const Message& codable, RecordOrigin origin) {
    const auto* field = recordFieldFor(codable);
    if (field == nullptr) std::abort();  // no record class: a programming error
    CXFeedbackPayload payload;
    payload.set_type(field->number() - recordFieldOffset);
    payload.GetReflection()->MutableMessage(&payload, field)->CopyFrom(codable);
    return orvexFeedbackWithPayload(std::move(payload), std::move(origin));
}

std::int32_t feedbackType(const CXOrvexFeedback& record) { return record.payload().type(); }

const Message* codableOf(const CXFeedbackPayload& payload) {
    const auto* field = recordFieldOfType(payload.type());
    if (field == nullptr || !payload.GetReflection()->HasField(payload, field)) return nullptr;
    return &payload.GetReflection()->GetMessage(payload, field);
}

Message* mutableCodableOf(CXFeedbackPayload& payload) {
    if (codableOf(payload) == nullptr) return nullptr;
    return payload.GetReflection()->MutableMessage(&payload, recordFieldOfType(payload.type()));
}

const Message* codableOf(const CXOrvexFeedback& record) { return codableOf(record.payload()); }

std::uint64_t codableTimestamp(const CXOrvexFeedback& record) {
    const auto* codable = codableOf(record);
    if (codable == nullptr) return 0;
    const auto* field = codable->GetDescriptor()->FindFieldByNumber(timestampField);
    return codable->GetReflection()->GetUInt64(*codable, field);
}

std::strong_ordering timeStampComparator(const CXOrvexFeedback& a, const CXOrvexFeedback& b) {
    return codableTimestamp(a) <=> codableTimestamp(b);
}

std::expected<CXFeedbackPayload, PayloadFault> decodeFeedbackPayload(std::string_view bytes) {
    if (bytes.size() > kORXMaximumPayloadBytes) return std::unexpected(PayloadFault::tooLarge);
    CXFeedbackPayload payload;
    if (!parseWithinNesting(bytes, payload) || !holdsItsRecordAlone(payload)) {
        return std::unexpected(PayloadFault::undecodable);
    }
    if (!textsAreUTF8(payload)) return std::unexpected(PayloadFault::notUTF8);
    return payload;
}

void routeProtobufLog() { google::protobuf::SetLogHandler(&logOfProtobuf); }

}  // namespace orvex
