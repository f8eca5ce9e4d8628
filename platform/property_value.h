#pragma once

#include <boost/json/fwd.hpp>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/clock.h"

namespace orvex::platform {

class PropertyValue;
using PropertyArray = std::vector<PropertyValue>;
using PropertyDictionary = std::map<std::string, PropertyValue, std::less<>>;

struct PropertyData {
    std::string bytes;
    bool operator==(const PropertyData&) const = default;
};

/// A value of the user defaults and of property lists: boolean, integer, double, string, date, data, array, dictionary.
/// A plain value; compares by content. There is no null: what would be null is left out.
class PropertyValue {
public:
    using Storage = std::variant<bool, std::int64_t, double, std::string, WallTime, PropertyData, PropertyArray,
                                 PropertyDictionary>;

    PropertyValue(bool value) : _storage(value) {}
    PropertyValue(std::int64_t value) : _storage(value) {}
    PropertyValue(int value) : _storage(std::int64_t{value}) {}
    PropertyValue(double value) : _storage(value) {}
    PropertyValue(std::string value) : _storage(std::move(value)) {}
    PropertyValue(std::string_view value) : _storage(std::string(value)) {}
    PropertyValue(const char* value) : _storage(std::string(value)) {}
    PropertyValue(WallTime value) : _storage(value) {}
    PropertyValue(PropertyData value) : _storage(std::move(value)) {}
    PropertyValue(PropertyArray value) : _storage(std::move(value)) {}
    PropertyValue(PropertyDictionary value) : _storage(std::move(value)) {}

    /// The value when it is of that very type, else null.
    template <class T>
    [[nodiscard]] const T* as() const {
        return std::get_if<T>(&_storage);
    }
    [[nodiscard]] const Storage& storage() const { return _storage; }
    bool operator==(const PropertyValue&) const = default;

    // Coercions, one rule for all who read settings.
    [[nodiscard]] bool coerceToBool() const;             ///< a boolean, a number other than 0, or YES, yes, true, 1
    [[nodiscard]] std::int64_t coerceToInteger() const;  ///< a number cut, a boolean, decimal text cut; else 0
    [[nodiscard]] std::optional<std::string> coerceToString() const;  ///< text, or a number in decimal

private:
    Storage _storage;
};

/// Cut towards zero; saturates at what an int64 can hold; NaN is 0. For every double that comes from outside.
[[nodiscard]] std::int64_t integerFromDouble(double value);

/// JSON to property value. A null within an array or an object is left out; a null itself, and a number that is not
/// finite, is none. An unsigned integer beyond int64 becomes a double.
std::optional<PropertyValue> propertyValueFromJSON(const boost::json::value& json);

/// Property value to JSON, for a value that came from there. A date becomes its seconds since 1970, data becomes
/// base64 (RFC 4648, section 4), a number that is not finite null.
boost::json::value jsonFromPropertyValue(const PropertyValue& value);

}  // namespace orvex::platform
