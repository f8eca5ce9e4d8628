#include "tools/service/upload_store.h"

#include <fmt/core.h>

#include <algorithm>
#include <boost/json.hpp>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "core/compressed_output_stream.h"

namespace orvex {
namespace {

namespace json = boost::json;

json::array pairsAsJSON(const std::vector<platform::QueryItem>& pairs) {
    json::array list;
    for (const auto& [name, value] : pairs) list.push_back({name, value});
    return list;
}

}  // namespace

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

platform::Result<UploadStore::Upload> UploadStore::checked(const ServerRequest& request) {
    auto body = inflated(request.body, maxBodyBytes);
    if (!body) return platform::failure(400, "the body does not inflate: " + body.error().text);
    std::string digest = uploadDigest(*body);
    if (request.header("X-Kelvar-Digest") != digest)
        return platform::failure(400, fmt::format("the digest does not fit the body, whose own is {}", digest));
    return Upload{*std::move(body), std::move(digest)};
}

platform::Result<void> UploadStore::keep(const ServerRequest& request, const Upload& upload) {
    if (_directory.empty()) return {};
    const std::string name = fmt::format("upload.{}", _next++);
    const json::object description = {
        {"path", request.path},    {"items", pairsAsJSON(request.items)},   {"headers", pairsAsJSON(request.headers)},
        {"digest", upload.digest}, {"deflated_bytes", request.body.size()}, {"bytes", upload.body.size()}};
    if (auto written = _write(name + ".body", upload.body); !written) return written;
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
