#include "platform/base64.h"

#include <cstdint>

namespace orvex::platform {

std::string encodedBase64(std::string_view bytes) {
    constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const auto octet = [&](std::size_t index) {
            return index < bytes.size() ? static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[index])) : 0u;
        };
        const std::uint32_t group = octet(at) << 16 | octet(at + 1) << 8 | octet(at + 2);
        for (const int shift : {18, 12, 6, 0}) text += alphabet[group >> shift & 63];
    }
    for (std::size_t padding = (3 - bytes.size() % 3) % 3; padding > 0; --padding) text[text.size() - padding] = '=';
    return text;
}

}  // namespace orvex::platform
