#include "feedback/session_file.h"

#include <google/protobuf/io/coded_stream.h>

#include <optional>
#include <vector>

#include "core/feedback_records.pb.h"

// The protobuf library could read a whole file at once, but it stops at the first bad byte and loses what is behind it.
// So the fields are walked by hand, and the library sees one at a time. Where the walk is lost it looks for the key of
// a frame whose bytes are a record. Bytes that a client sent may look like that on purpose: the search is given as much
// to parse as a few times the file, then it gives up the rest.

namespace orvex {
namespace {

using google::protobuf::io::CodedInputStream;
using google::protobuf::io::CodedOutputStream;

constexpr std::string_view recordKey = "\xA2\x06";  // field 100, length-delimited
constexpr std::size_t searchFactor = 8;
constexpr std::uint32_t maxRecordBytes = 0x7FFFFFFF;  // what the library takes

CodedInputStream streamOver(std::string_view bytes) {
    return CodedInputStream(reinterpret_cast<const std::uint8_t*>(bytes.data()), static_cast<int>(bytes.size()));
}

/// What follows a key: the bytes of a field's value, and where they end in the file.
struct Frame {
    std::string_view value;
    std::size_t end = 0;
};

std::optional<Frame> lengthDelimitedAt(std::string_view file, std::size_t at) {
    constexpr std::size_t maxLengthBytes = 5;
    auto stream = streamOver(file.substr(at, maxLengthBytes));
    std::uint32_t length = 0;
    if (!stream.ReadVarint32(&length)) return std::nullopt;
    const std::size_t begin = at + static_cast<std::size_t>(stream.CurrentPosition());
    if (length > maxRecordBytes || length > file.size() - begin) return std::nullopt;
    return Frame{.value = file.substr(begin, length), .end = begin + length};
}

std::optional<Frame> frameAt(std::string_view file, std::size_t at) {
    if (!file.substr(at).starts_with(recordKey)) return std::nullopt;
    return lengthDelimitedAt(file, at + recordKey.size());
}

/// A record as we write them knows all its fields: one that does not has swallowed what stood behind it.
bool parseRecord(std::string_view bytes, CXOrvexFeedback& record) {
    return record.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())) && record.unknown_fields().empty();
}

/// A field of the header: its number, and where it ends in the file.
struct HeaderField {
    int number = 0;
    std::size_t end = 0;
};

enum class WireType : std::uint8_t { varint = 0, fixed64 = 1, lengthDelimited = 2 };

WireType wireTypeOf(const google::protobuf::FieldDescriptor& field) {
    switch (field.cpp_type()) {
        case google::protobuf::FieldDescriptor::CPPTYPE_DOUBLE:
            return WireType::fixed64;
        case google::protobuf::FieldDescriptor::CPPTYPE_STRING:
        case google::protobuf::FieldDescriptor::CPPTYPE_MESSAGE:
            return WireType::lengthDelimited;
        default:
            return WireType::varint;
    }
}

/// None when no field of a header as we write it begins at `at`.
std::optional<HeaderField> headerFieldAt(std::string_view file, std::size_t at) {
    constexpr std::size_t maxVarintBytes = 10;
    auto stream = streamOver(file.substr(at, 2 * maxVarintBytes));
    const std::uint32_t key = stream.ReadTag();
    const auto* field = CXClientSession::descriptor()->FindFieldByNumber(static_cast<int>(key >> 3));
    if (!field || field->number() == CXClientSession::kFeedbacksFieldNumber) return std::nullopt;
    const auto wireType = wireTypeOf(*field);
    if (static_cast<std::uint32_t>(wireType) != (key & 7)) return std::nullopt;

    const std::size_t value = at + static_cast<std::size_t>(stream.CurrentPosition());
    std::uint64_t number = 0;
    switch (wireType) {
        case WireType::varint:
            if (!stream.ReadVarint64(&number)) return std::nullopt;
            return HeaderField{field->number(), at + static_cast<std::size_t>(stream.CurrentPosition())};
        case WireType::fixed64:
            if (file.size() - value < sizeof number) return std::nullopt;
            return HeaderField{field->number(), value + sizeof number};
        case WireType::lengthDelimited:
            const auto found = lengthDelimitedAt(file, value);
            return found ? std::optional(HeaderField{field->number(), found->end}) : std::nullopt;
    }
    return std::nullopt;
}

class SessionFileReader {
public:
    SessionFileReader(std::string_view file, CXClientSession& session) : _file(file), _session(session) {}

    std::size_t read() {
        _readHeader();
        while (_at < _file.size()) {
            const auto frame = frameAt(_file, _at);
            if (frame && _addRecord(frame->value))
                _at = frame->end;
            else
                _skipDamage(frame);
        }
        return _damaged;
    }

private:
    /// Up to the first frame, where all that follows belongs to records. The fields stand in the order of their
    /// numbers; a length that was damaged may lead the walk into the records, where that soon shows.
    void _readHeader() {
        std::vector<std::size_t> ends;
        int last = 0;
        while (_at < _file.size() && !_file.substr(_at).starts_with(recordKey)) {
            const auto field = headerFieldAt(_file, _at);
            if (!field || field->number < last) {
                ++_damaged;
                _at = _nextRecord(0);
                break;
            }
            last = field->number;
            _at = field->end;
            ends.push_back(_at);
        }
        std::size_t begin = 0;
        for (const auto end : ends) {
            if (end > _at) return;
            if (!_merge(_file.substr(begin, end - begin))) ++_damaged;
            begin = end;
        }
    }

    bool _merge(std::string_view field) {
        auto stream = streamOver(field);
        return _session.MergeFromCodedStream(&stream);
    }

    bool _addRecord(std::string_view bytes) {
        if (parseRecord(bytes, *_session.add_feedbacks())) return true;
        _session.mutable_feedbacks()->RemoveLast();
        return false;
    }

    /// Over the record alone when its frame still leads to the next one or the end.
    void _skipDamage(const std::optional<Frame>& frame) {
        ++_damaged;
        const bool leadsOn = frame && (frame->end == _file.size() || frameAt(_file, frame->end));
        _at = leadsOn ? frame->end : _nextRecord(_at + 1);
    }

    /// Where the next frame that is a record begins, or the end.
    std::size_t _nextRecord(std::size_t from) {
        for (auto at = _file.find(recordKey, from); at != _file.npos; at = _file.find(recordKey, at + 1)) {
            const auto frame = frameAt(_file, at);
            if (!frame || frame->value.empty()) continue;
            _searched += frame->value.size();
            if (_searched / searchFactor > _file.size()) break;
            CXOrvexFeedback record;
            if (parseRecord(frame->value, record)) return at;
        }
        return _file.size();
    }

    const std::string_view _file;
    CXClientSession& _session;
    std::size_t _at = 0;
    std::size_t _damaged = 0;
    std::size_t _searched = 0;
};

}  // namespace

std::string encodeSessionHeader(const CXClientSession& session) { return session.SerializeAsString(); }

std::string encodeSessionRecord(const CXOrvexFeedback& record) {
    constexpr std::size_t maxLengthBytes = 5;
    const std::size_t length = record.ByteSizeLong();
    std::string frame(recordKey.size() + maxLengthBytes + length, '\0');
    frame.replace(0, recordKey.size(), recordKey);
    auto* const begin = reinterpret_cast<std::uint8_t*>(frame.data());
    auto* end = CodedOutputStream::WriteVarint32ToArray(static_cast<std::uint32_t>(length), begin + recordKey.size());
    end = record.SerializeWithCachedSizesToArray(end);
    frame.resize(static_cast<std::size_t>(end - begin));
    return frame;
}

std::size_t decodeSessionFile(std::string_view bytes, CXClientSession& session) {
    return SessionFileReader(bytes, session).read();
}

}  // namespace orvex
