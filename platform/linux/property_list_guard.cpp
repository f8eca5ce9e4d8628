#include "platform/linux/property_list_guard.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <vector>

// A binary list is a table of objects that name each other by index, so a file of a few hundred bytes can stand for
// 2^64 objects: ten arrays of ten references each to the next. Each object is therefore measured once, and a container
// adds up what its members measured, saturating. The walk goes no deeper than the limit allows, which also bounds the
// stack. Objects may lie over each other, so that few bytes give each of many objects a long list of its own: a
// container is given up at the member that passes a limit, not at its end, which bounds the time.
//
//     "bplist00" objects… offsets[count] trailer(32)
//     trailer: 6 bytes unused, offset size, reference size, count (8), root (8), position of the offsets (8)
//     object: a marker byte, type in the upper half, length (or 15: an integer object with the length follows) in the
//             lower, then the payload; all numbers big-endian

namespace orvex::platform {
namespace {

constexpr std::string_view binaryMagic = "bplist0";
constexpr std::size_t headerBytes = 8;
constexpr std::size_t trailerBytes = 32;

std::unexpected<Failure> malformed(std::string_view why) {
    return failure(0, fmt::format("cannot read the property list: {}", why));
}

std::uint64_t saturatingSum(std::uint64_t a, std::uint64_t b) {
    std::uint64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? std::numeric_limits<std::uint64_t>::max() : sum;
}

class BinaryWalk {
public:
    explicit BinaryWalk(std::string_view bytes) : _bytes(bytes) {}

    Result<void> run() {
        if (!_readTrailer()) return malformed("its trailer is broken");
        _measures.resize(_count);
        const auto whole = _measure(_root, 0);
        if (!whole) return malformed(_why);
        return {};
    }

private:
    struct Measure {
        enum class State : std::uint8_t { unknown, underWay, known } state = State::unknown;
        std::uint32_t height = 0;  ///< 0 for what holds nothing
        std::uint64_t objects = 1;
        std::uint64_t payload = 0;
    };
    struct Object {
        std::uint8_t type;
        std::uint64_t length;  ///< as the marker has it
        std::size_t begin;     ///< of the payload
    };

    std::nullopt_t _refuse(std::string_view why) {
        _why = why;
        return std::nullopt;
    }

    /// `size` bytes (at most 8) at `at`, which the caller has checked.
    std::uint64_t _number(std::size_t at, std::size_t size) const {
        std::uint64_t value = 0;
        for (const char byte : _bytes.substr(at, size)) value = value << 8 | static_cast<unsigned char>(byte);
        return value;
    }

    bool _fits(std::size_t begin, std::uint64_t length) const { return begin <= _end && length <= _end - begin; }

    bool _readTrailer() {
        if (_bytes.size() < headerBytes + trailerBytes) return false;
        const std::size_t trailer = _bytes.size() - trailerBytes;
        _offsetSize = _number(trailer + 6, 1);
        _referenceSize = _number(trailer + 7, 1);
        _count = _number(trailer + 8, 8);
        _root = _number(trailer + 16, 8);
        const std::uint64_t table = _number(trailer + 24, 8);
        if (_offsetSize < 1 || _offsetSize > 8 || _referenceSize < 1 || _referenceSize > 8) return false;
        if (_count < 1 || _count > maxPropertyListObjects || _root >= _count) return false;
        if (table < headerBytes || table > trailer || _count * _offsetSize > trailer - table) return false;
        _end = table;
        return true;
    }

    std::optional<Object> _object(std::uint64_t index) {
        const std::uint64_t offset = _number(_end + index * _offsetSize, _offsetSize);
        if (offset < headerBytes || offset >= _end) return _refuse("an object lies outside");
        const auto marker = static_cast<std::uint8_t>(_bytes[offset]);
        Object object{.type = static_cast<std::uint8_t>(marker >> 4), .length = marker & 15u, .begin = offset + 1};
        const bool lengthFollows = object.type >= 4 && object.type != 8 && object.length == 15;
        if (!lengthFollows) return object;
        if (!_fits(object.begin, 1)) return _refuse("a length lies outside");
        const auto lengthMarker = static_cast<std::uint8_t>(_bytes[object.begin]);
        const std::size_t size = std::size_t{1} << (lengthMarker & 15);
        if (lengthMarker >> 4 != 1 || size > 8) return _refuse("a length is no integer");
        if (!_fits(object.begin + 1, size)) return _refuse("a length lies outside");
        object.length = _number(object.begin + 1, size);
        object.begin += 1 + size;
        return object;
    }

    std::optional<Measure> _measure(std::uint64_t index, std::uint32_t depth) {
        if (_measures[index].state == Measure::State::underWay) return _refuse("a reference leads back");
        if (_measures[index].state == Measure::State::unknown) {
            _measures[index].state = Measure::State::underWay;
            const auto object = _object(index);
            if (!object) return std::nullopt;
            auto measure = object->type >= 10 ? _measureContainer(*object, depth) : _measureScalar(*object);
            if (!measure) return std::nullopt;
            measure->state = Measure::State::known;
            _measures[index] = *measure;
        }
        const Measure& known = _measures[index];
        if (depth + known.height > maxPropertyListDepth) return _refuse("it is nested too deep");
        if (!_withinLimits(known)) return std::nullopt;
        return known;
    }

    bool _withinLimits(const Measure& measure) {
        if (measure.objects > maxPropertyListObjects) _why = "it has too many objects";
        if (measure.payload > maxPropertyListPayload) _why = "its texts and data are too long";
        return _why.empty();
    }

    std::optional<Measure> _measureScalar(const Object& object) {
        const auto sized = [&](std::uint64_t length) -> std::optional<Measure> {
            if (!_fits(object.begin, length)) return _refuse("a value lies outside");
            return Measure{.payload = length};
        };
        switch (object.type) {
            case 0:  // false and true
                if (object.length != 8 && object.length != 9) return _refuse("a value is of no known type");
                return Measure{};
            case 1:
                if (object.length > 3) return _refuse("an integer has more than 64 bits");
                return sized(std::uint64_t{1} << object.length);
            case 2:
                if (object.length != 2 && object.length != 3) return _refuse("a number is of no known size");
                return sized(std::uint64_t{1} << object.length);
            case 3:
                return _measureDate(object);
            case 4:
                return sized(object.length);
            case 5:
                if (!sized(object.length)) return std::nullopt;
                if (_bytes.substr(object.begin, object.length).contains('\0')) return _refuse("a text has a zero byte");
                return sized(object.length);
            case 6:
                return _measureWideText(object);
            default:
                return _refuse("a value is of no known type");
        }
    }

    /// The parser keeps dates in 32-bit seconds.
    std::optional<Measure> _measureDate(const Object& object) {
        if (object.length != 3 || !_fits(object.begin, 8)) return _refuse("a date is of no known size");
        const auto seconds = std::bit_cast<double>(_number(object.begin, 8));
        if (!(std::abs(seconds) < 2147483647.0)) return _refuse("a date is out of range");
        return Measure{.payload = 8};
    }

    std::optional<Measure> _measureWideText(const Object& object) {
        if (object.length > _end || !_fits(object.begin, object.length * 2)) return _refuse("a text lies outside");
        for (std::uint64_t unit = 0; unit < object.length; ++unit)
            if (_number(object.begin + unit * 2, 2) == 0) return _refuse("a text has a zero byte");
        return Measure{.payload = object.length * 3};  // as UTF-8, at most
    }

    std::optional<Measure> _measureContainer(const Object& object, std::uint32_t depth) {
        const bool dictionary = object.type == 13;
        if (!dictionary && object.type != 10) return _refuse("a value is of no known type");
        if (depth >= maxPropertyListDepth) return _refuse("it is nested too deep");
        if (object.length > maxPropertyListObjects) return _refuse("it has too many objects");
        const std::uint64_t references = object.length * (dictionary ? 2 : 1);
        if (!_fits(object.begin, references * _referenceSize)) return _refuse("a reference lies outside");

        Measure sum{.height = 1};
        for (std::uint64_t at = 0; at < references; ++at) {
            const std::uint64_t index = _number(object.begin + at * _referenceSize, _referenceSize);
            if (index >= _count) return _refuse("a reference names no object");
            if (dictionary && at < object.length && !_isText(index)) return _refuse("a key is no text");
            const auto member = _measure(index, depth + 1);
            if (!member) return std::nullopt;
            sum.height = std::max(sum.height, member->height + 1);
            sum.objects = saturatingSum(sum.objects, member->objects);
            sum.payload = saturatingSum(sum.payload, member->payload);
            if (!_withinLimits(sum)) return std::nullopt;
        }
        return sum;
    }

    bool _isText(std::uint64_t index) {
        const auto object = _object(index);
        return object && (object->type == 5 || object->type == 6);
    }

    const std::string_view _bytes;
    std::uint64_t _offsetSize = 0;
    std::uint64_t _referenceSize = 0;
    std::uint64_t _count = 0;
    std::uint64_t _root = 0;
    std::size_t _end = 0;  ///< of the objects: where the offsets begin
    std::vector<Measure> _measures;
    std::string_view _why;
};

/// The tags of an XML list, one after the other.
class TagWalk {
public:
    explicit TagWalk(std::string_view bytes) : _rest(bytes) {}

    Result<void> run() {
        for (auto open = _rest.find('<'); open != _rest.npos; open = _rest.find('<')) {
            _rest.remove_prefix(open);
            if (!_markup()) return malformed(_why);
        }
        if (!_open.empty()) return malformed("an element is not closed");
        if (_objects == 0) return malformed("it has no value");
        return {};
    }

private:
    bool _refuse(std::string_view why) {
        _why = why;
        return false;
    }

    bool _skipPast(std::size_t from, std::string_view end) {
        const auto found = _rest.find(end, from);
        if (found == _rest.npos) return _refuse("its markup is cut off");
        _rest.remove_prefix(found + end.size());
        return true;
    }

    bool _markup() {
        if (_rest.starts_with("<?")) return _skipPast(2, "?>");
        if (_rest.starts_with("<!--")) return _skipPast(4, "-->");
        if (_rest.starts_with("<![CDATA[")) return _skipPast(9, "]]>");
        if (_rest.starts_with("<!")) {
            if (_rest.substr(0, _rest.find('>')).contains('[')) return _refuse("it defines a document type");
            return _skipPast(2, ">");
        }
        const auto end = _rest.find_first_of("<>", 1);
        if (end == _rest.npos || _rest[end] != '>') return _refuse("a tag is cut off");
        const auto tag = _rest.substr(1, end - 1);
        _rest.remove_prefix(end + 1);
        // A quoted '>' would end the tag here but not for the parser.
        if (std::ranges::count(tag, '"') % 2 != 0 || tag.contains('\'')) return _refuse("a tag is malformed");
        return tag.starts_with('/') ? _close(tag.substr(1)) : _start(tag);
    }

    bool _start(std::string_view tag) {
        static constexpr std::array<std::string_view, 11> known = {
            "plist", "dict", "array", "key", "string", "integer", "real", "true", "false", "date", "data"};
        const bool empty = tag.ends_with('/');
        const auto name = tag.substr(0, tag.find_first_of(" \t\r\n/"));
        if (std::ranges::find(known, name) == known.end()) return _refuse("an element is unknown");
        if (name != "plist" && ++_objects > maxPropertyListObjects) return _refuse("it has too many objects");
        if (empty) return true;
        if (_isContainer(name) && ++_depth > maxPropertyListDepth) return _refuse("it is nested too deep");
        if (_open.size() > maxPropertyListDepth + 2) return _refuse("it is nested too deep");
        _open.push_back(name);
        return true;
    }

    bool _close(std::string_view tag) {
        const auto name = tag.substr(0, tag.find_first_of(" \t\r\n"));
        if (_open.empty() || _open.back() != name) return _refuse("an element is not closed");
        if (_isContainer(name)) --_depth;
        _open.pop_back();
        return true;
    }

    static bool _isContainer(std::string_view name) { return name == "dict" || name == "array"; }

    std::string_view _rest;
    std::vector<std::string_view> _open;
    std::uint32_t _depth = 0;
    std::uint64_t _objects = 0;
    std::string_view _why;
};

}  // namespace

bool isBinaryPropertyList(std::string_view bytes) { return bytes.starts_with(binaryMagic); }

Result<void> checkBinaryPropertyList(std::string_view bytes) { return BinaryWalk(bytes).run(); }

Result<void> checkXMLPropertyList(std::string_view bytes) { return TagWalk(bytes).run(); }

}  // namespace orvex::platform
