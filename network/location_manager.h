#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "network/maps_user_session.h"
#include "platform/dispatch.h"
#include "platform/location_service.h"
#include "platform/thread_annotations.h"

namespace orvex {

class Assembly;

/// Who is told by the location manager. Calls come on its queue or on the location service's thread.
class LocationManagerDelegate {
public:
    virtual ~LocationManagerDelegate() = default;
    /// The newest last, at least one; each is a place on earth.
    virtual void didUpdateLocations(const std::vector<platform::Location>& locations) = 0;
    virtual void didChangeAuthorizationStatus(platform::LocationAuthorization status) = 0;
    virtual void didFailWithError(const platform::Failure& error) = 0;
};

/// Where the device is and who may know, and what the maps service knows of us. Where the device has no location
/// service, and while the user default "ORXLocationDisabled" is on, nobody may know.
///
/// Threading: callable from any thread, from the factory's context queue too: nothing here waits. The service itself is
/// asked from the manager's own queue.
class LocationManager : public std::enable_shared_from_this<LocationManager> {
public:
    static std::shared_ptr<LocationManager> create(Assembly& assembly);
    ~LocationManager();
    LocationManager(const LocationManager&) = delete;
    LocationManager& operator=(const LocationManager&) = delete;

    [[nodiscard]] platform::LocationAuthorization authorizationStatus() const;
    [[nodiscard]] platform::LocationAuthorization gazelAuthorizationStatus() const;

    /// Who is told from now on, held weakly.
    void setDelegate(std::weak_ptr<LocationManagerDelegate> delegate);
    void startUpdatingLocation();
    void stopUpdatingLocation();

    [[nodiscard]] std::optional<std::string> getDeviceCountryCode() const;
    [[nodiscard]] std::optional<std::string> getMapsClientMetadata() const;  ///< opaque, as the settings have it
    [[nodiscard]] std::string mapsEnvironment() const;                       ///< its name; empty for the usual one
    /// The session as the last request told it, without counting.
    std::string getMapsUserSessionEntityAndReset(ResetMapsSession reset);
    [[nodiscard]] MapsUserSession& mapsUserSession() { return _mapsUserSession; }

private:
    explicit LocationManager(Assembly& assembly);

    [[nodiscard]] std::shared_ptr<LocationManagerDelegate> _currentDelegate() const;
    void _didUpdateLocations(std::vector<platform::Location> locations);

    // Constant after construction.
    Assembly& _assembly;

    // Synchronised by themselves.
    MapsUserSession _mapsUserSession;
    platform::SerialQueue _queue;

    mutable platform::Mutex _mutex;
    std::weak_ptr<LocationManagerDelegate> _delegate ORX_GUARDED_BY(_mutex);
};

}  // namespace orvex
