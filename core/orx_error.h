#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace orvex {

inline constexpr std::string_view kORXErrorDomain = "ORXErrorDomain";
inline constexpr std::string_view kORXURLErrorDomain = "ORXURLErrorDomain";
inline constexpr std::string_view kORXPOSIXErrorDomain = "ORXPOSIXErrorDomain";  ///< errno; 0 when it is not known

/// Codes of `kORXErrorDomain`.
enum class ORXErrorCode : std::int64_t {
    timeout = 1,  ///< no bag in time, or no user agent to ask one for
    bagFetch = 2,
    notFound = 404,
    internal = 500,
};

/// An error as it goes to clients and into records: a domain, a code of that domain, and a reason for people.
struct ORXError {
    std::string domain;
    std::int64_t code = 0;
    std::optional<std::string> reason;

    ORXError(ORXErrorCode ownCode, std::string why)
        : domain(kORXErrorDomain),
          code(static_cast<std::int64_t>(ownCode)),
          reason(std::move(why)) {}
    ORXError(std::string_view errorDomain, std::int64_t errorCode, std::optional<std::string> why)
        : domain(errorDomain),
          code(errorCode),
          reason(std::move(why)) {}

    bool operator==(const ORXError&) const = default;

    /// "domain code (reason)", for a log line.
    [[nodiscard]] std::string description() const;
};

}  // namespace orvex
