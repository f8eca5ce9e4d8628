#include "platform/property_value.h"

#include <boost/json/value.hpp>
#include <charconv>
#include <cmath>
#include <limits>
#include <type_traits>

#include "platform/base64.h"
#include "platform/text.h"

namespace orvex::platform {
namespace {

namespace json = boost::json;

template <class... Visitors>
struct Overloaded : Visitors... {
    using Visitors::operator()...;
};

/// The number that the whole text is, in decimal, with or without a fraction; 0 when it is none.
std::int64_t integerFromText(std::string_view text) {
    if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
    const char* const end = text.data() + text.size();
    std::int64_t integer = 0;
    if (const auto read = std::from_chars(text.data(), end, integer); read.ptr == end && read.ec == std::errc())
        return integer;
    if (text.find_first_not_of("0123456789.-") != text.npos) return 0;  // neither "inf" nor an exponent
    double number = 0;
    const auto read = std::from_chars(text.data(), end, number, std::chars_format::fixed);
    if (read.ptr != end || text.empty()) return 0;
    if (read.ec == std::errc::result_out_of_range)  // hundreds of digits
        return text.starts_with('-') ? std::numeric_limits<std::int64_t>::min()
                                     : std::numeric_limits<std::int64_t>::max();
    return integerFromDouble(number);
}

PropertyArray arrayFromJSON(const json::array& items) {
    PropertyArray result;
    result.reserve(items.size());
    for (const auto& item : items)
        if (auto value = propertyValueFromJSON(item)) result.push_back(std::move(*value));
    return result;
}

PropertyDictionary dictionaryFromJSON(const json::object& entries) {
    PropertyDictionary result;
    for (const auto& entry : entries)
        if (auto value = propertyValueFromJSON(entry.value()))
            result.insert_or_assign(std::string(entry.key()), std::move(*value));
    return result;
}

json::value numberToJSON(double value) { return std::isfinite(value) ? json::value(value) : json::value(); }

}  // namespace

std::int64_t integerFromDouble(double value) {
    constexpr double limit = 9223372036854775808.0;  // 2^63
    if (std::isnan(value)) return 0;
    if (value >= limit) return std::numeric_limits<std::int64_t>::max();
    if (value < -limit) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(value);
}

bool PropertyValue::coerceToBool() const {
    return std::visit(Overloaded{[](bool value) { return value; }, [](std::int64_t value) { return value != 0; },
                                 [](double value) { return value != 0 && !std::isnan(value); },
                                 [](const std::string& text) {
                                     return text == "YES" || text == "yes" || text == "true" || text == "1";
                                 },
                                 [](const auto&) { return false; }},
                      _storage);
}

std::int64_t PropertyValue::coerceToInteger() const {
    return std::visit(
        Overloaded{[](bool value) { return std::int64_t{value}; }, [](std::int64_t value) { return value; },
                   [](double value) { return integerFromDouble(value); },
                   [](const std::string& text) { return integerFromText(text); },
                   [](const auto&) { return std::int64_t{0}; }},
        _storage);
}

std::optional<std::string> PropertyValue::coerceToString() const {
    if (const auto* text = as<std::string>()) return *text;
    if (const auto* integer = as<std::int64_t>()) return std::to_string(*integer);
    if (const auto* number = as<double>(); number && std::isfinite(*number)) return shortestDecimal(*number);
    return std::nullopt;
}

std::optional<PropertyValue> propertyValueFromJSON(const json::value& json) {
    switch (json.kind()) {
        case json::kind::null:
            return std::nullopt;
        case json::kind::bool_:
            return json.get_bool();
        case json::kind::int64:
            return json.get_int64();
        case json::kind::uint64: {
            const auto value = json.get_uint64();
            if (std::in_range<std::int64_t>(value)) return static_cast<std::int64_t>(value);
            return static_cast<double>(value);
        }
        case json::kind::double_:
            if (!std::isfinite(json.get_double())) return std::nullopt;
            return json.get_double();
        case json::kind::string:
            return PropertyValue(std::string_view(json.get_string()));
        case json::kind::array:
            return arrayFromJSON(json.get_array());
        case json::kind::object:
            return dictionaryFromJSON(json.get_object());
    }
    return std::nullopt;
}

json::value jsonFromPropertyValue(const PropertyValue& value) {
    return std::visit(Overloaded{[](bool boolean) { return json::value(boolean); },
                                 [](std::int64_t integer) { return json::value(integer); },
                                 [](double number) { return numberToJSON(number); },
                                 [](const std::string& text) { return json::value(text); },
                                 [](WallTime date) { return json::value(secondsSince1970(date)); },
                                 [](const PropertyData& data) { return json::value(encodedBase64(data.bytes)); },
                                 [](const PropertyArray& items) {
                                     json::array result;
                                     result.reserve(items.size());
                                     for (const auto& item : items) result.push_back(jsonFromPropertyValue(item));
                                     return json::value(std::move(result));
                                 },
                                 [](const PropertyDictionary& entries) {
                                     json::object result;
                                     result.reserve(entries.size());
                                     for (const auto& [key, item] : entries) result[key] = jsonFromPropertyValue(item);
                                     return json::value(std::move(result));
                                 }},
                      value.storage());
}

}  // namespace orvex::platform
