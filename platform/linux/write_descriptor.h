#pragma once

#include <string_view>

namespace orvex::platform {

/// Writes all of it; 0, or the errno of the write that failed, with a part of the bytes written.
int writeAll(int file, std::string_view bytes);

/// 0, or the errno. Some file systems have no sync of a directory and say EINVAL; there is nothing more to do there.
int syncDirectory(int directory);

}  // namespace orvex::platform
