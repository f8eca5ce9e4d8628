#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/result.h"

namespace orvex {

struct RunLengthPayload;

/// The signature of the installed whitelisted applications: base64 (RFC 4648, section 4) of
///
///     0   4  CRC-32 of everything from offset 4 on
///     4   1  bit 7: the bitmap is run-length coded; bits 6–0: those of the version's last byte but one
///     5   1  the version's last byte
///     6   2  length of the bitmap in bytes
///     8   4  the last four bytes of the bitmap's MD5
///     12  …  the bitmap, or its stream (run_length_code.h)
///
/// with numbers big-endian. An application's id is its bit in the bitmap, counted from the most significant bit of the
/// first byte. The bitmap has ceil(greatest id / 8) bytes, so a greatest id that is a multiple of 8 falls outside it
/// and is not told. The version 0a1b2c with the ids 3 and 9 gives "+eoP1xssAALtKoWbEEA=".
struct WhitelistSignature {
    /// The greatest id whose bitmap's length still fits its 16 bits.
    static constexpr std::uint32_t maxId = 524'279;
    static constexpr std::size_t minVersionDigits = 4;

    bool compressed = false;
    std::uint16_t version = 0;  ///< the version's last two bytes, without the highest bit
    std::string bitmap;

    [[nodiscard]] std::vector<std::uint32_t> ids() const;  ///< of the bits that are set, ascending
};

/// Of ids up to `maxId`, in any order and with repetitions.
[[nodiscard]] std::string whitelistBitmap(std::span<const std::uint32_t> ids);

/// `version` is hexadecimal digits, an even number of them and at least `minVersionDigits`; else there is none.
[[nodiscard]] std::optional<std::string> makeSignature(std::size_t bitmapBytes, const RunLengthPayload& payload,
                                                       std::string_view version);

/// What a signature says. The failure tells which part of it is wrong: the encoding, a length, the checksum, the
/// stream, the digest.
platform::Result<WhitelistSignature> checkSignature(std::string_view text);

}  // namespace orvex
