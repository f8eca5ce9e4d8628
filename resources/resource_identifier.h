#pragma once

#include <string_view>

namespace orvex {

/// Whether this may name a resource, which is also the name of its file in the caches directory: 1 to 128 of ASCII
/// letters, digits, "._-", the first no "." or "-", and no name of the daemon's own files there. Asked before an
/// identifier is used, wherever it comes from; a refused one is logged as an error and counted.
[[nodiscard]] bool isAcceptableResourceIdentifier(std::string_view identifier);

}  // namespace orvex
