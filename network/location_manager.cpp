#include "network/location_manager.h"

#include <cmath>

#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "platform/counters.h"
#include "platform/locale.h"
#include "platform/log.h"
#include "platform/user_defaults.h"

namespace orvex {
namespace {

using platform::LocationAuthorization;

/// Written so that a NaN is none.
bool isOnEarth(const platform::Location& location) {
    return std::abs(location.latitude) <= 90 && std::abs(location.longitude) <= 180 &&
           location.horizontalAccuracy >= 0 && std::isfinite(location.horizontalAccuracy);
}

}  // namespace

std::shared_ptr<LocationManager> LocationManager::create(Assembly& assembly) {
    std::shared_ptr<LocationManager> manager(new LocationManager(assembly));
    if (auto* service = assembly.location()) {
        const std::weak_ptr weak = manager;
        service->setHandlers({.didUpdateLocations =
                                  [weak](const std::vector<platform::Location>& locations) {
                                      if (const auto self = weak.lock()) self->_didUpdateLocations(locations);
                                  },
                              .didChangeAuthorizationStatus =
                                  [weak](LocationAuthorization) {
                                      const auto self = weak.lock();
                                      const auto delegate = self ? self->_currentDelegate() : nullptr;
                                      if (delegate) delegate->didChangeAuthorizationStatus(self->authorizationStatus());
                                  },
                              .didFail =
                                  [weak](const platform::Failure& failure) {
                                      const auto self = weak.lock();
                                      const auto delegate = self ? self->_currentDelegate() : nullptr;
                                      if (delegate) delegate->didFailWithError(failure);
                                  }});
    }
    return manager;
}

LocationManager::LocationManager(Assembly& assembly)
    : _assembly(assembly),
      _mapsUserSession(assembly.dispatcher()),
      _queue(assembly.dispatcher(), "com.kelvar.orvexd.locationQueue") {}

LocationManager::~LocationManager() { _queue.close(); }

LocationAuthorization LocationManager::authorizationStatus() const {
    const auto* service = _assembly.location();
    if (!service || _assembly.userDefaults().boolean(setting::locationDisabled)) return LocationAuthorization::denied;
    return service->authorizationStatus();
}

LocationAuthorization LocationManager::gazelAuthorizationStatus() const {
    const auto* service = _assembly.location();
    return service ? service->gazelAuthorizationStatus() : LocationAuthorization::denied;
}

void LocationManager::setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) {
    const platform::MutexLock lock(_mutex);
    _delegate = std::move(delegate);
}

void LocationManager::startUpdatingLocation() {
    _queue.async([this] {
        _queue.assertCurrent();
        if (auto* service = _assembly.location()) service->startUpdating();
    });
}

void LocationManager::stopUpdatingLocation() {
    _queue.async([this] {
        _queue.assertCurrent();
        if (auto* service = _assembly.location()) service->stopUpdating();
    });
}

std::optional<std::string> LocationManager::getDeviceCountryCode() const {
    return _assembly.locale().current().countryCode;
}

std::optional<std::string> LocationManager::getMapsClientMetadata() const {
    return _assembly.userDefaults().string(setting::mapsClientMetadata);
}

std::string LocationManager::mapsEnvironment() const {
    return _assembly.userDefaults().string(setting::mapsEnvironment).value_or("");
}

std::string LocationManager::getMapsUserSessionEntityAndReset(ResetMapsSession reset) {
    if (reset == ResetMapsSession::yes) _mapsUserSession.reset();
    return _mapsUserSession.currentEntity();
}

std::shared_ptr<LocationManagerDelegate> LocationManager::_currentDelegate() const {
    const platform::MutexLock lock(_mutex);
    return _delegate.lock();
}

void LocationManager::_didUpdateLocations(std::vector<platform::Location> locations) {
    const auto refused = std::erase_if(locations, [](const auto& location) { return !isOnEarth(location); });
    if (refused > 0) {
        _assembly.counters().add("com.kelvar.orvexd.location.refused", static_cast<std::int64_t>(refused));
        OrvexLogForCategory(OrvexLoggingCategory::request).error("{} locations refused: not on earth", refused);
    }
    const auto delegate = _currentDelegate();
    if (delegate && !locations.empty()) delegate->didUpdateLocations(locations);
}

}  // namespace orvex
