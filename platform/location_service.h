#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "platform/result.h"

namespace orvex::platform {

enum class LocationAuthorization : std::uint8_t { notDetermined, restricted, denied, always, whenInUse };

[[nodiscard]] constexpr bool mayLocate(LocationAuthorization status) {
    return status == LocationAuthorization::always || status == LocationAuthorization::whenInUse;
}

struct Location {
    double latitude = 0;  ///< degrees, WGS 84, as the longitude; neither is checked
    double longitude = 0;
    double horizontalAccuracy = 0;  ///< metres
    /// What found it: 1, 2, 3 and 9 satellites; 4 and 5 wireless networks; 6, 7 and 8 cell towers; 0 unknown.
    std::int32_t type = 0;
};

/// Where the device is, and who may know. The statuses are remembered, so asking for them never waits.
///
/// Threading: callable from any thread. Handlers come on a thread of the service's own, which they must not hold up.
class LocationService {
public:
    struct Handlers {
        std::function<void(const std::vector<Location>& locations)> didUpdateLocations;  ///< the newest last
        std::function<void(LocationAuthorization status)> didChangeAuthorizationStatus;
        std::function<void(const Failure& failure)> didFail;  ///< updates have stopped
    };

    virtual ~LocationService() = default;

    [[nodiscard]] virtual LocationAuthorization authorizationStatus() const = 0;       ///< of this daemon
    [[nodiscard]] virtual LocationAuthorization gazelAuthorizationStatus() const = 0;  ///< of the application gazel

    /// Once, before updates are started.
    virtual void setHandlers(Handlers handlers) = 0;
    virtual void startUpdating() = 0;  ///< nothing when they are on already
    virtual void stopUpdating() = 0;
};

}  // namespace orvex::platform
