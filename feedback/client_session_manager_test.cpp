#include "feedback/client_session_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "core/notifications.h"
#include "feedback/feedback_world_test.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using platform::LogLevel;
using Ids = std::vector<std::int64_t>;

constexpr std::int32_t ordinary = 1;
constexpr std::int32_t visibleResults = 8;
constexpr std::int32_t cardEngagement = 10;
constexpr std::int64_t ofDaemon = 0;  // the query id of a session's end

/// One session manager in a world of its own.
class Sessions {
public:
    explicit Sessions(platform::PropertyDictionary overrides = {}, bool shared = false) : world(std::move(overrides)) {
        world.assembly.setSharedSession(shared);
        world.notifications.observe<ORXSessionSoftLimitNotification>(heard, &Heard::softLimit);
        world.notifications.observe<ORXSessionMaxLimitNotification>(heard, &Heard::maxLimit);
        manager = ClientSessionManager::create(world.assembly, world.assembly.guidController(), "test");
    }
    void add(std::int32_t type, std::int64_t queryId, std::string agent = "Lumisk/1") {
        manager->addOrvexFeedback(FeedbackWorld::record(type, queryId, std::move(agent)), world.receipt());
        world.time.runPending();
    }
    void flush() {
        manager->flushSession([this] { ++flushes; });
        world.time.runPending();
    }
    void pass(std::chrono::seconds time) { world.time.advance(time); }
    Ids open() { return FeedbackWorld::ids(manager->currentSessionRecords()); }
    std::string guid() { return world.assembly.guidController()->currentUserGUID(); }
    bool logged(std::string_view text) { return world.log.contains(LogLevel::debug, "Orvex_Session", text); }
    std::size_t errors() {
        const auto lines = world.log.lines();
        return static_cast<std::size_t>(
            std::ranges::count_if(lines, [](const auto& line) { return line.level >= LogLevel::error; }));
    }

    // What comes to pass, each from second 0 on.
    void reachNoSession() { EXPECT_EQ(manager->currentState(), SessionState::noSession); }
    void reachBeforeSoftLimit() { add(ordinary, 1); }
    void reachAfterSoftLimit() {
        add(ordinary, 1);
        pass(590s);
        add(ordinary, 2);
        pass(10s);
        EXPECT_EQ(manager->currentState(), SessionState::afterSoftLimit);
    }

    struct Heard {
        int softLimits = 0;
        int maxLimits = 0;
        void softLimit(const ORXSessionSoftLimitNotification&) { ++softLimits; }
        void maxLimit(const ORXSessionMaxLimitNotification&) { ++maxLimits; }
    };

    FeedbackWorld world;
    std::shared_ptr<Heard> heard = std::make_shared<Heard>();
    std::shared_ptr<ClientSessionManager> manager;
    int flushes = 0;
};

struct Cell {
    const char* name;
    void (Sessions::*reach)();
    void (*happen)(Sessions&);
    SessionState next;
    Ids ended;                               ///< the records of the session that ended; none: none has
    SessionEndReason reason;                 ///< which it then says, and the next session says of it
    Ids open;                                ///< the records of the open session afterwards
    enum class GUID { kept, renewed } guid;  ///< the user GUID
};

constexpr auto before = SessionState::beforeSoftLimit;
constexpr auto after = SessionState::afterSoftLimit;
constexpr auto none = SessionState::noSession;
constexpr auto kept = Cell::GUID::kept;
constexpr auto renewed = Cell::GUID::renewed;
using enum SessionEndReason;

void ordinaryRecord(Sessions& sessions) { sessions.add(ordinary, 9); }
void flushRequest(Sessions& sessions) { sessions.flush(); }
void resultsVisible(Sessions& sessions) { sessions.add(visibleResults, 9); }
void cardEngaged(Sessions& sessions) { sessions.add(cardEngagement, 9); }
void justNotIdle(Sessions& sessions) {
    sessions.pass(169s);
    sessions.add(ordinary, 9);
}
void idleTimeOver(Sessions& sessions) {  // 180 s after the last record, to the second
    sessions.pass(sessions.manager->currentState() == after ? 170s : 180s);
    sessions.add(ordinary, 9);
}
void otherGUID(Sessions& sessions) {
    sessions.world.assembly.guidController()->reset();
    sessions.add(ordinary, 9);
}
void softLimitPasses(Sessions& sessions) { sessions.pass(600s); }
void maximumTimePasses(Sessions& sessions) { sessions.pass(300s); }

constexpr auto inNone = &Sessions::reachNoSession;
constexpr auto early = &Sessions::reachBeforeSoftLimit;
constexpr auto late = &Sessions::reachAfterSoftLimit;

// Every event in every state. What would be an event in one state only happens in the others, too, and must then be an
// ordinary record, or nothing.
const Cell cells[] = {
    {"record", inNone, ordinaryRecord, before, {}, unknown, {9}, kept},
    {"record", early, ordinaryRecord, before, {}, unknown, {1, 9}, kept},
    {"record", late, ordinaryRecord, after, {}, unknown, {1, 2, 9}, kept},
    {"soft limit", inNone, softLimitPasses, none, {}, unknown, {}, kept},
    {"soft limit", early, softLimitPasses, after, {}, unknown, {1}, kept},
    {"maximum", early, maximumTimePasses, before, {}, unknown, {1}, kept},
    {"maximum", late, maximumTimePasses, none, {1, 2, ofDaemon}, maxSessionTimePassed, {}, renewed},  // it expires now
    {"flush", inNone, flushRequest, none, {}, unknown, {}, kept},
    {"flush", early, flushRequest, none, {1, ofDaemon}, externalRequest, {}, kept},
    {"flush", late, flushRequest, none, {1, 2, ofDaemon}, externalRequest, {}, kept},
    {"idle", inNone, idleTimeOver, before, {}, unknown, {9}, kept},
    {"idle", early, idleTimeOver, before, {}, unknown, {1, 9}, kept},
    {"not idle", late, justNotIdle, after, {}, unknown, {1, 2, 9}, kept},
    {"idle", late, idleTimeOver, before, {1, 2, ofDaemon}, sessionIdle, {9}, renewed},
    {"GUID", inNone, otherGUID, before, {}, unknown, {9}, renewed},
    {"GUID", early, otherGUID, before, {1, ofDaemon}, guidChanged, {9}, renewed},
    {"GUID", late, otherGUID, before, {1, 2, ofDaemon}, guidChanged, {9}, renewed},
    {"visible results", inNone, resultsVisible, before, {}, unknown, {9}, kept},
    {"visible results", early, resultsVisible, before, {}, unknown, {1, 9}, kept},
    {"visible results", late, resultsVisible, none, {1, 2, 9, ofDaemon}, engagementReceived, {}, renewed},
    {"card engagement", late, cardEngaged, none, {1, 2, 9, ofDaemon}, engagementReceived, {}, renewed},
};

void expectEnded(const Cell& cell, Sessions& sessions) {
    const auto finished = sessions.world.finished();
    ASSERT_EQ(finished.size(), cell.ended.empty() ? 0u : 1u);
    if (finished.empty()) return;
    const auto& session = finished[0];
    EXPECT_EQ(FeedbackWorld::ids(session.feedbacks()), cell.ended);
    EXPECT_EQ(session.previous_session_end_reason(), 0);
    const auto& end = session.feedbacks(session.feedbacks_size() - 1);
    EXPECT_EQ(end.payload().session_end().reason(), static_cast<std::int32_t>(cell.reason));
    EXPECT_EQ(end.user_agent(), session.agent());
    for (const auto& record : session.feedbacks()) EXPECT_EQ(record.user_guid(), session.user_guid_string());
}

TEST(ClientSessionManagerTest, EveryEventInEveryStateDoesWhatTheTableSays) {
    for (const auto& cell : cells) {
        Sessions sessions;
        const auto guid = sessions.guid();
        (sessions.*cell.reach)();
        SCOPED_TRACE(std::string(cell.name) + " in state " +
                     std::to_string(static_cast<std::uint32_t>(sessions.manager->currentState())));
        cell.happen(sessions);
        EXPECT_EQ(sessions.manager->currentState(), cell.next);
        EXPECT_EQ(sessions.open(), cell.open);
        EXPECT_EQ(sessions.guid() != guid, cell.guid == renewed);
        for (const auto& record : sessions.manager->currentSessionRecords())
            EXPECT_EQ(record.user_guid(), sessions.guid());
        EXPECT_EQ(sessions.world.underWay, 0);
        EXPECT_EQ(sessions.world.transactions->count(), 0u);
        expectEnded(cell, sessions);
        if (cell.open.empty()) sessions.add(ordinary, 10);
        sessions.flush();  // what comes next tells how this one ended
        EXPECT_EQ(sessions.world.finished().back().previous_session_end_reason(),
                  static_cast<std::int32_t>(cell.reason));
    }
}

TEST(ClientSessionManagerTest, AnEventThatAStateDoesNotExpectChangesNothing) {
    for (const auto& [event, state] : {std::pair{SessionEvent::softLimit, after},
                                       {SessionEvent::softLimit, none},
                                       {SessionEvent::maximumTime, before},
                                       {SessionEvent::maximumTime, none},
                                       {SessionEvent::recordAfterIdle, before},
                                       {SessionEvent::recordAfterIdle, none},
                                       {SessionEvent::guidChanged, none},
                                       {SessionEvent::sessionEndingRecord, before},
                                       {SessionEvent::sessionEndingRecord, none}}) {
        EXPECT_EQ(sessionTransition(event, state), (SessionTransition{.flush = std::nullopt, .next = state}));
    }
}

TEST(ClientSessionManagerTest, TimersTellTheirNotificationsAndKnowTheirSession) {
    Sessions sessions;
    sessions.reachBeforeSoftLimit();
    sessions.pass(600s);
    EXPECT_EQ(sessions.heard->softLimits, 1);
    EXPECT_TRUE(sessions.logged("soft limit reached expected 1 current 1 test"));
    sessions.flush();
    sessions.add(ordinary, 2);
    sessions.pass(300s);  // the first session's greatest age: told, and nothing else
    EXPECT_EQ(sessions.heard->maxLimits, 1);
    EXPECT_TRUE(sessions.logged("max timer expired expected 1 current 2"));
    EXPECT_EQ(sessions.open(), Ids{2});
    sessions.pass(300s);
    EXPECT_EQ(sessions.heard->softLimits, 2);
    sessions.flush();
    sessions.pass(300s);  // the second's, and none is open: not even told
    EXPECT_EQ(sessions.heard->maxLimits, 1);

    sessions.add(ordinary, 3);
    sessions.flush();
    sessions.add(ordinary, 4);
    sessions.pass(599s);
    sessions.flush();
    sessions.pass(1s);  // the soft limit of a session that has ended: no notification
    EXPECT_EQ(sessions.heard->softLimits, 2);
    sessions.pass(900s);
    EXPECT_EQ(sessions.heard->maxLimits, 1);
    EXPECT_FALSE(sessions.world.time.nextDue());
}

TEST(ClientSessionManagerTest, TheMaximumTimeIsToldWhenItEndsASession) {
    Sessions sessions;
    sessions.reachBeforeSoftLimit();
    sessions.pass(900s);
    EXPECT_EQ(sessions.heard->maxLimits, 1);
    EXPECT_TRUE(sessions.logged("session flushed because max timer expired test"));
}

TEST(ClientSessionManagerTest, LimitsComeFromTheDefaults) {
    const auto with = [](const char* key, std::int64_t value) { return platform::PropertyDictionary{{key, value}}; };
    constexpr auto soft = "ORXSessionSoftLimitOverride";
    constexpr auto idleTime = "ORXSessionIdleTimeOverride";
    struct {
        platform::PropertyDictionary overrides;
        std::int64_t softLimit, idle, maximum;
        std::string_view error;
    } const cases[] = {
        {{}, 600, 180, 300, ""},
        {with(soft, 0), 600, 180, 300, "Soft limit override value must be greater than 0 : 0 defaulting to 600"},
        {with(soft, -5), 600, 180, 300, "Soft limit override value must be greater than 0 : -5 defaulting to 600"},
        {with(soft, 899), 899, 180, 1, ""},
        {with(soft, 900), 600, 180, 300,
         "Soft limit override value must be less than guid expiration 900 : 900 defaulting to 600"},
        {with(idleTime, 0), 600, 180, 300, "Idle limit override value must be greater than 0 : 0 defaulting to 180"},
        {with(idleTime, 100'000), 600, 100'000, 300, ""},
    };
    for (const auto& [overrides, softLimit, idle, maximum, error] : cases) {
        Sessions sessions(overrides);
        const auto limits = ClientSessionManager::limitsFrom(sessions.world.defaults);
        EXPECT_EQ(limits, (ClientSessionManager::Limits{std::chrono::seconds(softLimit), std::chrono::seconds(idle),
                                                        std::chrono::seconds(maximum)}));
        EXPECT_EQ(sessions.errors() > 0, !error.empty());
        EXPECT_TRUE(error.empty() || sessions.world.log.contains(LogLevel::error, "Orvex_Session", error));
    }
}

TEST(ClientSessionManagerTest, ASoftLimitOverrideMovesOnlyTheMaximumTime) {
    Sessions sessions({{"ORXSessionSoftLimitOverride", 800},
                       {"ORXSessionIdleTimeOverride", std::numeric_limits<std::int64_t>::max()}});
    sessions.reachBeforeSoftLimit();
    sessions.pass(599s);
    EXPECT_EQ(sessions.manager->currentState(), before);
    sessions.pass(1s);
    EXPECT_EQ(sessions.manager->currentState(), after);
    sessions.add(ordinary, 2);  // never idle, whatever is added to the moment
    EXPECT_EQ(sessions.open(), (Ids{1, 2}));
    sessions.pass(100s);
    EXPECT_EQ(sessions.manager->currentState(), none);
}

TEST(ClientSessionManagerTest, AGUIDThatExpiresOrAClockThatGoesBackEndsTheSession) {
    for (const bool clockGoesBack : {false, true}) {
        Sessions sessions({{"ORXSessionSoftLimitOverride", 100}});  // 800 s until the maximum
        sessions.reachBeforeSoftLimit();
        if (clockGoesBack) {
            sessions.world.time.jumpWall(-24h);
        } else {
            sessions.pass(900s);
        }
        sessions.add(ordinary, 2);
        EXPECT_TRUE(sessions.logged("session flushed because guid changed test"));
        EXPECT_EQ(sessions.open(), Ids{2});
    }
}

TEST(ClientSessionManagerTest, ASharedSessionHasAFileForEveryAgent) {
    Sessions sessions({}, true);
    sessions.add(ordinary, 1, "Lumisk/1");
    sessions.add(ordinary, 2, "Brovia/1");
    sessions.add(ordinary, 3, "Lumisk/1");
    sessions.add(ordinary, 4, "");
    EXPECT_EQ(sessions.world.count("feedbackdropped.noagent"), 1);
    EXPECT_EQ(sessions.world.underWay, 0);
    EXPECT_EQ(sessions.open().size(), 3u);

    std::optional<bool> flushed;
    sessions.manager->flushSessionInvalidation("Brovia/1", [&](bool answer) { flushed = answer; });
    EXPECT_EQ(flushed, false);  // at once
    sessions.flush();
    const auto finished = sessions.world.finished();
    ASSERT_EQ(finished.size(), 2u);
    EXPECT_EQ(finished[0].agent(), "Brovia/1");
    EXPECT_EQ(FeedbackWorld::ids(finished[0].feedbacks()), (Ids{2, ofDaemon, ofDaemon}));
    EXPECT_TRUE(finished[0].feedbacks(1).payload().has_connection_invalidated());
    EXPECT_TRUE(finished[0].feedbacks(2).payload().has_session_end());
    EXPECT_EQ(FeedbackWorld::ids(finished[1].feedbacks()), (Ids{1, 3, ofDaemon}));
    EXPECT_EQ(finished[0].user_guid_string(), finished[1].user_guid_string());
}

TEST(ClientSessionManagerTest, TheFirstRecordOfASharedSessionMayHaveNoAgent) {
    Sessions sessions({}, true);
    sessions.add(ordinary, 1, "");
    sessions.add(ordinary, 2, "");
    EXPECT_EQ(sessions.open(), Ids{1});
    EXPECT_EQ(sessions.world.count("feedbackdropped.noagent"), 1);
}

TEST(ClientSessionManagerTest, AnIndividualSessionIsFlushedWhenItsConnectionGoes) {
    Sessions sessions;
    sessions.add(ordinary, 1);
    std::optional<bool> flushed;
    sessions.manager->flushSessionInvalidation("Lumisk/1", [&](bool answer) { flushed = answer; });
    sessions.world.time.runPending();
    EXPECT_EQ(flushed, true);
    EXPECT_EQ(sessions.world.finished().size(), 1u);
    sessions.flush();  // none is open
    EXPECT_EQ(sessions.flushes, 1);
    EXPECT_EQ(sessions.world.finished().size(), 1u);
}

class RecordingListener : public FlusherListener {
public:
    [[nodiscard]] bool hasReceivingStreamListener() const override { return listens; }
    [[nodiscard]] bool hasSendingStreamListener() const override { return false; }
    void sendDataToReceivingStreamListener(std::shared_ptr<const CXOrvexFeedback> record) override {
        records.push_back(*record);
    }
    void sendDataToSendingStreamListener(std::string) override {}

    bool listens = false;
    std::vector<CXOrvexFeedback> records;
};

TEST(ClientSessionManagerTest, AToolThatListensGetsRecordsAsTheyCameIn) {
    Sessions sessions;
    const auto listener = std::make_shared<RecordingListener>();
    sessions.world.assembly.setFlusherListener(listener);
    sessions.add(ordinary, 1);
    listener->listens = true;
    sessions.add(ordinary, 2);
    EXPECT_EQ(FeedbackWorld::ids(listener->records), Ids{2});
    EXPECT_FALSE(listener->records[0].has_user_guid());
}

TEST(ClientSessionManagerTest, ADiskThatFailsFailsTheRecordThatItCost) {
    Sessions sessions;
    sessions.add(ordinary, 1);
    sessions.world.faulty.plan().inject(platform::DirectoryFault::writeFails);
    sessions.add(ordinary, 2);
    EXPECT_NE(sessions.world.failure, "");
    sessions.add(ordinary, 3);
    EXPECT_EQ(sessions.world.failure, "");
    EXPECT_EQ(sessions.open(), (Ids{1, 3}));

    sessions.flush();
    sessions.world.faulty.plan().inject(platform::DirectoryFault::writeFails);  // of the file itself
    sessions.add(ordinary, 4);
    EXPECT_EQ(sessions.world.failure, "the session has no file");
    sessions.flush();
    EXPECT_TRUE(sessions.world.log.contains(LogLevel::fault, "Orvex_Session", "Storage Handle nil major error"));
    EXPECT_EQ(sessions.world.faulty.plan().injected(), 2u);
}

TEST(ClientSessionManagerTest, ErrorsOfTheDaemonGoToTheAssemblysManager) {
    Sessions sessions({}, true);
    reportErrorAsOrvexdFeedback(ORXError(ORXErrorCode::internal, "lost"), sessions.world.assembly);  // to nobody
    sessions.world.assembly.setClientSessionManager(sessions.manager);
    reportErrorAsOrvexdFeedback(ORXError(ORXErrorCode::internal, "why"), sessions.world.assembly);
    const auto records = sessions.manager->currentSessionRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].user_guid(), sessions.guid());
    EXPECT_EQ(records[0].user_agent().substr(0, 7), "orvexd/");
    EXPECT_EQ(records[0].payload().error().error().user_info().at("reason").string_value(), "why");
}

}  // namespace
}  // namespace orvex
