#include "core/json.h"

#include <fmt/format.h>

#include <boost/json.hpp>
#include <cmath>

#include "platform/text.h"

namespace orvex {
namespace {

void append(std::string& text, const boost::json::value& json) {
    if (const auto* object = json.if_object()) {
        text += '{';
        for (const auto& [name, member] : *object) {
            if (text.back() != '{') text += ',';
            text += boost::json::serialize(boost::json::string_view(name)) + ':';
            append(text, member);
        }
        text += '}';
    } else if (const auto* array = json.if_array()) {
        text += '[';
        for (const auto& item : *array) {
            if (text.back() != '[') text += ',';
            append(text, item);
        }
        text += ']';
    } else if (json.is_double()) {
        text += decimalFromJSON(json).value_or("null");
    } else {
        text += boost::json::serialize(json);
    }
}

}  // namespace

platform::Result<boost::json::value> parseJSON(std::string_view text, std::size_t maxDepth,
                                               boost::json::storage_ptr storage) {
    boost::json::parse_options options;
    options.max_depth = maxDepth;
    boost::system::error_code error;
    try {
        auto value = boost::json::parse(text, error, std::move(storage), options);
        if (error) return platform::failure(error.value(), error.message());
        return value;
    } catch (const std::exception& exception) {  // out of memory, or a text beyond the library's sizes
        return platform::failure(0, exception.what());
    }
}

std::optional<double> numberFromJSON(const boost::json::value& json) {
    if (const auto* integer = json.if_int64()) return static_cast<double>(*integer);
    if (const auto* integer = json.if_uint64()) return static_cast<double>(*integer);
    const auto* number = json.if_double();
    return number && std::isfinite(*number) ? std::optional(*number) : std::nullopt;
}

std::optional<std::string> decimalFromJSON(const boost::json::value& json) {
    if (const auto* integer = json.if_int64()) return fmt::to_string(*integer);
    if (const auto* integer = json.if_uint64()) return fmt::to_string(*integer);
    const auto number = numberFromJSON(json);
    return number ? std::optional(platform::shortestDecimal(*number)) : std::nullopt;
}

std::string compactJSON(const boost::json::value& json) {
    std::string text;
    append(text, json);
    return text;
}

std::optional<std::string> stringMember(const boost::json::object& object, std::string_view name) {
    const auto* member = object.if_contains(name);
    const auto* text = member ? member->if_string() : nullptr;
    return text ? std::optional<std::string>(*text) : std::nullopt;
}

}  // namespace orvex
