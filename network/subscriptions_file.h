#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/result.h"

namespace orvex::platform {
class SettingsFile;
}

namespace orvex {

/// What the user has subscribed to and where media are bought.
struct Subscriptions {
    struct VideoService {
        std::string provider;
        std::string type;
        bool active = false;
        std::string domain;
        std::string bundleIdentifier;
        std::optional<double> validFrom;  ///< seconds since 1970; none: since ever
        std::optional<double> validUntil;
    };

    std::string storefront;
    bool weft = false;  ///< the maker's own bundle
    std::vector<VideoService> videoServices;
};

/// Reads `{"storefront": s, "weft": b, "subscriptions": [{"provider", "type", "active", "domain", "bundle_identifier",
/// "valid_from", "valid_until"}]}`. No file: nothing. Entries without a provider, or with a value of another type, are
/// left out and logged. Fails on what is no such object.
platform::Result<Subscriptions> readSubscriptions(const platform::SettingsFile& file);

}  // namespace orvex
