#include "platform/linux/geoclue_location.h"

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>

#include "platform/log.h"

namespace orvex::platform {
namespace {

constexpr auto service = "org.freedesktop.GeoClue2";
constexpr auto managerPath = "/org/freedesktop/GeoClue2/Manager";
constexpr auto managerInterface = "org.freedesktop.GeoClue2.Manager";
constexpr auto clientInterface = "org.freedesktop.GeoClue2.Client";
constexpr auto locationInterface = "org.freedesktop.GeoClue2.Location";
constexpr auto propertiesInterface = "org.freedesktop.DBus.Properties";

constexpr auto permissionStore = "org.freedesktop.impl.portal.PermissionStore";
constexpr auto permissionStorePath = "/org/freedesktop/impl/portal/PermissionStore";
constexpr std::string_view locationTable = "location";  // and the one entry in it
constexpr std::string_view gazelIdentifier = "com.kelvar.gazel";

constexpr std::uint32_t exactAccuracy = 8;  // GCLUE_ACCURACY_LEVEL_EXACT
constexpr std::chrono::seconds callLimit(25);

constexpr std::int32_t satellites = 1;
constexpr std::int32_t wirelessNetworks = 4;
constexpr std::int32_t cellTowers = 6;

std::optional<double> number(const BusDictionary& properties, std::string_view name) {
    const auto* value = properties.find(name);
    const auto* number = value ? value->as<double>() : nullptr;
    return number ? std::optional(*number) : std::nullopt;
}

std::int32_t inferredType(double accuracy, const BusDictionary& properties) {
    const bool altitudeKnown = number(properties, "Altitude").value_or(-DBL_MAX) > -DBL_MAX;
    const bool speedKnown = number(properties, "Speed").value_or(-1) >= 0;
    if (accuracy < 30 && (altitudeKnown || speedKnown)) return satellites;
    return accuracy < 1000 ? wirelessNetworks : cellTowers;
}

bool listsService(const BusArguments& names) {
    const auto* list = names.empty() ? nullptr : names.front().as<BusArray>();
    return list && std::ranges::any_of(list->items, [](const BusValue& name) {
               const auto* text = name.as<std::string>();
               return text && *text == service;
           });
}

const std::string* objectPath(const BusArguments& arguments, std::size_t index) {
    const auto* path = index < arguments.size() ? arguments[index].as<BusObjectPath>() : nullptr;
    return path ? &path->path : nullptr;
}

}  // namespace

std::shared_ptr<GeoClueLocation> GeoClueLocation::create(Buses buses) {
    std::shared_ptr<GeoClueLocation> location(new GeoClueLocation(std::move(buses)));
    location->_lookForGazel();
    if (!location->_buses.system) return location;
    location->_buses.system->subscribe(service, "", clientInterface, "LocationUpdated",
                                       [weak = location->weak_from_this()](const auto&, const BusArguments& paths) {
                                           const auto self = weak.lock();
                                           const auto* path = objectPath(paths, 1);
                                           if (self && path) self->_readLocation(*path);
                                       });
    location->_lookForService("ListActivatableNames");
    location->_lookForService("ListNames");
    return location;
}

LocationAuthorization GeoClueLocation::authorizationStatus() const {
    const MutexLock lock(_mutex);
    return _state == State::absent || _denied ? LocationAuthorization::denied : LocationAuthorization::always;
}

LocationAuthorization GeoClueLocation::gazelAuthorizationStatus() const {
    const MutexLock lock(_mutex);
    return _gazel;
}

void GeoClueLocation::setHandlers(Handlers handlers) {
    const MutexLock lock(_mutex);
    _handlers = std::move(handlers);
}

void GeoClueLocation::_enter(State state) {
    constexpr std::array names = {"absent", "stopped", "starting", "updating"};
    if (state == _state) return;
    defaultLogger().debug("location service: {} -> {}", names[static_cast<std::size_t>(_state)],
                          names[static_cast<std::size_t>(state)]);
    _state = state;
}

void GeoClueLocation::_call(const std::string& path, const char* interface, const char* member, std::string signature,
                            BusArguments arguments, BusCallCompletion completion) {
    _buses.system->call(service, path, interface, member, std::move(signature), std::move(arguments), callLimit,
                        std::move(completion));
}

template <class Handler, class Argument>
void GeoClueLocation::_tell(Handler Handlers::* handler, const Argument& argument) const {
    Handler told;
    {
        const MutexLock lock(_mutex);
        told = _handlers.*handler;
    }
    if (told) told(argument);
}

void GeoClueLocation::_lookForService(const char* listMethod) {
    _buses.system->call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", listMethod, "", {},
                        callLimit, [weak = weak_from_this()](std::expected<BusArguments, BusError> names) {
                            const auto self = weak.lock();
                            if (!self || !names || !listsService(*names)) return;
                            {
                                const MutexLock lock(self->_mutex);
                                if (self->_state != State::absent) return;
                                self->_enter(State::stopped);
                            }
                            self->_tell(&Handlers::didChangeAuthorizationStatus, self->authorizationStatus());
                        });
}

// Whether gazel may locate.

void GeoClueLocation::_lookForGazel() {
    const auto weak = weak_from_this();
    _buses.session.subscribe(permissionStore, permissionStorePath, permissionStore, "Changed",
                             [weak](const auto&, const BusArguments& change) {
                                 const auto self = weak.lock();
                                 const auto* table = change.size() == 5 ? change[0].as<std::string>() : nullptr;
                                 if (self && table && *table == locationTable) self->_setGazelPermissions(change[4]);
                             });
    _buses.session.call(permissionStore, permissionStorePath, permissionStore, "Lookup", "ss",
                        {locationTable, locationTable}, callLimit, [weak](std::expected<BusArguments, BusError> found) {
                            const auto self = weak.lock();
                            if (self && found && !found->empty()) self->_setGazelPermissions(found->front());
                        });
}

void GeoClueLocation::_setGazelPermissions(const BusValue& permissions) {
    const auto* byApplication = permissions.as<BusDictionary>();
    const auto* entry = byApplication ? byApplication->find(gazelIdentifier) : nullptr;
    const auto* texts = entry ? entry->as<BusArray>() : nullptr;
    const auto* accuracy = texts && !texts->items.empty() ? texts->items.front().as<std::string>() : nullptr;
    const MutexLock lock(_mutex);
    _gazel = accuracy && *accuracy != "NONE" ? LocationAuthorization::whenInUse : LocationAuthorization::denied;
}

// Start and stop.

void GeoClueLocation::startUpdating() {
    {
        const MutexLock lock(_mutex);
        _wanted = true;
        if (_state != State::stopped) return;
        _enter(State::starting);
    }
    _call(managerPath, managerInterface, "GetClient", "", {},
          [weak = weak_from_this()](std::expected<BusArguments, BusError> client) {
              const auto self = weak.lock();
              if (!self) return;
              const auto* path = client ? objectPath(*client, 0) : nullptr;
              if (path) return self->_configureAndStart(*path);
              self->_failed("no client", client ? BusError{} : client.error());
          });
}

void GeoClueLocation::_configureAndStart(const std::string& clientPath) {
    {
        const MutexLock lock(_mutex);
        _clientPath = clientPath;
        if (!_wanted) return _enter(State::stopped);
    }
    _watchOwner();
    const auto set = [&](const char* property, BusValue value) {
        _call(clientPath, propertiesInterface, "Set", "ssv", {clientInterface, property, std::move(value)},
              [](const auto&) {});
    };
    set("DesktopId", _buses.desktopIdentifier);
    set("RequestedAccuracyLevel", exactAccuracy);
    _call(clientPath, clientInterface, "Start", "", {},
          [weak = weak_from_this()](const std::expected<BusArguments, BusError>& answer) {
              if (const auto self = weak.lock()) self->_started(answer);
          });
}

void GeoClueLocation::_started(const std::expected<BusArguments, BusError>& answer) {
    if (!answer) {
        const bool denied = answer.error().name == bus_error::accessDenied;
        {
            const MutexLock lock(_mutex);
            _denied = denied;
        }
        _failed("not started", answer.error());
        if (denied) _tell(&Handlers::didChangeAuthorizationStatus, authorizationStatus());
        return;
    }
    const MutexLock lock(_mutex);
    if (_state == State::starting) _enter(State::updating);
}

void GeoClueLocation::_failed(const std::string& what, const BusError& error) {
    {
        const MutexLock lock(_mutex);
        _wanted = false;
        if (_state != State::absent) _enter(State::stopped);
    }
    _tell(&Handlers::didFail, Failure{.code = 0, .text = what + ": " + error.name + " " + error.message});
}

void GeoClueLocation::stopUpdating() {
    std::string clientPath;
    {
        const MutexLock lock(_mutex);
        _wanted = false;
        if (_state != State::starting && _state != State::updating) return;
        clientPath = _clientPath;
        if (clientPath.empty()) return;  // its client is not there yet, and will find that it is not wanted
        _enter(State::stopped);
    }
    _call(clientPath, clientInterface, "Stop", "", {}, [](const auto&) {});
}

void GeoClueLocation::_watchOwner() {
    const auto weak = weak_from_this();
    _buses.system->call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetNameOwner", "s",
                        {service}, callLimit, [weak](std::expected<BusArguments, BusError> owner) {
                            const auto self = weak.lock();
                            const auto* name = owner && !owner->empty() ? owner->front().as<std::string>() : nullptr;
                            if (!self || !name) return;
                            self->_buses.system->watchPeer(*name, [weak] {
                                if (const auto watching = weak.lock()) watching->_serviceGone();
                            });
                        });
}

void GeoClueLocation::_serviceGone() {
    bool wasDenied = false;
    bool wasWanted = false;
    {
        const MutexLock lock(_mutex);
        wasDenied = std::exchange(_denied, false);
        wasWanted = _wanted;
        _clientPath.clear();
        if (_state != State::absent) _enter(State::stopped);
    }
    if (wasWanted) _failed("the location service has gone", {});
    if (wasDenied) _tell(&Handlers::didChangeAuthorizationStatus, authorizationStatus());
}

// What it finds.

void GeoClueLocation::_readLocation(const std::string& locationPath) {
    {
        const MutexLock lock(_mutex);
        if (!_wanted) return;
    }
    _call(locationPath, propertiesInterface, "GetAll", "s", {locationInterface},
          [weak = weak_from_this()](std::expected<BusArguments, BusError> answer) {
              const auto self = weak.lock();
              const auto* properties = answer && !answer->empty() ? answer->front().as<BusDictionary>() : nullptr;
              if (self && properties) self->_report(*properties);
          });
}

void GeoClueLocation::_report(const BusDictionary& properties) {
    const auto accuracy = number(properties, "Accuracy");
    const Location location{.latitude = number(properties, "Latitude").value_or(NAN),
                            .longitude = number(properties, "Longitude").value_or(NAN),
                            .horizontalAccuracy = accuracy.value_or(NAN),
                            .type = accuracy ? inferredType(*accuracy, properties) : 0};
    _tell(&Handlers::didUpdateLocations, std::vector<Location>{location});
}

}  // namespace orvex::platform
