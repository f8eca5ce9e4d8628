#pragma once

#include <gmock/gmock.h>

#include <boost/json.hpp>

#include "core/json.h"
#include "core/notifications.h"
#include "core/orx_bag.h"
#include "daemon/assembly.h"
#include "network/location_manager.h"
#include "network/motion_manager.h"
#include "network/orvex_bag_controller.h"
#include "network/orvex_subscription_manager.h"
#include "network/orx_network_request_factory.h"
#include "platform/fakes/fake_platform.h"
#include "platform/url.h"

namespace orvex {

/// The assembly of fakes that the components of this folder are tested in. A German device in Berlin.
class NetworkFixture : public testing::Test, protected platform::TestPlatform {
protected:
    void makeFactory() {
        assembly.setLocationManager(LocationManager::create(assembly));
        assembly.setMotionManager(std::make_shared<MotionManager>(assembly));
        assembly.setRequestFactory(ORXNetworkRequestFactory::create(assembly));
        assembly.setSubscriptionManager(OrvexSubscriptionManager::create(assembly, assembly.requestFactory()));
    }

    Assembly assembly{as<Assembly::Platform>()};
    ORXNetworkRequestFactory& factory() {
        if (!assembly.requestFactory()) makeFactory();
        return *assembly.requestFactory();
    }
    static std::shared_ptr<const ORXBag> makeBag(std::string_view json, std::string agent = "lumisk/1") {
        auto raw = std::make_shared<const boost::json::object>(parseJSON(json, kBagJSONDepth).value().as_object());
        return std::make_shared<const ORXBag>(std::move(raw), std::move(agent));
    }
    static std::optional<std::string> itemOf(const platform::URLRequest& request, std::string_view name) {
        const auto query = platform::parseURL(request.url).value().query.value_or("");
        for (auto& [itemName, value] : platform::decodeQuery(query))
            if (itemName == name) return value;
        return std::nullopt;
    }

    platform::URLSession& bagSession = assembly.bagSession();
    platform::FakeURLSession& server = *sessions.session("com.kelvar.orvexd.bagSession");  ///< who answers it
};

}  // namespace orvex
