#include <gtest/gtest.h>

#include "core/feedback_record.h"
#include "core/feedback_records.pb.h"
#include "daemon/client_connection.h"
#include "daemon/daemon_world_test.h"
#include "feedback/client_session_manager_protocol.h"
#include "query/client_state.h"

namespace orvex {
namespace {

using platform::LogLevel;

/// Records of clients on their road through the whole daemon to a session's file.
class SessionsRoadTest : public testing::Test {
protected:
    void start(std::string bag) {
        world.serveBag(std::move(bag));
        world.start();
    }
    std::shared_ptr<ClientSessionManagerProtocol> manager() { return world.assembly.clientSessionManager(); }
    void add(const std::string& agent) {
        CXSearchViewAppearFeedback appeared;
        manager()->addOrvexFeedback(orvexFeedbackWithCodable(appeared, {.userAgent = agent}),
                                    RecordReceipt([this](const auto&) { ++answered; }));
        world.time.runPending();
    }
    std::vector<std::string> agentsOfOpenRecords() {
        std::vector<std::string> agents;
        for (const auto& record : manager()->currentSessionRecords()) agents.push_back(record.user_agent());
        return agents;
    }
    std::uint32_t status(std::string_view entry) { return *world.status().find(entry)->as<std::uint32_t>(); }
    std::int64_t count(std::string_view name) { return world.counters.value("com.kelvar.orvexd." + std::string(name)); }
    using Texts = std::vector<std::string>;

    DaemonWorld world;
    int answered = 0;
};

TEST_F(SessionsRoadTest, TheBagSwitchesFeedbackForEachAgent) {
    start(R"({"version": "1", "feedback_enabled": false,
              "user_agents": [{"match": "lumisk", "values": {"feedback_enabled": true}}]})");
    add("Lumisk/1");
    add("Brovia/1");
    add("Brovia/1");
    EXPECT_EQ(agentsOfOpenRecords(), Texts{"Lumisk/1"});
    EXPECT_EQ(count("feedbackdropped.disabled"), 2);
    EXPECT_EQ(answered, 3);
    EXPECT_TRUE(world.transactions->openNames().empty());

    // A new bag counts from the next record on.
    world.serveBag(R"({"version": "2", "feedback_enabled": true})");
    world.time.advance(std::chrono::hours(4));
    add("Lumisk/1");  // asks for the bag, which is stale
    add("Brovia/1");
    EXPECT_EQ(agentsOfOpenRecords(), (Texts{"Brovia/1", "Lumisk/1"}));
}

TEST_F(SessionsRoadTest, TheStatusTellsOfSessions) {
    start(R"({"version": "1", "feedback_enabled": true})");
    EXPECT_EQ(status("session_state"), 2u);
    const auto waiting = status("sessions_waiting");
    add("Lumisk/1");
    EXPECT_EQ(status("session_state"), 0u);
    EXPECT_EQ(status("sessions_open"), 1u);
    EXPECT_EQ(manager()->openRecords(), 1u);
    manager()->flushSession(nullptr);
    world.time.runPending();
    EXPECT_EQ(status("session_state"), 2u);
    EXPECT_EQ(status("sessions_waiting"), waiting + 1);
    EXPECT_EQ(status("sessions_open"), 0u);
    EXPECT_EQ(manager()->openRecords(), 0u);
}

TEST_F(SessionsRoadTest, AClientThatLeavesASharedSessionIsRecorded) {
    start(R"({"version": "1", "feedback_enabled": true})");
    world.configure(":1.1");
    add(world.service->getClientConnections().at(0)->state()->userAgent().value());
    world.bus.vanish(":1.1");
    world.time.runPending();
    EXPECT_TRUE(world.log.contains(LogLevel::standard, "Orvex_Session", "session not flushed on invalidation"));
    EXPECT_TRUE(manager()->currentSessionRecords().back().payload().has_connection_invalidated());
}

TEST_F(SessionsRoadTest, AClientWithASessionOfItsOwnFlushesItWhenItLeaves) {
    world.defaults.store("ORXSharedSession", false);
    start(R"({"version": "1", "feedback_enabled": true})");
    world.configure(":1.1");
    const auto own = world.service->getClientConnections().at(0)->state()->sessionManager();
    EXPECT_NE(own, manager());
    own->addOrvexFeedback(orvexFeedbackWithCodable(CXSearchViewAppearFeedback(), {.userAgent = "Lumisk/1"}));
    world.time.runPending();
    EXPECT_EQ(own->currentState(), SessionState::beforeSoftLimit);
    EXPECT_EQ(manager()->currentState(), SessionState::noSession);
    world.bus.vanish(":1.1");
    world.time.runPending();
    EXPECT_TRUE(world.log.contains(LogLevel::standard, "Orvex_Session", "session flushed on invalidation"));
    EXPECT_EQ(own->currentState(), SessionState::noSession);
}

}  // namespace
}  // namespace orvex
