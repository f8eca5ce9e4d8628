#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// Digests and checksums of bytes. Pure functions, defined in platform/linux.
namespace orvex::platform {

/// The 16 bytes of RFC 1321; aborts where the system's library has no MD5.
[[nodiscard]] std::string md5(std::string_view bytes);

/// CRC-32 as in RFC 1952, section 8.
[[nodiscard]] std::uint32_t crc32(std::string_view bytes);

}  // namespace orvex::platform
