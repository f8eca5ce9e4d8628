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

    bool operator==(const URL&) const = default;
    [[nodiscard]] std::string absoluteString() const;
};

/// RFC 3986 as libcurl reads it. Refuses control characters, blanks, and more than 64 KiB.
Result<URL> parseURL(std::string_view text);

/// The rule for every URL that the daemon opens: `https`, or `http` to a loopback host (`localhost`, 127.0.0.0/8,
/// `[::1]`), without user or password. The failure's text says which part is refused.
Result<URL> parseAcceptableURL(std::string_view text);
[[nodiscard]] bool isLoopbackHost(std::string_view host);

/// The part of a host that its owner registered: "example.co.uk" of "www.example.co.uk", by the public suffix list of
/// the system. In lower case; none for an IP address, and for a public suffix itself.
[[nodiscard]] std::optional<std::string> registrableDomain(std::string_view host);

/// `reference` as seen from `base` (RFC 3986, section 5).
Result<URL> resolveURL(const URL& base, std::string_view reference);

/// Where a redirect from `from` to the Location `location` leads, unless it is refused: the rule for every URL, https
/// never to http, and to a loopback host from a loopback host only.
Result<URL> resolveRedirect(const URL& from, std::string_view location);

using QueryItem = std::pair<std::string, std::string>;

/// A raw query split at & and the first =, each part percent-decoded; a plus stays a plus, and so does a % without two
/// hexadecimal digits. An item without "=" has an empty value; empty items are left out. Decoded bytes may be any.
std::vector<QueryItem> decodeQuery(std::string_view query);

/// Everything but ASCII letters, digits and "-_.~", byte by byte in upper-case hexadecimal (RFC 3986, section 2.1).
std::string percentEncode(std::string_view text);

}  // namespace orvex::platform
