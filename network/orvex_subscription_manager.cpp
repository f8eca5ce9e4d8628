#include "network/orvex_subscription_manager.h"

#include <algorithm>
#include <boost/json.hpp>
#include <map>

#include "core/notifications.h"
#include "core/orx_bag.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "platform/notification_center.h"
#include "platform/settings_file.h"

namespace orvex {
namespace {

const platform::Logger& subscriptionLog() { return OrvexLogForCategory(OrvexLoggingCategory::subscription); }

bool contains(const ORXBag::Texts& texts, const std::string& text) {
    return std::ranges::find(texts, text) != texts.end();
}

}  // namespace

std::shared_ptr<OrvexSubscriptionManager> OrvexSubscriptionManager::create(
    Assembly& assembly, std::weak_ptr<OrvexSubscriptionManagerDelegate> delegate) {
    std::shared_ptr<OrvexSubscriptionManager> manager(new OrvexSubscriptionManager(assembly, std::move(delegate)));
    assembly.notificationCenter().observe<ORXBagChangeNotification>(
        manager, [](OrvexSubscriptionManager& self, const ORXBagChangeNotification& notification) {
            self._bagChanged(notification.bag);
        });
    if (auto* file = assembly.subscriptions()) {
        file->setChangeHandler([weak = std::weak_ptr(manager)] {
            if (const auto self = weak.lock()) self->_sourceChanged();
        });
    }
    manager->_sourceChanged();
    return manager;
}

OrvexSubscriptionManager::OrvexSubscriptionManager(Assembly& assembly,
                                                   std::weak_ptr<OrvexSubscriptionManagerDelegate> delegate)
    : _assembly(assembly),
      _delegate(std::move(delegate)),
      _queue(assembly.dispatcher(), "com.kelvar.orvex.subscriptionsByProvider-Queue") {}

OrvexSubscriptionManager::~OrvexSubscriptionManager() { _queue.close(); }

boost::json::array OrvexSubscriptionManager::subscriptions() const {
    return _queue.sync([this] {
        _queue.assertCurrent();
        return _subscriptions;
    });
}

void OrvexSubscriptionManager::_sourceChanged() {
    _queue.async([this] {
        _queue.assertCurrent();
        _readSource();
        _updateSubscriptions();
    });
}

void OrvexSubscriptionManager::_bagChanged(std::shared_ptr<const ORXBag> bag) {
    _queue.async([this, bag = std::move(bag)]() mutable {
        _queue.assertCurrent();
        _bag = std::move(bag);
        _updateSubscriptions();
    });
}

void OrvexSubscriptionManager::_readSource() {
    if (!_assembly.subscriptions()) return;
    auto source = readSubscriptions(*_assembly.subscriptions());
    if (!source) {  // what was known still holds: the file may be in the middle of being written
        subscriptionLog().error("Error fetching third party subscription information from daemon: {}",
                                source.error().text);
        return;
    }
    const bool storefrontChanged = source->storefront != _source.storefront;
    _source = *std::move(source);
    const auto delegate = storefrontChanged ? _delegate.lock() : nullptr;
    if (delegate) delegate->didUpdateStorefrontIdentifier(_source.storefront);
}

void OrvexSubscriptionManager::_updateSubscriptions() {
    subscriptionLog().log("updating subscription info");
    auto subscriptions = _bag ? _wanted(*_bag) : boost::json::array();
    if (subscriptions == _subscriptions) return;
    _subscriptions = std::move(subscriptions);
    if (const auto delegate = _delegate.lock()) delegate->didUpdateSubscriptionDictionaries(_subscriptions);
}

boost::json::array OrvexSubscriptionManager::_wanted(const ORXBag& bag) const {
    const auto& domains = bag.subscriptionProviderDomainWhitelist();
    const auto& bundles = bag.subscriptionProviderBundleIdentifierWhitelist();
    if (!domains || !bundles) return {};
    const double now = platform::secondsSince1970(_assembly.dispatcher().wallNow());
    const double earliest = now - bag.subscriptionTTL();

    std::map<std::string, boost::json::object> byProvider;
    if (_source.weft) byProvider["weft"] = {{"provider", "weft"}, {"attribute", "premium"}, {"active", true}};
    for (const auto& service : _source.videoServices) {
        const bool wanted = contains(*domains, service.domain) || contains(*bundles, service.bundleIdentifier);
        const bool valid = service.validFrom.value_or(now) <= now && service.validUntil.value_or(now) >= earliest;
        if (wanted && valid)
            byProvider[service.provider] = {
                {"provider", service.provider}, {"type", service.type}, {"active", service.active}};
    }
    boost::json::array wanted;
    for (auto& [provider, dictionary] : byProvider) wanted.emplace_back(std::move(dictionary));
    return wanted;
}

}  // namespace orvex
