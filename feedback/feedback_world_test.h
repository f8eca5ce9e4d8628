#pragma once

#include <string>
#include <vector>

#include "core/feedback_record.h"
#include "core/feedback_records.pb.h"
#include "daemon/assembly.h"
#include "feedback/file_container.h"
#include "feedback/flusher_listener.h"
#include "feedback/guid_controller.h"
#include "feedback/orvex_persistent_storage.h"
#include "feedback/own_session_limit.h"
#include "platform/background_activity_scheduler.h"
#include "platform/counters.h"
#include "platform/fakes/fake_background_session.h"
#include "platform/fakes/fake_bus.h"
#include "platform/fakes/fake_device_information.h"
#include "platform/fakes/fake_file_manager.h"
#include "platform/fakes/fake_locale.h"
#include "platform/fakes/fake_memory_pressure.h"
#include "platform/fakes/fake_url_session.h"
#include "platform/fakes/fake_user_defaults.h"
#include "platform/fakes/faulty_directory.h"
#include "platform/fakes/manual_dispatcher.h"
#include "platform/fakes/recording_log.h"
#include "platform/notification_center.h"
#include "platform/transactions.h"

namespace orvex {

/// The components that keep feedback on a platform of fakes, without a bag: real storage, a user GUID, and time that
/// stands still until it is moved.
class FeedbackWorld {
public:
    explicit FeedbackWorld(platform::PropertyDictionary overrides = {}) {
        defaults.registerDefaults({{"ORXSessionSizeLimit", 2'097'152},
                                   {"ORXSessionMaxAge", 172'800},
                                   {"ORXSessionSoftLimitOverride", 600},
                                   {"ORXSessionIdleTimeOverride", 180}});
        for (auto& [key, value] : overrides) defaults.store(key, value);
        files.setTime(time.wallNow());
        assembly.setPersistentStorage(std::make_shared<OrvexPersistentStorage>(assembly));
        assembly.setOwnSessionLimit(std::make_shared<OwnSessionLimit>(time, counters));
        assembly.setGuidController(makeUserGUIDController(assembly));
    }
    ~FeedbackWorld() { time.runPending(); }

    /// A record of that type, with a query id to know it by.
    static std::unique_ptr<CXOrvexFeedback> record(std::int32_t type, std::int64_t queryId,
                                                   std::string agent = "Lumisk/1") {
        CXFeedbackPayload payload;
        payload.set_type(type);
        const auto* field = CXFeedbackPayload::descriptor()->FindFieldByNumber(16 + type);
        payload.GetReflection()->MutableMessage(&payload, field);
        return orvexFeedbackWithPayload(std::move(payload), {.queryId = queryId, .userAgent = std::move(agent)});
    }

    /// Counts the roads that have not ended, and remembers why the last one failed.
    RecordReceipt receipt() {
        ++underWay;
        return RecordReceipt([this](const std::optional<ORXError>& error) {
            --underWay;
            failure = error ? error->reason.value_or("(no reason)") : "";
        });
    }

    /// The finished sessions, in the order in which they ended.
    std::vector<CXClientSession> finished() {
        time.runPending();
        std::vector<CXClientSession> sessions;
        for (const auto& file : assembly.persistentStorage()->getAvailableSessionHandles()) {
            if (auto session = file->read()) sessions.push_back(*std::move(session));
        }
        return sessions;
    }
    template <class Records>
    static std::vector<std::int64_t> ids(const Records& records) {
        std::vector<std::int64_t> found;
        for (const auto& record : records) found.push_back(record.query_id());
        return found;
    }
    std::int64_t count(std::string_view name) { return counters.value("com.kelvar.orvexd." + std::string(name)); }

    platform::RecordingLog log;
    platform::ManualDispatcher time;
    platform::FakeUserDefaults defaults;
    platform::FakeFileManager files;
    platform::FaultyFileManager faulty{files};
    platform::NotificationCenter notifications;
    platform::FakeURLSessionFactory sessions{time};
    platform::Counters counters;
    std::shared_ptr<platform::Transactions> transactions = std::make_shared<platform::Transactions>(time);
    platform::FakeLocale locale;
    platform::FakeDeviceInformation device;
    platform::FakeMemoryPressure memory;
    platform::DeviceConditions conditions;
    platform::DispatcherActivityScheduler activities{{time, counters, files, conditions}};
    platform::FakeBus bus;
    platform::FakeBackgroundSessionFactory backgroundSessions{time, files};
    Assembly assembly{{.dispatcher = time,
                       .userDefaults = defaults,
                       .fileManager = faulty,
                       .notificationCenter = notifications,
                       .urlSessions = sessions,
                       .counters = counters,
                       .transactions = transactions,
                       .locale = locale,
                       .device = device,
                       .memoryPressure = memory,
                       .activities = activities,
                       .bus = bus,
                       .certificateAuthorityFile = {},
                       .backgroundSessions = &backgroundSessions}};
    int underWay = 0;
    std::string failure;
};

}  // namespace orvex
