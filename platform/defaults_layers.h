#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/property_value.h"

namespace orvex::platform {

/// The order in which the settings of a domain hold: put over for this run, stored, registered. What every
/// `UserDefaults` is made of.
///
/// Threading: none of its own; its owner guards it.
class DefaultsLayers {
public:
    void registerValues(PropertyDictionary values);
    /// JSON `null` and what is no JSON is taken as text.
    void putOver(std::string key, std::string text);
    void setStored(PropertyDictionary values) { _stored = std::move(values); }
    [[nodiscard]] const PropertyDictionary& stored() const { return _stored; }

    [[nodiscard]] std::optional<PropertyValue> object(std::string_view key) const;
    [[nodiscard]] std::optional<std::string> string(std::string_view key) const;

private:
    struct Override {
        PropertyValue value;
        std::string text;
    };

    PropertyDictionary _registered;
    PropertyDictionary _stored;
    std::map<std::string, Override, std::less<>> _overrides;
};

}  // namespace orvex::platform
