#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/result.h"

/// URLs, parsed by the very parser that also connects (libcurl's), so that what was checked is what is opened. Pure
/// functions; defined in platform/linux.
namespace orvex::platform {

struct URL {
    std::string scheme;  ///< lower case
    std::string user;
    std::string password;
    std::string host;                  ///< as written but lower case; an IPv6 address in brackets
    std::string port;                  ///< digits, empty when not given
    std::string path;                  ///< as written, at least "/"
    std::optional<std::string> query;  ///< as written, without the "?"
    std::string fragment;

    [[nodiscard]] std::string absoluteString() const;
};

/// RFC 3986 as libcurl reads it. Refuses control characters, blanks, and more than 64 KiB.
Result<URL> parseURL(std::string_view text);

/// The rule for every URL that the daemon opens: `https`, or `http` to a loopback host (`localhost`, 127.0.0.0/8,
/// `[::1]`), without user or password. The failure's text says which part is refused.
Result<URL> parseAcceptableURL(std::string_view text);
[[nodiscard]] bool isLoopbackHost(std::string_view host);

/// `reference` as seen from `base` (RFC 3986, section 5).
Result<URL> resolveURL(const URL& base, std::string_view reference);

using QueryItem = std::pair<std::string, std::string>;

/// A raw query split at & and =, each part percent-decoded; a plus stays a plus. A part without "=" has an empty value.
std::vector<QueryItem> decodeQuery(std::string_view query);

/// Everything but ASCII letters, digits and "-_.~", byte by byte in upper-case hexadecimal (RFC 3986, section 2.1).
std::string percentEncode(std::string_view text);

}  // namespace orvex::platform
