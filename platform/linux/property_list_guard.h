#pragma once

#include <cstdint>
#include <string_view>

#include "platform/result.h"

/// What a property list must keep to before its bytes may reach the parser, which trusts them.
namespace orvex::platform {

inline constexpr std::uint32_t maxPropertyListDepth = 64;         ///< arrays and dictionaries within each other
inline constexpr std::uint64_t maxPropertyListObjects = 262'144;  ///< with every shared reference counted anew
inline constexpr std::uint64_t maxPropertyListPayload = std::uint64_t{64} << 20;  ///< bytes of text and data, likewise

[[nodiscard]] bool isBinaryPropertyList(std::string_view bytes);

/// Walks a binary list from its root: every reference and length stays within the file, no reference leads back to
/// where it came from, keys are text, text has no zero byte, and the limits above hold.
Result<void> checkBinaryPropertyList(std::string_view bytes);

/// Reads the tags of an XML list: only known elements, each closed where it must be, no document type of its own, and
/// the limits above.
Result<void> checkXMLPropertyList(std::string_view bytes);

}  // namespace orvex::platform
