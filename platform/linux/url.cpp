#include "platform/linux/curl_url.h"

#include <arpa/inet.h>
#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

// libcurl connects to what it reads in a URL's text, so nothing is read here with any other eyes: a host that this file
// takes for a public one must be public to libcurl too. Paths are kept as written, and transfers take the parse made
// here, for the same reason.

namespace orvex::platform {
namespace {

constexpr std::size_t maxURLBytes = 64u << 10;

std::optional<std::string> part(const CurlURLHandle& handle, CURLUPart which) {
    char* text = nullptr;
    if (curl_url_get(handle.get(), which, &text, 0) != CURLUE_OK) return std::nullopt;
    const std::unique_ptr<char, decltype(&curl_free)> owned(text, &curl_free);
    return std::string(text);
}

std::string asciiLowerCase(std::string text) {
    for (char& c : text)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return text;
}

Result<void> checkText(std::string_view text) {
    if (text.size() > maxURLBytes) return failure(0, fmt::format("a URL of {} bytes is too long", text.size()));
    const bool clean = std::ranges::all_of(text, [](unsigned char c) { return c > 0x20 && c != 0x7f; });
    if (!clean) return failure(0, "a URL with a blank or a control character");
    return {};
}

std::string hostWithZone(const CurlURLHandle& handle) {
    std::string host = asciiLowerCase(part(handle, CURLUPART_HOST).value_or(""));
    if (const auto zone = part(handle, CURLUPART_ZONEID); zone && host.ends_with(']'))
        host.insert(host.size() - 1, "%25" + *zone);
    return host;
}

URL read(const CurlURLHandle& handle) {
    URL url;
    url.scheme = asciiLowerCase(part(handle, CURLUPART_SCHEME).value_or(""));
    url.user = part(handle, CURLUPART_USER).value_or("");
    url.password = part(handle, CURLUPART_PASSWORD).value_or("");
    url.host = hostWithZone(handle);
    url.port = part(handle, CURLUPART_PORT).value_or("");
    url.path = part(handle, CURLUPART_PATH).value_or("/");
    url.query = part(handle, CURLUPART_QUERY);
    url.fragment = part(handle, CURLUPART_FRAGMENT).value_or("");
    return url;
}

Result<CurlURLHandle> parse(std::string_view text) {
    if (auto checked = checkText(text); !checked) return std::unexpected(checked.error());
    CurlURLHandle handle(curl_url());
    const unsigned flags = CURLU_NON_SUPPORT_SCHEME | CURLU_PATH_AS_IS;
    if (const CURLUcode code = curl_url_set(handle.get(), CURLUPART_URL, std::string(text).c_str(), flags);
        code != CURLUE_OK)
        return failure(code, fmt::format("not a URL: {}", curl_url_strerror(code)));
    return handle;
}

/// libcurl decodes escapes in a host each time it reads one. A host with an escape left in it would become another one
/// the next time, after it was checked.
Result<URL> readChecked(const CurlURLHandle& handle) {
    URL url = read(handle);
    if (!url.host.starts_with('[') && url.host.find('%') != std::string::npos)
        return failure(0, "not a URL: an escape within an escape in the host");
    return url;
}

bool isLoopback(const in_addr& address) { return (ntohl(address.s_addr) >> 24) == 127; }

/// Hosts beyond `isLoopbackHost` that end on this machine all the same: libcurl gives names below "localhost" its
/// address (RFC 6761), and Linux connects "this host" (0.0.0.0/8, `[::]`) and IPv4 within IPv6 to itself.
bool isLoopbackInDisguise(std::string_view host) {
    if (host.ends_with('.')) host.remove_suffix(1);
    if (host == "localhost" || host.ends_with(".localhost")) return true;
    const std::string text(host.starts_with('[') ? host.substr(1, host.find_first_of("%]") - 1) : host);
    in_addr v4{};
    if (inet_pton(AF_INET, text.c_str(), &v4) == 1) return isLoopback(v4) || (ntohl(v4.s_addr) >> 24) == 0;
    in6_addr v6{};
    if (inet_pton(AF_INET6, text.c_str(), &v6) != 1) return false;
    std::memcpy(&v4, &v6.s6_addr[12], sizeof v4);
    const bool holdsV4 = IN6_IS_ADDR_V4MAPPED(&v6) || IN6_IS_ADDR_V4COMPAT(&v6);
    return IN6_IS_ADDR_LOOPBACK(&v6) || IN6_IS_ADDR_UNSPECIFIED(&v6) || (holdsV4 && isLoopback(v4));
}

/// By byte: what RFC 3986 calls so.
constexpr auto unreserved = [] {
    std::array<bool, 256> table{};
    for (const unsigned char c : std::string_view("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.~"))
        table[c] = true;
    return table;
}();

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

/// An escape that is not one stays as it is.
std::string percentDecode(std::string_view text) {
    if (!text.contains('%')) return std::string(text);
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool escape =
            text[i] == '%' && i + 2 < text.size() && hexDigit(text[i + 1]) >= 0 && hexDigit(text[i + 2]) >= 0;
        decoded += escape ? static_cast<char>(hexDigit(text[i + 1]) * 16 + hexDigit(text[i + 2])) : text[i];
        if (escape) i += 2;
    }
    return decoded;
}

}  // namespace

std::string URL::absoluteString() const {
    std::string text;
    text.reserve(scheme.size() + host.size() + port.size() + path.size() + (query ? query->size() : 0) + 8);
    text.append(scheme).append("://");
    if (!user.empty() || !password.empty()) {
        text += user;
        if (!password.empty()) text += ":" + password;
        text += "@";
    }
    text += host;
    if (!port.empty()) text += ":" + port;
    text += path;
    if (query) text.append("?").append(*query);
    if (!fragment.empty()) text += "#" + fragment;
    return text;
}

Result<URL> parseURL(std::string_view text) {
    const auto handle = parse(text);
    if (!handle) return std::unexpected(handle.error());
    return readChecked(*handle);
}

Result<AcceptedURL> acceptURL(std::string_view text) {
    auto handle = parse(text);
    if (!handle) return std::unexpected(handle.error());
    auto url = readChecked(*handle);
    if (!url) return std::unexpected(url.error());
    if (url->scheme != "https" && url->scheme != "http")
        return failure(0, fmt::format("the scheme {} is refused", url->scheme));
    if (!url->user.empty() || !url->password.empty()) return failure(0, "a URL with user or password is refused");
    if (url->host.empty()) return failure(0, "a URL without host is refused");
    if (url->scheme == "http" && !isLoopbackHost(url->host))
        return failure(0, fmt::format("the scheme http is refused for the host {}", url->host));
    return AcceptedURL{.url = *std::move(url), .handle = *std::move(handle)};
}

Result<URL> parseAcceptableURL(std::string_view text) {
    auto accepted = acceptURL(text);
    if (!accepted) return std::unexpected(accepted.error());
    return std::move(accepted->url);
}

bool isLoopbackHost(std::string_view host) {
    const std::string text = asciiLowerCase(std::string(host));
    if (text == "localhost") return true;
    if (text.starts_with('[') && text.ends_with(']')) {
        in6_addr address{};
        return inet_pton(AF_INET6, text.substr(1, text.size() - 2).c_str(), &address) == 1 &&
               IN6_IS_ADDR_LOOPBACK(&address);
    }
    in_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1 && isLoopback(address);
}

Result<URL> resolveURL(const URL& base, std::string_view reference) {
    if (auto checked = checkText(reference); !checked) return std::unexpected(checked.error());
    URL start = base;
    start.fragment.clear();
    if (reference.empty()) return start;

    const CurlURLHandle handle(curl_url());
    CURLUcode code = curl_url_set(handle.get(), CURLUPART_URL, start.absoluteString().c_str(),
                                  CURLU_NON_SUPPORT_SCHEME | CURLU_PATH_AS_IS);
    if (code == CURLUE_OK)
        code = curl_url_set(handle.get(), CURLUPART_URL, std::string(reference).c_str(), CURLU_NON_SUPPORT_SCHEME);
    if (code != CURLUE_OK) return failure(code, fmt::format("not a URL reference: {}", curl_url_strerror(code)));
    return readChecked(handle);
}

Result<AcceptedURL> acceptRedirect(const URL& from, std::string_view location) {
    const auto target = resolveURL(from, location);
    if (!target) return std::unexpected(target.error());
    auto accepted = acceptURL(target->absoluteString());
    if (!accepted) return accepted;
    if (from.scheme == "https" && accepted->url.scheme != "https")
        return failure(0, "a redirect from https to http is refused");
    const std::string& host = accepted->url.host;
    const bool toThisHost = isLoopbackHost(host) || isLoopbackInDisguise(host);
    if (toThisHost && !isLoopbackHost(from.host)) return failure(0, "a redirect to a loopback host is refused");
    return accepted;
}

Result<URL> resolveRedirect(const URL& from, std::string_view location) {
    auto accepted = acceptRedirect(from, location);
    if (!accepted) return std::unexpected(accepted.error());
    return std::move(accepted->url);
}

std::vector<QueryItem> decodeQuery(std::string_view query) {
    std::vector<QueryItem> items;
    while (!query.empty()) {
        const auto item = query.substr(0, query.find('&'));
        query.remove_prefix(std::min(item.size() + 1, query.size()));
        if (item.empty()) continue;
        const std::size_t equals = item.find('=');
        items.emplace_back(percentDecode(item.substr(0, equals)),
                           equals == std::string_view::npos ? "" : percentDecode(item.substr(equals + 1)));
    }
    return items;
}

std::string percentEncode(std::string_view text) {
    static constexpr std::string_view digits = "0123456789ABCDEF";
    std::size_t escapes = 0;
    for (const char c : text) escapes += unreserved[static_cast<unsigned char>(c)] ? 0 : 1;
    std::string encoded(text);
    if (escapes == 0) return encoded;
    encoded.resize(text.size() + 2 * escapes);
    auto to = encoded.begin();
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (unreserved[byte]) {
            *to++ = c;
        } else {
            *to++ = '%';
            *to++ = digits[byte >> 4];
            *to++ = digits[byte & 15];
        }
    }
    return encoded;
}

}  // namespace orvex::platform
