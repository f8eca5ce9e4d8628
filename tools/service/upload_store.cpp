#include "tools/service/upload_store.h"

#include <fmt/core.h>
#include <openssl/evp.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <boost/json.hpp>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <memory>
#include <system_error>

namespace orvex {
namespace {

namespace json = boost::json;

constexpr int rawDeflate = -15, level = 6, memoryLevel = 8;
constexpr std::size_t pieceBytes = 8192, passBytes = 4096;

Bytef* bytesOf(std::string_view text) { return reinterpret_cast<Bytef*>(const_cast<char*>(text.data())); }

struct Inflater {
    z_stream stream{};
    Inflater() { inflateInit2(&stream, rawDeflate); }
    ~Inflater() { inflateEnd(&stream); }
};

struct Deflater {
    z_stream stream{};
    Deflater() { deflateInit2(&stream, level, Z_DEFLATED, rawDeflate, memoryLevel, Z_DEFAULT_STRATEGY); }
    ~Deflater() { deflateEnd(&stream); }
};

std::string hexadecimal(const unsigned char* bytes, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) text += fmt::format("{:02x}", bytes[i]);
    return text;
}

json::array pairsAsJSON(const std::vector<platform::QueryItem>& pairs) {
    json::array list;
    for (const auto& [name, value] : pairs) list.push_back({name, value});
    return list;
}

}  // namespace

platform::Result<std::string> inflated(std::string_view deflated, std::size_t maxBytes) {
    Inflater inflater;
    std::string body;
    std::array<char, 65536> block;
    inflater.stream.next_in = bytesOf(deflated);
    inflater.stream.avail_in = static_cast<uInt>(deflated.size());
    for (int status = Z_OK; status != Z_STREAM_END;) {
        inflater.stream.next_out = bytesOf({block.data(), block.size()});
        inflater.stream.avail_out = block.size();
        status = inflate(&inflater.stream, Z_NO_FLUSH);
        if (status == Z_BUF_ERROR) return platform::failure(400, "the body ends in the middle of its deflate stream");
        if (status != Z_OK && status != Z_STREAM_END) return platform::failure(400, "the body is no raw deflate");
        body.append(block.data(), block.size() - inflater.stream.avail_out);
        if (body.size() > maxBytes)
            return platform::failure(400, fmt::format("the body inflates to over {} bytes", maxBytes));
    }
    if (inflater.stream.avail_in > 0)
        return platform::failure(400, "there is more after the end of the deflate stream");
    return body;
}

std::string uploadDigest(std::string_view body) {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> digest(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    EVP_DigestInit_ex(digest.get(), EVP_sha512(), nullptr);
    Deflater deflater;
    std::array<char, passBytes> output;
    for (std::string_view rest = body; !rest.empty();) {
        const std::string_view piece = rest.substr(0, pieceBytes);
        rest.remove_prefix(piece.size());
        deflater.stream.next_in = bytesOf(piece);
        deflater.stream.avail_in = static_cast<uInt>(piece.size());
        while (deflater.stream.avail_in > 0) {
            EVP_DigestUpdate(digest.get(), piece.data(), piece.size());
            deflater.stream.next_out = bytesOf({output.data(), output.size()});
            deflater.stream.avail_out = output.size();
            deflate(&deflater.stream, Z_NO_FLUSH);
        }
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> result;
    unsigned size = 0;
    EVP_DigestFinal_ex(digest.get(), result.data(), &size);
    return hexadecimal(result.data(), size);
}

UploadStore::UploadStore(std::string directory) : _directory(std::move(directory)) {
    if (_directory.empty()) return;
    constexpr std::string_view beginning = "upload.";
    std::error_code error;
    for (const auto& file : std::filesystem::directory_iterator(_directory, error)) {
        const std::string name = file.path().filename();
        std::uint64_t number = 0;
        if (name.starts_with(beginning))
            std::from_chars(name.data() + beginning.size(), name.data() + name.size(), number);
        _next = std::max(_next.load(), number + 1);
    }
}

platform::Result<void> UploadStore::take(const ServerRequest& request) {
    const auto body = inflated(request.body, maxBodyBytes);
    if (!body) return std::unexpected(body.error());
    const std::string digest = uploadDigest(*body);
    if (request.header("X-Kelvar-Digest") != digest)
        return platform::failure(400, fmt::format("the digest does not fit the body, whose own is {}", digest));
    if (_directory.empty()) return {};
    const std::string name = fmt::format("upload.{}", _next++);
    const json::object description = {
        {"path", request.path}, {"items", pairsAsJSON(request.items)},   {"headers", pairsAsJSON(request.headers)},
        {"digest", digest},     {"deflated_bytes", request.body.size()}, {"bytes", body->size()}};
    if (auto written = _write(name + ".body", *body); !written) return written;
    return _write(name + ".json", json::serialize(description));
}

platform::Result<void> UploadStore::_write(const std::string& name, std::string_view content) const {
    const std::filesystem::path directory = _directory;
    const auto draft = directory / fmt::format(".{}.draft", name);
    std::ofstream file(draft, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    std::error_code error;
    if (file) std::filesystem::rename(draft, directory / name, error);
    if (!file || error) return platform::failure(500, fmt::format("cannot write {} in {}", name, _directory));
    return {};
}

}  // namespace orvex
