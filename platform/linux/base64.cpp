#include "platform/base64.h"

#include <openssl/evp.h>

#include <algorithm>
#include <climits>

namespace orvex::platform {

std::optional<std::string> decodedBase64(std::string_view text) {
    if (text.size() % 4 != 0 || text.size() > INT_MAX) return std::nullopt;
    if (text.empty()) return std::string();
    const auto padding = static_cast<std::size_t>(std::ranges::count(text.substr(text.size() - 2), '='));
    std::string bytes(text.size() / 4 * 3, '\0');
    const int length =
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                        reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    // It passes over blanks at the ends, which then make the result too short.
    if (length < 0 || static_cast<std::size_t>(length) != bytes.size()) return std::nullopt;
    bytes.resize(bytes.size() - padding);
    return bytes;
}

}  // namespace orvex::platform
