#include "core/page_url.h"

#include <string_view>

namespace orvex {
namespace {

/// Takes `beginning` off `text` if it begins so.
bool take(std::string_view& text, std::string_view beginning) {
    if (!text.starts_with(beginning)) return false;
    text.remove_prefix(beginning.size());
    return true;
}

/// A host as a cache writes it in front of its own.
std::string cacheLabel(std::string_view host) {
    std::string label;
    for (const char character : host) {
        if (character == '-') label += '-';
        label += character == '.' ? '-' : character;
    }
    return label;
}

/// `rest` is [s/]HOST[/PATH], with the query of `outer`.
std::optional<platform::URL> embeddedURL(std::string_view rest, const platform::URL& outer) {
    std::string text = take(rest, "s/") ? "https://" : "http://";
    text += rest;
    if (outer.query) text += "?" + *outer.query;
    auto url = platform::parseURL(text);
    if (!url || !platform::registrableDomain(url->host)) return std::nullopt;
    return *std::move(url);
}

}  // namespace

std::optional<platform::URL> componentsForEmbeddedAMPURL(const platform::URL& url) {
    std::string_view path = url.path;
    if (take(path, "/amp/")) return embeddedURL(path, url);
    if (!take(path, "/c/") && !take(path, "/v/")) return std::nullopt;
    auto page = embeddedURL(path, url);
    const auto label = std::string_view(url.host).substr(0, url.host.find('.'));
    if (page && (label == "cdn" || label == cacheLabel(page->host))) return page;
    return std::nullopt;
}

std::string normalizedURLStringForTLDFeatures(const platform::URL& url) {
    return platform::registrableDomain(url.host).value_or(url.host);
}

}  // namespace orvex
