#include "platform/property_list.h"

#include <fmt/core.h>
#include <plist/plist.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <utility>

#include "platform/linux/property_list_guard.h"
#include "platform/text.h"

namespace orvex::platform {
namespace {

// The library's dates are 32-bit seconds since 2001-01-01 00:00 UTC.
constexpr std::chrono::seconds epoch2001(978'307'200);

struct FreeNode {
    void operator()(void* node) const { ::plist_free(node); }
};
using Node = std::unique_ptr<void, FreeNode>;

struct FreeMemory {
    void operator()(void* memory) const { std::free(memory); }
};
template <class T>
using Allocated = std::unique_ptr<T, FreeMemory>;

struct FreeXML {
    void operator()(char* text) const { ::plist_to_xml_free(text); }
};
struct FreeBinary {
    void operator()(char* bytes) const { ::plist_to_bin_free(bytes); }
};

std::unexpected<Failure> unreadable(std::string_view why) {
    return failure(0, fmt::format("cannot read the property list: {}", why));
}
std::unexpected<Failure> unwritable(std::string_view why) {
    return failure(EINVAL, fmt::format("cannot write the property list: {}", why));
}

/// What the parser made, as our own values. The guard has bounded the depth.
class Reader {
public:
    static Result<PropertyValue> value(plist_t node) {
        switch (::plist_get_node_type(node)) {
            case PLIST_BOOLEAN:
                return _boolean(node);
            case PLIST_UINT:
                return _integer(node);
            case PLIST_REAL:
                return _number(node);
            case PLIST_STRING:
                return _text(node);
            case PLIST_DATE:
                return _date(node);
            case PLIST_DATA:
                return _data(node);
            case PLIST_ARRAY:
                return _array(node);
            case PLIST_DICT:
                return _dictionary(node);
            default:
                return unreadable("a value is of no known type");
        }
    }

private:
    static Result<PropertyValue> _boolean(plist_t node) {
        std::uint8_t boolean = 0;
        ::plist_get_bool_val(node, &boolean);
        return boolean != 0;
    }

    static Result<PropertyValue> _integer(plist_t node) {
        std::uint64_t integer = 0;
        ::plist_get_uint_val(node, &integer);
        return static_cast<std::int64_t>(integer);  // negative ones come as their complement
    }

    static Result<PropertyValue> _number(plist_t node) {
        double number = 0;
        ::plist_get_real_val(node, &number);
        return number;
    }

    static Result<PropertyValue> _text(plist_t node) {
        std::uint64_t length = 0;
        const char* text = ::plist_get_string_ptr(node, &length);
        const std::string_view bytes = text ? std::string_view(text, length) : std::string_view();
        if (!isValidUTF8(bytes)) return unreadable("a text is not UTF-8");
        return bytes;
    }

    static Result<PropertyValue> _date(plist_t node) {
        std::int32_t seconds = 0;
        std::int32_t microseconds = 0;
        ::plist_get_date_val(node, &seconds, &microseconds);
        const std::chrono::microseconds fraction(seconds < 0 ? -microseconds : microseconds);
        return WallTime(epoch2001 + std::chrono::seconds(seconds) + fraction);
    }

    static Result<PropertyValue> _data(plist_t node) {
        std::uint64_t length = 0;
        const char* bytes = ::plist_get_data_ptr(node, &length);
        return PropertyData{bytes ? std::string(bytes, length) : std::string()};
    }

    static Result<PropertyValue> _array(plist_t node) {
        PropertyArray items;
        plist_array_iter position = nullptr;
        ::plist_array_new_iter(node, &position);
        const Allocated<void> held(position);
        plist_t item = nullptr;
        for (::plist_array_next_item(node, position, &item); item; ::plist_array_next_item(node, position, &item)) {
            auto read = value(item);
            if (!read) return read;
            items.push_back(std::move(*read));
        }
        return items;
    }

    static Result<PropertyValue> _dictionary(plist_t node) {
        PropertyDictionary entries;
        plist_dict_iter position = nullptr;
        ::plist_dict_new_iter(node, &position);
        const Allocated<void> held(position);
        while (true) {
            char* name = nullptr;
            plist_t item = nullptr;
            ::plist_dict_next_item(node, position, &name, &item);
            const Allocated<char> key(name);
            if (!item) return entries;
            if (!key || !isValidUTF8(key.get())) return unreadable("a key is not UTF-8");
            auto read = value(item);
            if (!read) return read;
            entries.insert_or_assign(key.get(), std::move(*read));
        }
    }
};

enum class Form { binary, xml };

class Writer {
public:
    explicit Writer(Form form) : _form(form) {}

    /// Null when the list cannot hold the value; `why` then tells.
    Node node(const PropertyValue& value, std::uint32_t depth = 0) {
        return std::visit([&](const auto& content) { return _node(content, depth); }, value.storage());
    }
    [[nodiscard]] std::string_view why() const { return _why; }

private:
    Node _refuse(std::string_view why) {
        _why = why;
        return nullptr;
    }

    bool _storable(const std::string& text) {
        if (text.contains('\0')) return _refuse("a text has a zero byte") != nullptr;
        if (!isValidUTF8(text)) return _refuse("a text is not UTF-8") != nullptr;
        return true;
    }

    Node _node(bool value, std::uint32_t) { return Node(::plist_new_bool(value ? 1 : 0)); }
    Node _node(std::int64_t value, std::uint32_t) { return Node(::plist_new_uint(static_cast<std::uint64_t>(value))); }
    Node _node(double value, std::uint32_t) {
        return std::isfinite(value) ? Node(::plist_new_real(value)) : _refuse("a number is not finite");
    }
    Node _node(const std::string& text, std::uint32_t) {
        return _storable(text) ? Node(::plist_new_string(text.c_str())) : nullptr;
    }
    Node _node(WallTime date, std::uint32_t) {
        const auto sinceEpoch = date.time_since_epoch();
        const auto whole = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
        const auto seconds = (whole - epoch2001).count();
        if (seconds <= std::numeric_limits<std::int32_t>::min() || seconds >= std::numeric_limits<std::int32_t>::max())
            return _refuse("a date is out of range");
        const auto fraction = std::chrono::floor<std::chrono::microseconds>(sinceEpoch - whole).count();
        return Node(::plist_new_date(static_cast<std::int32_t>(seconds),
                                     _form == Form::binary ? static_cast<std::int32_t>(fraction) : 0));
    }
    Node _node(const PropertyData& data, std::uint32_t) {
        return Node(::plist_new_data(data.bytes.data(), data.bytes.size()));
    }

    Node _node(const PropertyArray& items, std::uint32_t depth) {
        if (depth >= maxPropertyListDepth) return _refuse("it is nested too deep");
        Node array(::plist_new_array());
        for (const auto& item : items) {
            Node element = node(item, depth + 1);
            if (!element) return nullptr;
            ::plist_array_append_item(array.get(), element.release());
        }
        return array;
    }

    Node _node(const PropertyDictionary& entries, std::uint32_t depth) {
        if (depth >= maxPropertyListDepth) return _refuse("it is nested too deep");
        Node dictionary(::plist_new_dict());
        for (const auto& [key, item] : entries) {
            if (!_storable(key)) return nullptr;
            Node element = node(item, depth + 1);
            if (!element) return nullptr;
            ::plist_dict_set_item(dictionary.get(), key.c_str(), element.release());
        }
        return dictionary;
    }

    const Form _form;
    std::string_view _why = "there is no memory";
};

/// `bytes` as the library gave them, null when it failed.
Result<std::string> written(const char* bytes, std::uint32_t length) {
    if (!bytes) return unwritable("the library failed");
    if (length > maxPropertyListBytes) return failure(EFBIG, "cannot write the property list: it is too large");
    return std::string(bytes, length);
}

}  // namespace

Result<PropertyValue> parsePropertyList(std::string_view bytes) {
    if (bytes.size() > maxPropertyListBytes) return failure(EFBIG, "cannot read the property list: it is too large");
    const bool binary = isBinaryPropertyList(bytes);
    const auto checked = binary ? checkBinaryPropertyList(bytes) : checkXMLPropertyList(bytes);
    if (!checked) return std::unexpected(checked.error());

    plist_t parsed = nullptr;
    const auto length = static_cast<std::uint32_t>(bytes.size());
    if (binary)
        ::plist_from_bin(bytes.data(), length, &parsed);
    else
        ::plist_from_xml(bytes.data(), length, &parsed);
    const Node root(parsed);
    if (!root) return unreadable("its values are malformed");
    return Reader::value(root.get());
}

Result<std::string> writeBinaryPropertyList(const PropertyValue& value) {
    Writer writer(Form::binary);
    const Node root = writer.node(value);
    if (!root) return unwritable(writer.why());
    char* bytes = nullptr;
    std::uint32_t length = 0;
    ::plist_to_bin(root.get(), &bytes, &length);
    const std::unique_ptr<char, FreeBinary> held(bytes);
    return written(bytes, length);
}

Result<std::string> writeXMLPropertyList(const PropertyValue& value) {
    Writer writer(Form::xml);
    const Node root = writer.node(value);
    if (!root) return unwritable(writer.why());
    char* bytes = nullptr;
    std::uint32_t length = 0;
    ::plist_to_xml(root.get(), &bytes, &length);
    const std::unique_ptr<char, FreeXML> held(bytes);
    return written(bytes, length);
}

}  // namespace orvex::platform
