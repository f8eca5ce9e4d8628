#pragma once

#include <memory>
#include <string>

#include "platform/bus.h"
#include "platform/location_service.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

/// Location through GeoClue2, which is activated by the first start.
///
///     absent ──it can be activated──▶ stopped ──start──▶ starting ──▶ updating ──stop──▶ stopped
///                                        ▲                  │             │
///                                        └──refused, or the service has gone
///
/// Whoever can activate it may locate, until a start is denied; that holds as long as the service runs. It does not
/// name what found a location, so that is inferred: satellites below 30 m with the altitude or speed known, wireless
/// networks below 1 km, cell towers above. Whether gazel may locate is the desktop's permission store's to say.
///
/// Threading: callable from any thread; handlers come on the bus threads, without a lock.
class GeoClueLocation final : public LocationService, public std::enable_shared_from_this<GeoClueLocation> {
public:
    struct Buses {
        Bus* system;   ///< null: none, so no location
        Bus& session;  ///< has the permission store
        std::string desktopIdentifier = "com.kelvar.orvexd";
    };

    /// Asks at once, without waiting, whether the service is there. The buses outlive it.
    static std::shared_ptr<GeoClueLocation> create(Buses buses);

    [[nodiscard]] LocationAuthorization authorizationStatus() const override;
    [[nodiscard]] LocationAuthorization gazelAuthorizationStatus() const override;
    void setHandlers(Handlers handlers) override;
    void startUpdating() override;
    void stopUpdating() override;

private:
    enum class State : std::uint8_t { absent, stopped, starting, updating };

    explicit GeoClueLocation(Buses buses) : _buses(std::move(buses)) {}

    void _lookForService(const char* listMethod);
    void _lookForGazel();
    void _setGazelPermissions(const BusValue& permissions);
    void _configureAndStart(const std::string& clientPath);
    void _started(const std::expected<BusArguments, BusError>& answer);
    void _watchOwner();
    void _serviceGone();
    void _readLocation(const std::string& locationPath);
    void _report(const BusDictionary& properties);
    void _failed(const std::string& what, const BusError& error);
    /// Calls the handler of that kind, if there is one.
    template <class Handler, class Argument>
    void _tell(Handler Handlers::* handler, const Argument& argument) const;
    void _call(const std::string& path, const char* interface, const char* member, std::string signature,
               BusArguments arguments, BusCallCompletion completion);
    void _enter(State state) ORX_REQUIRES(_mutex);

    // Constant after construction.
    const Buses _buses;

    mutable Mutex _mutex;
    Handlers _handlers ORX_GUARDED_BY(_mutex);
    State _state ORX_GUARDED_BY(_mutex) = State::absent;
    bool _wanted ORX_GUARDED_BY(_mutex) = false;  ///< started and not stopped since
    bool _denied ORX_GUARDED_BY(_mutex) = false;
    std::string _clientPath ORX_GUARDED_BY(_mutex);  ///< of our client object, while the service runs
    LocationAuthorization _gazel ORX_GUARDED_BY(_mutex) = LocationAuthorization::denied;
};

}  // namespace orvex::platform
