#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/property_value.h"
#include "platform/result.h"

namespace orvex::platform {

/// The settings of one domain, by key. A value put over for this run wins over a stored one, a stored one over a
/// registered one. Reading is coerced: see `PropertyValue`.
///
/// Threading: callable from any thread. Another program's change to the stored values is seen soon after it is made.
/// Durability: `setObject` and `removeObject` have reached the disk when they return without an error.
class UserDefaults {
public:
    virtual ~UserDefaults() = default;

    /// Values that hold where nothing is stored. Registering again replaces key by key.
    virtual void registerDefaults(PropertyDictionary values) = 0;

    /// A value over the stored ones for this run: `text` is read as JSON, else taken as text; a key that is read as
    /// text gives `text` itself.
    virtual void overrideForThisRun(std::string key, std::string text) = 0;

    [[nodiscard]] virtual std::optional<PropertyValue> object(std::string_view key) const = 0;
    [[nodiscard]] virtual std::optional<std::string> string(std::string_view key) const = 0;
    [[nodiscard]] bool boolean(std::string_view key) const;
    [[nodiscard]] std::int64_t integer(std::string_view key) const;

    [[nodiscard]] virtual Result<void> setObject(std::string_view key, PropertyValue value) = 0;
    [[nodiscard]] virtual Result<void> removeObject(std::string_view key) = 0;
};

}  // namespace orvex::platform
