#include "resources/download_resource.h"

#include <map>
#include <ranges>

#include "core/constants.h"
#include "platform/url.h"
#include "resources/lookup.h"

namespace orvex {
namespace {

constexpr std::string_view keyItem = "key";
constexpr std::string_view versionItem = "version";
constexpr std::string_view urlEntry = "url";
constexpr std::string_view redirectEntry = "redirect_url";

/// The raw query without the items of that name; none when nothing is left.
std::optional<std::string> queryWithout(std::string_view query, std::string_view name) {
    std::string kept;
    for (const auto range : std::views::split(query, '&')) {
        const std::string_view item(range.begin(), range.end());
        const auto decoded = platform::decodeQuery(item);
        if (decoded.empty() || decoded.front().first == name) continue;
        if (!kept.empty()) kept += '&';
        kept += item;
    }
    return kept.empty() ? std::nullopt : std::optional(std::move(kept));
}

/// As a request has them: sorted, of one name the last alone.
std::map<std::string, std::string> comparedItems(const platform::URL& url) {
    std::map<std::string, std::string> items;
    for (auto& [name, value] : platform::decodeQuery(url.query.value_or("")))
        if (name != keyItem) items.insert_or_assign(std::move(name), std::move(value));
    return items;
}

std::optional<std::string> urlIn(const platform::PropertyDictionary& saved, std::string_view entry) {
    const auto found = saved.find(entry);
    const auto* text = found == saved.end() ? nullptr : found->second.as<std::string>();
    return text != nullptr && platform::parseURL(*text) ? std::optional(*text) : std::nullopt;
}

}  // namespace

std::string DownloadResource::version() const {
    if (redirectURL && isLookupResource(identifier)) return Lookup::signatureFromURL(*redirectURL);
    const auto parsed = platform::parseURL(url.value_or(""));
    if (!parsed) return {};
    for (auto& [name, value] : platform::decodeQuery(parsed->query.value_or("")))
        if (name == versionItem) return std::move(value);
    return {};
}

platform::PropertyValue DownloadResource::savedForm() const {
    platform::PropertyDictionary saved;
    if (url) saved.emplace(urlEntry, *url);
    if (redirectURL) saved.emplace(redirectEntry, *redirectURL);
    return saved;
}

std::optional<DownloadResource> DownloadResource::fromSavedForm(std::string identifier,
                                                                const platform::PropertyValue& saved) {
    const auto* entries = saved.as<platform::PropertyDictionary>();
    auto url = entries != nullptr ? urlIn(*entries, urlEntry) : std::nullopt;
    if (!url) return std::nullopt;
    return DownloadResource{
        .identifier = std::move(identifier), .url = std::move(url), .redirectURL = urlIn(*entries, redirectEntry)};
}

bool isLookupResource(std::string_view identifier) {
    return identifier == kORXLookupHintsWeekly || identifier == kORXLookupHintsMonthly;
}

std::optional<std::string> urlForCompare(std::string_view url) {
    auto parsed = platform::parseURL(url);
    if (!parsed) return std::nullopt;
    if (parsed->query) parsed->query = queryWithout(*parsed->query, keyItem);
    return parsed->absoluteString();
}

bool namesSameResource(std::string_view url, std::string_view other) {
    const auto a = platform::parseURL(url);
    const auto b = platform::parseURL(other);
    return a && b && a->path == b->path && comparedItems(*a) == comparedItems(*b);
}

}  // namespace orvex
