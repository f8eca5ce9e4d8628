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

struct SHA512::Context {
    EVP_MD_CTX* handle = EVP_MD_CTX_new();

    Context() = default;
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    ~Context() { EVP_MD_CTX_free(handle); }
};

SHA512::SHA512() : _context(std::make_unique<Context>()) {
    if (EVP_DigestInit_ex(_context->handle, EVP_sha512(), nullptr) != 1) std::abort();
}

SHA512::~SHA512() = default;

void SHA512::update(std::string_view bytes) {
    if (EVP_DigestUpdate(_context->handle, bytes.data(), bytes.size()) != 1) std::abort();
}

std::string SHA512::finish() {
    std::string digest(64, '\0');
    auto* bytes = reinterpret_cast<unsigned char*>(digest.data());
    if (EVP_DigestFinal_ex(_context->handle, bytes, nullptr) != 1) std::abort();
    return digest;
}

std::uint32_t crc32(std::string_view bytes) {
    return static_cast<std::uint32_t>(::crc32_z(0, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
}

}  // namespace orvex::platform
