#pragma once

#include <memory>

#include "platform/background_activity_scheduler.h"
#include "platform/counters.h"
#include "platform/fakes/fake_background_session.h"
#include "platform/fakes/fake_bus.h"
#include "platform/fakes/fake_device_information.h"
#include "platform/fakes/fake_file_manager.h"
#include "platform/fakes/fake_locale.h"
#include "platform/fakes/fake_location.h"
#include "platform/fakes/fake_memory_pressure.h"
#include "platform/fakes/fake_settings_file.h"
#include "platform/fakes/fake_url_session.h"
#include "platform/fakes/fake_user_defaults.h"
#include "platform/fakes/faulty_directory.h"
#include "platform/fakes/manual_dispatcher.h"
#include "platform/fakes/recording_log.h"
#include "platform/notification_center.h"
#include "platform/transactions.h"

namespace orvex::platform {

/// A whole platform of fakes over time, files and settings that may be the real ones, which outlive it: for benchmarks.
class FakePlatform {
public:
    FakePlatform(Dispatcher& dispatcher, FileManager& fileManager, UserDefaults& userDefaults)
        : sessions(dispatcher),
          transactions(std::make_shared<Transactions>(dispatcher)),
          activities({dispatcher, counters, fileManager, conditions}),
          backgroundSessions(dispatcher, fileManager),
          _dispatcher(dispatcher),
          _fileManager(fileManager),
          _userDefaults(userDefaults) {}

    /// The services as the struct `Services` names them: the one that the components take.
    template <class Services>
    [[nodiscard]] Services as() {
        return {.dispatcher = _dispatcher,
                .userDefaults = _userDefaults,
                .fileManager = _fileManager,
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
                .backgroundSessions = &backgroundSessions,
                .location = &location,
                .motion = &motion,
                .routine = &routine,
                .dictionaries = &dictionaries,
                .applications = &applications,
                .lookupDefaults = &lookupDefaults,
                .policy = &policy,
                .subscriptions = &subscriptions};
    }

    NotificationCenter notifications;
    FakeURLSessionFactory sessions;
    Counters counters;
    std::shared_ptr<Transactions> transactions;
    FakeLocale locale;
    FakeDeviceInformation device;
    FakeMemoryPressure memoryPressure;
    DeviceConditions conditions;
    DispatcherActivityScheduler activities;
    FakeBus bus;
    FakeBackgroundSessionFactory backgroundSessions;
    FakeLocation location;
    FakeMotion motion;
    FakeRoutine routine;
    FakeInstalledDictionaries dictionaries;
    FakeInstalledApplications applications;
    FakeUserDefaults lookupDefaults;
    FakeSettingsFile policy;
    FakeSettingsFile subscriptions;

private:
    Dispatcher& _dispatcher;
    FileManager& _fileManager;
    UserDefaults& _userDefaults;
};

/// What a test has in the place of threads, a disk and stored settings.
struct FakeGround {
    RecordingLog log;
    ManualDispatcher time;
    FakeUserDefaults defaults;
    FakeFileManager files;
    FaultyFileManager faulty{files};  ///< what the components have of `files`
};

/// The same with nothing real: for tests.
class TestPlatform : public FakeGround, public FakePlatform {
public:
    TestPlatform() : FakePlatform(time, faulty, defaults) {}
};

}  // namespace orvex::platform
