#include "platform/linux/sd_bus_message.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

#include "platform/text.h"

// Inside this file an error is a negative errno, as sd-bus gives them.

namespace orvex::platform {
namespace {

template <class T>
using Read = std::expected<T, int>;

/// Reads a message from where it stands. The peer chose what is in a variant, so nothing is taken for granted: every
/// type is read as what it is, and depth and memory are bounded.
class Reader {
public:
    explicit Reader(sd_bus_message* message) : _message(message) {}

    /// Up to the end of the container, or of the message.
    Read<BusArguments> rest() {
        BusArguments values;
        for (;;) {
            auto value = _next();
            if (!value && value.error() == endOfContainer) return values;
            if (!value) return std::unexpected(value.error());
            values.push_back(std::move(*value));
        }
    }

    [[nodiscard]] std::size_t wireBytes() const { return _wireBytes; }

private:
    static constexpr int endOfContainer = 0;

    Read<BusValue> _next() {
        char type = 0;
        const char* contents = nullptr;
        const int r = sd_bus_message_peek_type(_message, &type, &contents);
        if (r <= 0) return std::unexpected(r);
        return _value(type, contents);
    }

    Read<BusValue> _value(char type, const char* contents) {
        switch (type) {
            case 'b':
                return _basic<int>(type, [](int value) { return value != 0; });
            case 'y':
                return _basic<std::uint8_t>(type);
            case 'n':
                return _basic<std::int16_t>(type);
            case 'q':
                return _basic<std::uint16_t>(type);
            case 'i':
                return _basic<std::int32_t>(type);
            case 'u':
                return _basic<std::uint32_t>(type);
            case 'x':
                return _basic<std::int64_t>(type);
            case 't':
                return _basic<std::uint64_t>(type);
            case 'd':
                return _basic<double>(type);
            case 's':
                return _text(type, [](const char* text) { return std::string(text); });
            case 'o':
                return _text(type, [](const char* text) { return BusObjectPath{text}; });
            case 'g':
                return _text(type, [](const char* text) { return BusSignature{text}; });
            case 'h':
                return _file();
            case 'v':
                return _variant(contents);
            case 'a':
                return _array(contents);
            case 'r':
            case 'e':
                return _struct(type, contents);
            default:
                return std::unexpected(-EBADMSG);
        }
    }

    template <class T, class Convert = std::identity>
    Read<BusValue> _basic(char type, Convert convert = {}) {
        T value{};
        if (const int r = _readBasic(type, &value, sizeof value); r < 0) return std::unexpected(r);
        return BusValue(convert(value));
    }

    template <class Convert>
    Read<BusValue> _text(char type, Convert convert) {
        const char* text = nullptr;
        if (const int r = _readBasic(type, &text, 5); r < 0) return std::unexpected(r);
        const std::size_t length = std::char_traits<char>::length(text);
        if (const int r = _charge(length, length); r < 0) return std::unexpected(r);
        return BusValue(convert(text));
    }

    Read<BusValue> _file() {
        int descriptor = -1;
        if (const int r = _readBasic('h', &descriptor, 4); r < 0) return std::unexpected(r);
        FileDescriptor own(::fcntl(descriptor, F_DUPFD_CLOEXEC, 3));  // the message closes its own
        if (!own.valid()) return std::unexpected(-errno);
        return BusValue(BusFile{std::make_shared<FileDescriptor>(std::move(own))});
    }

    Read<BusValue> _variant(const char* contents) {
        if (const int r = _enter('v', contents); r < 0) return std::unexpected(r);
        const bool basic = contents[1] == '\0' && contents[0] != 'v';
        auto value = basic ? _value(contents[0], nullptr) : _next();
        if (!value) return std::unexpected(value.error() == endOfContainer ? -EBADMSG : value.error());
        if (const int r = _leave(); r < 0) return std::unexpected(r);
        return value;
    }

    Read<BusValue> _struct(char type, const char* contents) {
        if (const int r = _enter(type, contents); r < 0) return std::unexpected(r);
        auto members = rest();
        if (!members) return std::unexpected(members.error());
        if (const int r = _leave(); r < 0) return std::unexpected(r);
        return BusValue(BusStruct{std::move(*members)});
    }

    Read<BusValue> _array(const char* contents) {
        const std::string_view element(contents);
        if (element == "y") return _bytes();
        if (element.starts_with("{s")) return _dictionary(contents);
        if (const int r = _enter('a', contents); r < 0) return std::unexpected(r);
        auto items = rest();
        if (!items) return std::unexpected(items.error());
        BusArray array{std::string(element), std::move(*items)};
        if (const int r = _leave(); r < 0) return std::unexpected(r);
        return BusValue(std::move(array));
    }

    Read<BusValue> _bytes() {
        const void* bytes = nullptr;
        std::size_t size = 0;
        if (const int r = sd_bus_message_read_array(_message, 'y', &bytes, &size); r < 0) return std::unexpected(r);
        if (const int r = _charge(size + 4, sizeof(BusValue) + size); r < 0) return std::unexpected(r);
        return BusValue(BusBytes::of(std::string(static_cast<const char*>(bytes), size)));
    }

    Read<BusValue> _dictionary(const char* contents) {
        const std::string entryTypes(contents + 1, std::char_traits<char>::length(contents) - 2);
        BusDictionary dictionary{entryTypes.substr(1), {}};
        if (const int r = _enter('a', contents); r < 0) return std::unexpected(r);
        for (;;) {
            const int r = _enter('e', entryTypes.c_str());
            if (r < 0) return std::unexpected(r);
            if (r == 0) break;
            const char* key = nullptr;
            if (const int k = _readBasic('s', &key, 5); k < 0) return std::unexpected(k);
            const std::size_t length = std::char_traits<char>::length(key);
            if (const int k = _charge(length, length); k < 0) return std::unexpected(k);
            auto value = _next();
            if (!value) return std::unexpected(value.error() == endOfContainer ? -EBADMSG : value.error());
            dictionary.entries.emplace_back(key, std::move(*value));
            if (const int k = _leave(); k < 0) return std::unexpected(k);
        }
        if (const int r = _leave(); r < 0) return std::unexpected(r);
        return BusValue(std::move(dictionary));
    }

    int _readBasic(char type, void* value, std::size_t wireBytes) {
        const int r = sd_bus_message_read_basic(_message, type, value);
        if (r <= 0) return r < 0 ? r : -EBADMSG;
        return _charge(wireBytes, sizeof(BusValue));
    }

    /// 0 when there is no such container left where the message stands.
    int _enter(char type, const char* contents) {
        if (_depth == maxValueDepth) return -ELOOP;
        const int r = sd_bus_message_enter_container(_message, type, contents);
        if (r <= 0) return r;
        ++_depth;
        const int charged = _charge(type == 'v' ? std::char_traits<char>::length(contents) + 2 : 4, sizeof(BusValue));
        return charged < 0 ? charged : r;
    }

    int _leave() {
        --_depth;
        return sd_bus_message_exit_container(_message);
    }

    int _charge(std::size_t wireBytes, std::size_t memoryBytes) {
        _wireBytes += wireBytes;
        _memoryBytes += memoryBytes;
        return _memoryBytes > maxDecodedBytes ? -E2BIG : 0;
    }

    sd_bus_message* const _message;
    std::size_t _depth = 0;
    std::size_t _wireBytes = 0;
    std::size_t _memoryBytes = 0;
};

class Writer {
public:
    explicit Writer(sd_bus_message* message) : _message(message) {}

    int appendAll(std::string_view signature, const BusArguments& values) {
        for (const auto& value : values) {
            const auto type = firstCompleteType(signature);
            if (type.empty()) return -EINVAL;
            if (const int r = _append(type, value); r < 0) return r;
            signature.remove_prefix(type.size());
        }
        return signature.empty() ? 0 : -EINVAL;
    }

private:
    int _append(std::string_view type, const BusValue& value) {
        switch (type.front()) {
            case 'b': {
                const bool* kept = value.as<bool>();
                const int sent = kept && *kept ? 1 : 0;
                return kept ? sd_bus_message_append_basic(_message, 'b', &sent) : -EINVAL;
            }
            case 'y':
                return _basic('y', value.as<std::uint8_t>());
            case 'n':
                return _basic('n', value.as<std::int16_t>());
            case 'q':
                return _basic('q', value.as<std::uint16_t>());
            case 'i':
                return _basic('i', value.as<std::int32_t>());
            case 'u':
                return _basic('u', value.as<std::uint32_t>());
            case 'x':
                return _basic('x', value.as<std::int64_t>());
            case 't':
                return _basic('t', value.as<std::uint64_t>());
            case 'd':
                return _basic('d', value.as<double>());
            case 's':
                return _string(value.as<std::string>());
            case 'o': {
                const auto* path = value.as<BusObjectPath>();
                return _text('o', path ? &path->path : nullptr);
            }
            case 'g': {
                const auto* signature = value.as<BusSignature>();
                return _text('g', signature ? &signature->signature : nullptr);
            }
            case 'h':
                return _file(value.as<BusFile>());
            case 'v': {
                const auto contents = value.signature();
                return _container('v', contents, [&] { return _append(contents, value); });
            }
            case 'a':
                return _array(type.substr(1), value);
            default:
                return _struct(type, value.as<BusStruct>());
        }
    }

    int _basic(char type, const void* value) {
        return value ? sd_bus_message_append_basic(_message, type, value) : -EINVAL;
    }

    int _text(char type, const std::string* text) {
        if (!text) return -EINVAL;
        const int r = text->contains('\0') ? -EINVAL : sd_bus_message_append_basic(_message, type, text->c_str());
        if (r != -EINVAL || type != 's') return r;
        return sd_bus_message_append_basic(_message, type, escaped(*text, 4 * text->size()).c_str());
    }

    /// sd-bus takes 3 ns a byte to find out whether a text is UTF-8, so what plainly is goes past that.
    int _string(const std::string* text) {
        if (!text || !isASCII(*text) || text->contains('\0')) return _text('s', text);
        char* place = nullptr;
        const int r = sd_bus_message_append_string_space(_message, text->size(), &place);
        if (r >= 0) std::ranges::copy(*text, place);
        return r;
    }

    int _file(const BusFile* file) {
        if (!file || !file->file || !file->file->valid()) return -EINVAL;
        const int descriptor = file->file->get();
        return sd_bus_message_append_basic(_message, 'h', &descriptor);
    }

    int _array(std::string_view element, const BusValue& value) {
        if (const auto* bytes = value.as<BusBytes>()) {
            const auto view = bytes->view();
            return element == "y" ? sd_bus_message_append_array(_message, 'y', view.data(), view.size()) : -EINVAL;
        }
        if (const auto* dictionary = value.as<BusDictionary>()) return _dictionary(element, *dictionary);
        const auto* array = value.as<BusArray>();
        if (!array) return -EINVAL;
        return _container('a', std::string(element), [&] {
            for (const auto& item : array->items) {
                if (const int r = _append(element, item); r < 0) return r;
            }
            return 0;
        });
    }

    int _dictionary(std::string_view element, const BusDictionary& dictionary) {
        if (!element.starts_with("{s")) return -EINVAL;
        const std::string entryTypes(element.substr(1, element.size() - 2));
        const auto valueType = std::string_view(entryTypes).substr(1);
        return _container('a', std::string(element), [&] {
            for (const auto& [key, value] : dictionary.entries) {
                const int r = _container('e', entryTypes, [&] {
                    const int k = _string(&key);
                    return k < 0 ? k : _append(valueType, value);
                });
                if (r < 0) return r;
            }
            return 0;
        });
    }

    int _struct(std::string_view type, const BusStruct* value) {
        if (!value) return -EINVAL;
        const std::string memberTypes(type.substr(1, type.size() - 2));
        return _container(type.front() == '(' ? 'r' : 'e', memberTypes,
                          [&] { return appendAll(memberTypes, value->members); });
    }

    template <class Fill>
    int _container(char type, const std::string& contents, Fill fill) {
        if (const int r = sd_bus_message_open_container(_message, type, contents.c_str()); r < 0) return r;
        if (const int r = fill(); r < 0) return r;
        return sd_bus_message_close_container(_message);
    }

    sd_bus_message* const _message;
};

BusError readError(int error) {
    switch (error) {
        case -E2BIG:
        case -ENOMEM:
            return {std::string(bus_error::limitsExceeded), "the arguments are too large"};
        case -EMFILE:
        case -ENFILE:
            return {std::string(bus_error::limitsExceeded), "no file descriptor is left"};
        case -ELOOP:
            return {std::string(bus_error::invalidArgs), "the arguments are nested too deeply"};
        default:
            return {std::string(bus_error::invalidArgs), "the arguments are malformed"};
    }
}

}  // namespace

std::expected<ReadArguments, BusError> readArguments(sd_bus_message* message) {
    sd_bus_message_rewind(message, 1);
    Reader reader(message);
    auto arguments = reader.rest();
    if (!arguments) return std::unexpected(readError(arguments.error()));
    return ReadArguments{std::move(*arguments), reader.wireBytes()};
}

Result<void> appendArguments(sd_bus_message* message, std::string_view signature, const BusArguments& arguments) {
    const int r = Writer(message).appendAll(signature, arguments);
    if (r >= 0) return {};
    return failure(-r, "values of the types \"" + signatureOf(arguments) + "\" cannot be sent as \"" +
                           std::string(signature) + "\": " + std::generic_category().message(-r));
}

}  // namespace orvex::platform
