#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace orvex::platform {

/// The bytes of a padded base64 text (RFC 4648, section 4); none where it is no such text. Defined in platform/linux.
[[nodiscard]] std::optional<std::string> decodedBase64(std::string_view text);

}  // namespace orvex::platform
