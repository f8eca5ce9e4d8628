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
#include "platform/fakes/fake_platform.h"

namespace orvex {

/// The components that keep feedback on a platform of fakes, without a bag: real storage, a user GUID, and time that
/// stands still until it is moved.
class FeedbackWorld : public platform::TestPlatform {
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

    Assembly assembly{as<Assembly::Platform>()};
    int underWay = 0;
    std::string failure;
};

}  // namespace orvex
