#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "network/request_context.h"
#include "platform/clock.h"
#include "platform/location_service.h"

namespace orvex {

/// The location that requests may tell, with the rules by which one is taken, kept and let go. It writes its part of
/// the request context. Guarded by whoever owns it.
class LocationContext {
public:
    /// Why there is no location, as the server is told.
    static constexpr std::string_view notReceivedYet = "error.init";
    static constexpr std::string_view slow = "slow";
    static constexpr std::string_view refusedByUser = "userno";

    /// Takes `location` unless the bag does not name its source, which then is the reason for none. Returns whether it
    /// was taken.
    bool take(const platform::Location& location, platform::MonotonicTime now, RequestContext& context);
    void drop(std::string_view reason, RequestContext& context);
    /// From now on resource downloads tell the location as it is, no longer in whole degrees.
    void performedSearch(RequestContext& context) const;
    /// Whether there is one, less than 300 s old.
    [[nodiscard]] bool isFresh(platform::MonotonicTime now) const;
    /// Takes over what a bag accepts: "gps", "wifi", "cell", "unknown".
    void setSupportedSources(std::vector<std::string> sources, RequestContext& context);

private:
    struct Held {
        platform::Location location;
        platform::MonotonicTime received;
    };

    std::optional<Held> _held;
    std::vector<std::string> _supportedSources;
};

}  // namespace orvex
