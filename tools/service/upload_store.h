#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/result.h"
#include "tools/service/http_server.h"

namespace orvex {

/// Takes uploads: inflates them, checks their digest, and keeps each as `upload.N.body` (inflated) and `upload.N.json`
/// (path, items, headers, size). The second appears last and each at once and whole, so a reader waits for it.
///
/// Numbers go on after those that the directory holds. Without a directory uploads are checked only.
/// Threading: callable from any thread.
class UploadStore {
public:
    static constexpr std::size_t maxBodyBytes = 512u << 20;

    explicit UploadStore(std::string directory);

    struct Upload {
        std::string body;  ///< inflated
        std::string digest;
    };
    /// Fails with code 400, and what is wrong.
    [[nodiscard]] static platform::Result<Upload> checked(const ServerRequest& request);
    /// Fails with code 500 when it could not be written. Nothing is synced.
    platform::Result<void> keep(const ServerRequest& request, const Upload& upload);

private:
    platform::Result<void> _write(const std::string& name, std::string_view content) const;

    const std::string _directory;
    std::atomic<std::uint64_t> _next = 1;
};

}  // namespace orvex
