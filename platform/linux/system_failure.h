#pragma once

#include <fmt/core.h>

#include <cerrno>
#include <cstring>

#include "platform/result.h"

namespace orvex::platform {

/// "cannot WHAT: WHY", with the system's own words for `code` (an errno).
inline std::unexpected<Failure> systemFailure(int code, std::string_view what) {
    const char* why = strerrordesc_np(code);  // strerror is not safe between threads
    return failure(code, fmt::format("cannot {}: {}", what, why ? why : "unknown error"));
}

}  // namespace orvex::platform
