#include <fmt/ranges.h>
#include <boost/json.hpp>

#include "core/json.h"
#include "core/notifications.h"
#include "core/orx_bag.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "network/orx_network_request_factory.h"
#include "platform/counters.h"
#include "platform/http_session.h"
#include "platform/installed_dictionaries.h"
#include "platform/locale.h"
#include "platform/notification_center.h"
#include "platform/settings_file.h"
#include "platform/user_defaults.h"

// How the factory's context is kept up to date. Each source is subscribed to first and read then, so that no change is
// missed between the two. What comes is stored by a barrier; nothing is asked from within one.

namespace orvex {
namespace {

const platform::Logger& requestLog() { return OrvexLogForCategory(OrvexLoggingCategory::request); }

/// The number that the server knows a way of moving by.
std::int32_t transportationMode(const platform::MotionActivity& activity) {
    if (activity.stationary) return 2;
    if (activity.automotive) return 6;
    if (activity.walking) return 3;
    if (activity.running) return 4;
    if (activity.cycling) return 5;
    return 1;
}

/// Not asked yet is not refused.
bool isRefused(platform::LocationAuthorization status) {
    return status == platform::LocationAuthorization::denied || status == platform::LocationAuthorization::restricted;
}

boost::json::object disabledCindora() {
    return {{"appRule", boost::json::object{{"enable", boost::json::object{{"Enabled", false}}}}}};
}

}  // namespace

std::shared_ptr<ORXNetworkRequestFactory> ORXNetworkRequestFactory::create(Assembly& assembly) {
    std::shared_ptr<ORXNetworkRequestFactory> factory(new ORXNetworkRequestFactory(assembly));
    factory->_subscribe();
    factory->_readContext();
    return factory;
}

ORXNetworkRequestFactory::ORXNetworkRequestFactory(Assembly& assembly)
    : _assembly(assembly),
      _contextAccessQueue(assembly.dispatcher(), "com.kelvar.orvexd.contextaccess") {}

void ORXNetworkRequestFactory::_subscribe() {
    const auto weak = weak_from_this();
    if (const auto& manager = _assembly.locationManager()) manager->setDelegate(weak);
    _assembly.locale().addChangeHandler([weak](const platform::LocaleSettings& settings) {
        if (const auto self = weak.lock()) self->_localeDidChange(settings);
    });
    if (auto* policy = _assembly.policy()) {
        policy->setChangeHandler([weak] {
            if (const auto self = weak.lock()) self->_policyDidChange();
        });
    }
    if (auto* dictionaries = _assembly.dictionaries()) {
        dictionaries->setChangeHandler([weak] {
            if (const auto self = weak.lock()) self->_readDictionaries();
        });
    }
    const auto self = shared_from_this();
    auto& center = _assembly.notificationCenter();
    center.observe<ORXBagChangeNotification>(
        self, [](ORXNetworkRequestFactory& factory, const auto& change) { factory._didGetBag(change.bag); });
    center.observe<ORXUserGUIDChangeNotification>(self, [](ORXNetworkRequestFactory& factory, const auto&) {
        (void)factory.getMapsUserSessionEntityAndReset(ResetMapsSession::yes);
    });
    center.observe<ORXFileDownloadCompletedNotification>(self,
                                                         [](ORXNetworkRequestFactory& factory, const auto& download) {
                                                             if (download.identifier.starts_with("dictionary_"))
                                                                 factory._readDictionaries();
                                                         });
}

void ORXNetworkRequestFactory::_readContext() {
    const auto& manager = _assembly.locationManager();
    const bool mayLocate = manager && platform::mayLocate(manager->authorizationStatus());
    _contextAccessQueue.barrierSync([this, mayLocate] {
        _contextAccessQueue.assertBarrier();
        _location.drop(mayLocate ? LocationContext::notReceivedYet : LocationContext::refusedByUser, _context);
        _context.setLocale(_assembly.locale().current());
        _context.readUserDefaults(_assembly.userDefaults());
    });
    _policyDidChange();
    _readDictionaries();
}

void ORXNetworkRequestFactory::_update(Update update) {
    _contextAccessQueue.barrierAsync([weak = weak_from_this(), update = std::move(update)]() mutable {
        const auto self = weak.lock();
        if (!self) return;
        self->_contextAccessQueue.assertBarrier();
        update(*self);
    });
}

void ORXNetworkRequestFactory::setSilhouetteTopics(std::string_view json) {
    _update([topics = SilhouetteTopics::fromText(json)](ORXNetworkRequestFactory& self) {
        self._contextAccessQueue.assertBarrier();
        self._context.silhouetteTopics = topics;
    });
}

// Locale, policy, dictionaries, subscriptions.

void ORXNetworkRequestFactory::_localeDidChange(const platform::LocaleSettings& settings) {
    _update([settings](ORXNetworkRequestFactory& self) {
        self._contextAccessQueue.assertBarrier();
        const RequestContext before = self._context;
        const bool bagDepends = self._context.setLocale(settings);
        if (bagDepends) ++self._localeGeneration;
        const bool country = before.geoDeviceCountryCode != self._context.geoDeviceCountryCode;
        const bool timeZone = before.localTimeZoneName != self._context.localTimeZoneName;
        platform::MainQueue(self._assembly.dispatcher())
            .async([weak = self.weak_from_this(), bagDepends, country, timeZone] {
                const auto factory = weak.lock();
                if (!factory) return;
                auto& center = factory->_assembly.notificationCenter();
                if (country) center.post(CountryCodeDidChangeNotification{});
                if (timeZone) center.post(SystemTimeZoneDidChangeNotification{});
                if (bagDepends) center.post(CurrentLocaleDidChangeNotification{});
                if (bagDepends) center.post(ORXBagRefreshRequiredNotification{});
            });
    });
}

void ORXNetworkRequestFactory::_policyDidChange() {
    if (!_assembly.policy()) return;
    const auto read = readDevicePolicy(*_assembly.policy());
    if (!read) {  // the owner's last word holds: the file may be in the middle of being written
        requestLog().error("the policy stays as it was: {}", read.error().text);
        return;
    }
    _update([policy = *read](ORXNetworkRequestFactory& self) {
        self._contextAccessQueue.assertBarrier();
        const bool account =
            std::exchange(self._context.isManagedAccount, policy.managedAccount) != policy.managedAccount;
        const bool settings =
            std::exchange(self._context.deviceRestricted, policy.deviceRestricted) != policy.deviceRestricted;
        if (settings) {
            requestLog().log("device restriction have changed, currently restriction status is {:d}",
                             policy.deviceRestricted);
        }
        platform::MainQueue(self._assembly.dispatcher()).async([weak = self.weak_from_this(), account, settings] {
            const auto factory = weak.lock();
            if (!factory) return;
            auto& center = factory->_assembly.notificationCenter();
            if (account) center.post(AccountStoreDidChangeNotification{});
            if (settings) center.post(EffectiveSettingsChangedNotification{});
        });
    });
}

void ORXNetworkRequestFactory::_readDictionaries() {
    if (!_assembly.dictionaries()) return;
    const platform::GlobalQueue background(_assembly.dispatcher(), platform::Priority::background);
    background.async([weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        const auto languages = self->_assembly.dictionaries()->languages();
        auto text = fmt::format("{}", fmt::join(languages, ","));
        requestLog().log("{} dictionaries installed on system", languages.size());
        requestLog().log("dictionaries map updated: {}", text);
        self->_update([text = std::move(text)](ORXNetworkRequestFactory& factory) {
            factory._contextAccessQueue.assertBarrier();
            factory._context.installedDictionaries = text;
        });
    });
}

void ORXNetworkRequestFactory::didUpdateSubscriptionDictionaries(const boost::json::array& dictionaries) {
    _update([text = dictionaries.empty() ? std::string() : compactJSON(dictionaries)](ORXNetworkRequestFactory& self) {
        self._contextAccessQueue.assertBarrier();
        self._context.subscriptionInfo = text;
    });
}

void ORXNetworkRequestFactory::didUpdateStorefrontIdentifier(const std::string& identifier) {
    _update([identifier](ORXNetworkRequestFactory& self) {
        self._contextAccessQueue.assertBarrier();
        self._context.storeFrontIdentifier = identifier;
    });
}

// Location, routine, movement.

void ORXNetworkRequestFactory::_startUpdatingLocation() {
    const auto& manager = _assembly.locationManager();
    const bool refused = !manager || isRefused(manager->authorizationStatus());
    const bool settled = _contextAccessQueue.sync([this, refused] {
        _contextAccessQueue.assertCurrent();
        return _location.isFresh(_assembly.dispatcher().now()) ||
               (refused && _context.geoLocationSource == LocationContext::refusedByUser);
    });
    if (settled) return;  // as mostly, and then nothing is posted
    _update([](ORXNetworkRequestFactory& self) {
        self._contextAccessQueue.assertBarrier();
        if (self._context.geoLocationSource == LocationContext::notReceivedYet)
            self._context.geoLocationSource = LocationContext::slow;
        self._startLocationUnlessFresh();
    });
}

void ORXNetworkRequestFactory::_startLocationUnlessFresh() {
    if (_location.isFresh(_assembly.dispatcher().now())) return;
    const auto& manager = _assembly.locationManager();
    const auto status = manager ? manager->authorizationStatus() : platform::LocationAuthorization::denied;
    if (isRefused(status)) {
        _location.drop(LocationContext::refusedByUser, _context);
    } else {
        manager->startUpdatingLocation();
    }
}

void ORXNetworkRequestFactory::didUpdateLocations(const std::vector<platform::Location>& locations) {
    _update([location = locations.back()](ORXNetworkRequestFactory& self) {
        self._contextAccessQueue.assertBarrier();
        if (self._location.take(location, self._assembly.dispatcher().now(), self._context)) self._refreshRoutineMode();
    });
}

void ORXNetworkRequestFactory::didChangeAuthorizationStatus(platform::LocationAuthorization status) {
    _update([status](ORXNetworkRequestFactory& self) {
        self._contextAccessQueue.assertBarrier();
        if (!platform::mayLocate(status)) return self._location.drop(LocationContext::refusedByUser, self._context);
        if (self._context.geoLocationSource == LocationContext::refusedByUser)
            self._context.geoLocationSource = LocationContext::notReceivedYet;
        if (const auto& manager = self._assembly.locationManager()) manager->startUpdatingLocation();
    });
}

void ORXNetworkRequestFactory::didFailWithError(const platform::Failure& error) {
    requestLog().fault("Location determination failed with error {}", error.text);
}

void ORXNetworkRequestFactory::setPerformedSearch() {
    _update([](ORXNetworkRequestFactory& self) {
        self._contextAccessQueue.assertBarrier();
        self._location.performedSearch(self._context);
    });
}

std::optional<std::string> ORXNetworkRequestFactory::getMapsUserSessionEntityAndReset(ResetMapsSession reset) const {
    const auto& manager = _assembly.locationManager();
    return manager ? std::optional(manager->getMapsUserSessionEntityAndReset(reset)) : std::nullopt;
}

void ORXNetworkRequestFactory::_refreshRoutineMode() {
    if (!_assembly.routine()) return;
    const platform::GlobalQueue background(_assembly.dispatcher(), platform::Priority::background);
    background.async([weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        self->_update([mode = self->_assembly.routine()->mode()](ORXNetworkRequestFactory& factory) {
            factory._contextAccessQueue.assertBarrier();
            factory._context.routineMode = mode;
        });
    });
}

void ORXNetworkRequestFactory::_startUpdatingMotion() {
    if (const auto& manager = _assembly.motionManager()) manager->startUpdatingMotionActivity(weak_from_this());
}

void ORXNetworkRequestFactory::didUpdateMotionActivity(const platform::MotionActivity& activity) {
    if (const auto& manager = _assembly.motionManager()) manager->stopUpdatingMotionActivity();
    _update([mode = transportationMode(activity)](ORXNetworkRequestFactory& self) {
        self._contextAccessQueue.assertBarrier();
        self._context.transportationMode = mode;
    });
}

// A new bag.

void ORXNetworkRequestFactory::_didGetBag(std::shared_ptr<const ORXBag> bag) {
    _update([bag](ORXNetworkRequestFactory& self) {
        self._contextAccessQueue.assertBarrier();
        self._location.setSupportedSources(bag->supportedGeoLocationSources(), self._context);
        if (!bag->supportedGeoLocationSources().empty()) {
            self._startLocationUnlessFresh();
            self._startUpdatingMotion();
        } else if (const auto& manager = self._assembly.locationManager()) {
            manager->stopUpdatingLocation();
        }
    });
    const platform::GlobalQueue background(_assembly.dispatcher(), platform::Priority::background);
    background.async([weak = weak_from_this(), bag] {
        if (const auto self = weak.lock()) self->_publishVisibility(*bag);
    });
    const auto* configuration = bag->cindoraConfiguration();
    if (const auto configured = _proxy.configure(configuration ? *configuration : disabledCindora()); !configured) {
        requestLog().error("NSP configuration failed.");
        requestLog().debug("{}", configured.error().text);
    }
}

void ORXNetworkRequestFactory::_publishVisibility(const ORXBag& bag) {
    _gazelVisible = ORXBag(bag.rawBag(), "gazel").isEnabled();
    requestLog().log("set effective visibility setting for {} to {:d}", "gazel_visible", _gazelVisible.load());
    _hashtagImagesVisible = bag.hashtagImagesEnabled();
    requestLog().log("set effective visibility restriction for {} to {}", "hashtag_images_visible",
                     _hashtagImagesVisible.load());
}

std::int32_t ORXNetworkRequestFactory::cindoraStatus() const {
    return _assembly.useCindora() && _proxy.enabled() ? 1 : 0;
}

std::optional<std::string> ORXNetworkRequestFactory::enableCindora(platform::URLSessionTask& task) const {
    if (cindoraStatus() != 1) return std::nullopt;
    auto proxyURL = _proxy.enableForTask(task);
    if (proxyURL) return *std::move(proxyURL);
    OrvexLogForCategory(OrvexLoggingCategory::connection).error("Enabling Cindora for request failed.");
    return std::nullopt;
}

}  // namespace orvex
