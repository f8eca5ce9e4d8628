#pragma once

#include <string>
#include <string_view>

#include "platform/property_value.h"
#include "platform/result.h"

/// Property lists in their binary and XML forms. Hostile bytes are refused before they are parsed: more than
/// `maxPropertyListBytes`, a nesting deeper than 64, or a binary list whose shared references would expand to more than
/// 262,144 objects.
namespace orvex::platform {

inline constexpr std::size_t maxPropertyListBytes = std::size_t{4} << 20;

Result<PropertyValue> parsePropertyList(std::string_view bytes);

/// Fails on a double that is not finite and on text with a zero byte. XML keeps whole seconds of a date.
Result<std::string> writeBinaryPropertyList(const PropertyValue& value);
Result<std::string> writeXMLPropertyList(const PropertyValue& value);

}  // namespace orvex::platform
