#pragma once

#include <expected>
#include <string>
#include <utility>

namespace orvex::platform {

/// Why a platform call failed: `code` is the system's number where there is one (errno), else 0; `text` says what was
/// tried and why it failed, fit for a log line.
struct [[nodiscard]] Failure {
    int code = 0;
    std::string text;
};

template <class T>
using Result = std::expected<T, Failure>;

inline std::unexpected<Failure> failure(int code, std::string text) {
    return std::unexpected(Failure{code, std::move(text)});
}

}  // namespace orvex::platform
