#include "platform/defaults_layers.h"

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>

namespace orvex::platform {
namespace {

const PropertyValue* find(const PropertyDictionary& values, std::string_view key) {
    const auto found = values.find(key);
    return found == values.end() ? nullptr : &found->second;
}

}  // namespace

void DefaultsLayers::registerValues(PropertyDictionary values) {
    values.merge(_registered);  // keeps the new value where both have the key
    _registered = std::move(values);
}

void DefaultsLayers::putOver(std::string key, std::string text) {
    boost::json::error_code error;
    const auto json = boost::json::parse(text, error);
    auto value = error ? std::nullopt : propertyValueFromJSON(json);
    Override entry{value ? std::move(*value) : PropertyValue(text), std::move(text)};
    _overrides.insert_or_assign(std::move(key), std::move(entry));
}

std::optional<PropertyValue> DefaultsLayers::object(std::string_view key) const {
    if (const auto found = _overrides.find(key); found != _overrides.end()) return found->second.value;
    if (const auto* value = find(_stored, key)) return *value;
    if (const auto* value = find(_registered, key)) return *value;
    return std::nullopt;
}

std::optional<std::string> DefaultsLayers::string(std::string_view key) const {
    if (const auto found = _overrides.find(key); found != _overrides.end()) return found->second.text;
    if (const auto* value = find(_stored, key)) return value->coerceToString();
    if (const auto* value = find(_registered, key)) return value->coerceToString();
    return std::nullopt;
}

}  // namespace orvex::platform
