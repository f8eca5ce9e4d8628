#pragma once

#include <cstddef>
#include <expected>
#include <string>

#include "platform/file_manager.h"

namespace orvex::platform {

/// What is left to read, to the end; the error is an errno, EFBIG beyond `maxBytes`.
std::expected<std::string, int> readDescriptor(const FileDescriptor& file, std::size_t maxBytes);

/// A regular file anywhere on the system, symbolic links followed, as packages put it there. What is no regular file is
/// not waited for: ENXIO.
std::expected<std::string, int> readSystemFile(const std::string& path, std::size_t maxBytes);

}  // namespace orvex::platform
