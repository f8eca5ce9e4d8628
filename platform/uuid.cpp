#include "platform/uuid.h"

#include <fmt/format.h>

#include <array>
#include <cstdint>
#include <random>

namespace orvex::platform {

std::string newUUIDString() {
    std::random_device kernel("getentropy");
    std::array<std::uint32_t, 4> words;
    for (auto& word : words) word = kernel();
    words[1] = (words[1] & 0xFFFF'0FFF) | 0x0000'4000;  // version 4
    words[2] = (words[2] & 0x3FFF'FFFF) | 0x8000'0000;  // the variant of RFC 9562
    return fmt::format("{:08X}-{:04X}-{:04X}-{:04X}-{:04X}{:08X}", words[0], words[1] >> 16, words[1] & 0xFFFF,
                       words[2] >> 16, words[2] & 0xFFFF, words[3]);
}

}  // namespace orvex::platform
