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
    platform::URLSession& bagSession = assembly.bagSession();
    platform::FakeURLSession& server = *sessions.session("com.kelvar.orvexd.bagSession");  ///< who answers it
};

}  // namespace orvex
