#include "core/whitelist_signature.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "core/run_length_code.h"
#include "platform/base64.h"
#include "platform/digest.h"

namespace orvex {
namespace {

constexpr std::size_t checksumBytes = 4;
constexpr std::size_t headerBytes = 4;  // after the checksum: version, bitmap length
constexpr std::uint32_t compressedFlag = 0x8000;

void appendBigEndian(std::string& bytes, std::uint32_t number, int width) {
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) bytes += static_cast<char>(number >> shift & 0xff);
}

std::uint32_t bigEndian(std::string_view bytes) {
    std::uint32_t number = 0;
    for (const char byte : bytes) number = number << 8 | static_cast<unsigned char>(byte);
    return number;
}

std::optional<std::uint32_t> lastTwoBytes(std::string_view version) {
    constexpr std::string_view digits = "0123456789abcdefABCDEF";
    if (version.size() % 2 != 0 || version.size() < WhitelistSignature::minVersionDigits) return std::nullopt;
    if (version.find_first_not_of(digits) != version.npos) return std::nullopt;
    std::uint32_t number = 0;
    std::from_chars(version.data() + version.size() - 4, version.data() + version.size(), number, 16);
    return number;
}

}  // namespace

std::vector<std::uint32_t> WhitelistSignature::ids() const {
    std::vector<std::uint32_t> found;
    for (std::uint32_t byte = 0; byte < bitmap.size(); ++byte)
        for (std::uint32_t bit = 0; bit < 8; ++bit)
            if ((static_cast<unsigned char>(bitmap[byte]) & 0x80u >> bit) != 0) found.push_back(byte * 8 + bit);
    return found;
}

std::string whitelistBitmap(std::span<const std::uint32_t> ids) {
    const std::uint32_t greatest = ids.empty() ? 0 : *std::ranges::max_element(ids);
    std::string bitmap((greatest + std::size_t{7}) / 8, '\0');
    for (const std::uint32_t id : ids)
        if (id / 8 < bitmap.size()) bitmap[id / 8] = static_cast<char>(bitmap[id / 8] | 0x80 >> id % 8);
    return bitmap;
}

std::optional<std::string> makeSignature(std::size_t bitmapBytes, const RunLengthPayload& payload,
                                         std::string_view version) {
    const auto number = lastTwoBytes(version);
    if (!number) return std::nullopt;
    std::string checked;
    appendBigEndian(checked, (*number & ~compressedFlag) | (payload.compressed ? compressedFlag : 0), 2);
    appendBigEndian(checked, static_cast<std::uint32_t>(bitmapBytes), 2);
    checked += payload.bytes;
    std::string signature;
    appendBigEndian(signature, platform::crc32(checked), checksumBytes);
    return platform::encodedBase64(signature + checked);
}

platform::Result<WhitelistSignature> checkSignature(std::string_view text) {
    const auto decoded = platform::decodedBase64(text);
    if (!decoded) return platform::failure(0, "not base64");
    const std::string_view bytes = *decoded;
    constexpr std::size_t least = checksumBytes + headerBytes + RunLengthPayload::digestBytes;
    if (bytes.size() < least) return platform::failure(0, fmt::format("{} bytes are no signature", bytes.size()));
    if (bigEndian(bytes.substr(0, checksumBytes)) != platform::crc32(bytes.substr(checksumBytes)))
        return platform::failure(0, "the checksum is wrong");

    const std::uint32_t flagAndVersion = bigEndian(bytes.substr(checksumBytes, 2));
    const std::size_t bitmapBytes = bigEndian(bytes.substr(checksumBytes + 2, 2));
    const std::string_view digest = bytes.substr(checksumBytes + headerBytes, RunLengthPayload::digestBytes);
    const std::string_view payload = bytes.substr(least);
    WhitelistSignature signature{.compressed = (flagAndVersion & compressedFlag) != 0,
                                 .version = static_cast<std::uint16_t>(flagAndVersion & ~compressedFlag),
                                 .bitmap = std::string(payload)};
    if (signature.compressed) {
        auto bitmap = rle_expand(payload, bitmapBytes);
        if (!bitmap) return platform::failure(0, fmt::format("no run-length stream of {} bytes", bitmapBytes));
        signature.bitmap = *std::move(bitmap);
    }
    if (signature.bitmap.size() != bitmapBytes)
        return platform::failure(0, fmt::format("a bitmap of {} bytes, not {}", signature.bitmap.size(), bitmapBytes));
    if (!platform::md5(signature.bitmap).ends_with(digest)) return platform::failure(0, "the digest is wrong");
    return signature;
}

}  // namespace orvex
