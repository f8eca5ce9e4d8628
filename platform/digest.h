#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

/// Digests and checksums of bytes, defined in platform/linux. The functions are pure; an object belongs to one thread.
namespace orvex::platform {

/// The 16 bytes of RFC 1321; aborts where the system's library has no MD5.
[[nodiscard]] std::string md5(std::string_view bytes);

/// SHA-512 (FIPS 180-4) of what comes piece by piece. Aborts where the system's library has none.
class SHA512 {
public:
    SHA512();
    ~SHA512();
    SHA512(const SHA512&) = delete;
    SHA512& operator=(const SHA512&) = delete;

    void update(std::string_view bytes);
    [[nodiscard]] std::string finish();  ///< the 64 bytes; once, and nothing after it

private:
    struct Context;
    const std::unique_ptr<Context> _context;
};

/// CRC-32 as in RFC 1952, section 8.
[[nodiscard]] std::uint32_t crc32(std::string_view bytes);

}  // namespace orvex::platform
