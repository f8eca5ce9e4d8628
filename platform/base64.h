#pragma once

#include <optional>
#include <string>
#include <string_view>

/// Base64 with padding (RFC 4648, section 4), without line ends.
namespace orvex::platform {

[[nodiscard]] std::string encodedBase64(std::string_view bytes);

/// The bytes of such a text; none where it is none. Defined in platform/linux.
[[nodiscard]] std::optional<std::string> decodedBase64(std::string_view text);

}  // namespace orvex::platform
