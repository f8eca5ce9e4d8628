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
#include "platform/background_activity_scheduler.h"
#include "platform/counters.h"
#include "platform/fakes/fake_bus.h"
#include "platform/fakes/fake_device_information.h"
#include "platform/fakes/fake_file_manager.h"
#include "platform/fakes/fake_locale.h"
#include "platform/fakes/fake_location.h"
#include "platform/fakes/fake_memory_pressure.h"
#include "platform/fakes/fake_settings_file.h"
#include "platform/fakes/fake_url_session.h"
#include "platform/fakes/fake_user_defaults.h"
#include "platform/fakes/manual_dispatcher.h"
#include "platform/fakes/recording_log.h"
#include "platform/notification_center.h"
#include "platform/transactions.h"

namespace orvex {

/// The assembly of fakes that the components of this folder are tested in. A German device in Berlin.
class NetworkFixture : public testing::Test {
protected:
    void makeFactory() {
        assembly.setLocationManager(LocationManager::create(assembly));
        assembly.setMotionManager(std::make_shared<MotionManager>(assembly));
        assembly.setRequestFactory(ORXNetworkRequestFactory::create(assembly));
        assembly.setSubscriptionManager(OrvexSubscriptionManager::create(assembly, assembly.requestFactory()));
    }

    platform::ManualDispatcher time;
    platform::FakeUserDefaults userDefaults;
    platform::FakeFileManager files;
    platform::NotificationCenter notifications;
    platform::FakeURLSessionFactory sessions{time};
    platform::Counters counters;
    std::shared_ptr<platform::Transactions> transactions = std::make_shared<platform::Transactions>(time);
    platform::FakeLocale locale;
    platform::FakeDeviceInformation device;
    platform::FakeMemoryPressure memoryPressure;
    platform::FakeLocation location;
    platform::FakeMotion motion;
    platform::FakeRoutine routine;
    platform::FakeInstalledDictionaries dictionaries;
    platform::FakeSettingsFile policy;
    platform::FakeSettingsFile subscriptions;
    platform::DeviceConditions conditions;
    platform::DispatcherActivityScheduler activities{{time, counters, files, conditions}};
    platform::FakeBus bus;
    platform::RecordingLog log;
    Assembly assembly{{.dispatcher = time,
                       .userDefaults = userDefaults,
                       .fileManager = files,
                       .notificationCenter = notifications,
                       .urlSessions = sessions,
                       .counters = counters,
                       .transactions = transactions,
                       .locale = locale,
                       .device = device,
                       .memoryPressure = memoryPressure,
                       .activities = activities,
                       .bus = bus,
                       .certificateAuthorityFile = {},
                       .location = &location,
                       .motion = &motion,
                       .routine = &routine,
                       .dictionaries = &dictionaries,
                       .policy = &policy,
                       .subscriptions = &subscriptions}};
    platform::URLSession& bagSession = assembly.bagSession();
    platform::FakeURLSession& server = *sessions.session("com.kelvar.orvexd.bagSession");  ///< who answers it
};

}  // namespace orvex
