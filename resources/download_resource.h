#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/property_value.h"

namespace orvex {

/// A resource that the bag lists: where its file came from. A plain value.
struct DownloadResource {
    std::string identifier;
    /// Of its last download, without the query item "key"; none before the first.
    std::optional<std::string> url;
    /// Where that led to, without "key", when it led elsewhere.
    std::optional<std::string> redirectURL;

    bool operator==(const DownloadResource&) const = default;

    /// What If-None-Match tells the server: for lookup hints that were redirected the signature in the redirect's path,
    /// else the value of the first query item "version". Empty: there is none.
    [[nodiscard]] std::string version() const;

    // As it is kept in the user defaults: a dictionary with "url" and "redirect_url".
    [[nodiscard]] platform::PropertyValue savedForm() const;
    /// None without a URL.
    [[nodiscard]] static std::optional<DownloadResource> fromSavedForm(std::string identifier,
                                                                       const platform::PropertyValue& saved);
};

/// Lookup hints are downloaded at every bag change, since their URL stays and only their content changes.
[[nodiscard]] bool isLookupResource(std::string_view identifier);

/// The URL without its query items "key", and without a query when none other is left: the API key makes no two URLs
/// different. None for what is no URL.
[[nodiscard]] std::optional<std::string> urlForCompare(std::string_view url);

/// Whether both lead to the same path with the same decoded query items, "key" apart, in whatever order; of several
/// of one name the last counts, since no more is sent. The host does not count.
[[nodiscard]] bool namesSameResource(std::string_view url, std::string_view other);

}  // namespace orvex
