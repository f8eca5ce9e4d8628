#include "platform/digest.h"

#include <openssl/evp.h>
#include <zlib.h>

#include <cstdlib>

namespace orvex::platform {

std::string md5(std::string_view bytes) {
    std::string digest(16, '\0');
    if (EVP_Digest(bytes.data(), bytes.size(), reinterpret_cast<unsigned char*>(digest.data()), nullptr, EVP_md5(),
                   nullptr) != 1)
        std::abort();
    return digest;
}

std::uint32_t crc32(std::string_view bytes) {
    return static_cast<std::uint32_t>(::crc32_z(0, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
}

}  // namespace orvex::platform
