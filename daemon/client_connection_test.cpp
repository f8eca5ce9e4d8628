#include "daemon/client_connection.h"

#include <gtest/gtest.h>

#include <cmath>

#include "core/constants.h"
#include "core/notifications.h"
#include "daemon/client_state_manager.h"
#include "daemon/daemon_world_test.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using platform::BusDictionary;
using platform::LogLevel;

constexpr std::string_view invalidConfiguration = "com.kelvar.orvexd.Error.InvalidConfiguration";
constexpr std::string_view internalError = "com.kelvar.orvexd.Error.Internal";

class ClientConnectionTest : public testing::Test {
protected:
    std::size_t openTransactions() { return world.transactions->count(); }
    std::vector<std::string> signalsTo(const std::string& client) {
        std::vector<std::string> names;
        for (const auto& signal : world.bus.takeSignals(client)) names.push_back(signal.member);
        return names;
    }

    DaemonWorld world;
};

TEST_F(ClientConnectionTest, WithoutABagTheSignalStillFollowsAndTellsTheTimeout) {
    world.serveBag(std::nullopt);
    world.start();
    EXPECT_TRUE(world.configure(":1.1")->arguments.has_value());
    const auto signals = world.bus.takeSignals(":1.1");
    ASSERT_EQ(signals.size(), 1u);
    const auto* error = signals[0].arguments[1].as<BusDictionary>();
    EXPECT_EQ(*error->find("reason")->as<std::string>(), "timeout");
    EXPECT_EQ(*error->find("code")->as<std::int64_t>(), 1);
}

TEST_F(ClientConnectionTest, ABadConfigurationIsRefusedAndForgottenWithoutAState) {
    world.start();
    for (const auto& [identifier, agent] :
         std::vector<std::pair<std::string, std::string>>{{"", "Lumisk/1"},
                                                          {"x", ""},
                                                          {std::string(257, 'x'), "Lumisk/1"},
                                                          {"x", std::string(1025, 'a')},
                                                          {"x\n", "Lumisk/1"},
                                                          {"x", "Lumisk\x7f/1"}}) {
        EXPECT_EQ(world.configure(":1.1", identifier, agent)->errorName(), invalidConfiguration);
    }
    EXPECT_TRUE(world.log.contains(LogLevel::fault, "Orvex_Session", "configuration requires identifier"));
    EXPECT_TRUE(world.log.contains(LogLevel::fault, "Orvex_Session", "configuration requires userAgent"));
    EXPECT_TRUE(world.log.contains(LogLevel::fault, "Orvex_Session", "invalid configuration, closing connection"));
    EXPECT_TRUE(world.service->getClientConnections().empty());
    EXPECT_TRUE(world.configure(":1.1", std::string(256, 'x'), std::string(1024, 'a'))->arguments.has_value());
}

TEST_F(ClientConnectionTest, ARefusedClientIsForgottenBeforeItIsTold) {
    std::vector<std::string> order;
    const auto connection = ClientConnection::create(world.assembly, {{":1.1", 0, std::nullopt}, "client"},
                                                     [&] { order.emplace_back("forgotten"); });
    platform::BusCall call;
    call.member = "Configure";
    call.arguments = {BusDictionary{}};
    call.reply = platform::BusReply([&](auto) { order.emplace_back("told"); });
    connection->receive(std::move(call));
    world.time.runPending();
    EXPECT_EQ(order, (std::vector<std::string>{"forgotten", "told"}));
}

TEST_F(ClientConnectionTest, OneClientIdentifierTooManyIsBeyondALimit) {
    world.start();
    for (std::size_t i = 0; i < ClientStateManager::maxStates; ++i) {
        ASSERT_TRUE(world.assembly.clientStateManager()->stateForClientIdentifier(std::to_string(i)));
    }
    EXPECT_EQ(world.configure(":1.1", "one more")->errorName(), platform::bus_error::limitsExceeded);
    EXPECT_EQ(world.counters.value("com.kelvar.orvexd.clientstates.refused"), 1);
    EXPECT_TRUE(world.service->getClientConnections().empty());
    EXPECT_TRUE(world.configure(":1.1", "7")->arguments);
}

TEST_F(ClientConnectionTest, EntriesOfAWrongTypeAreNamed) {
    world.start();
    const auto outcome = world.configure(":1.1", std::uint32_t{5});
    EXPECT_EQ(outcome->errorName(), platform::bus_error::invalidArgs);
    EXPECT_NE(outcome->error->message.find("identifier"), std::string::npos);
}

TEST_F(ClientConnectionTest, AConnectionWithAStateKeepsItWhateverItIsToldLater) {
    world.start();
    ASSERT_TRUE(world.configure(":1.1", "first", "One/1")->arguments);
    EXPECT_EQ(world.configure(":1.1", "", "")->errorName(), invalidConfiguration);
    EXPECT_EQ(world.service->getClientConnections().size(), 1u);
    EXPECT_TRUE(world.configure(":1.1", "second", "Two/1")->arguments);
    EXPECT_TRUE(world.log.contains(LogLevel::fault, "Orvex_Session", "session identifier must match"));
    const auto sessions = world.callDaemon(":1.1", "ListSessions");
    const auto& items = sessions->arguments->at(0).as<platform::BusArray>()->items;
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(*items[0].as<BusDictionary>()->find("identifier")->as<std::string>(), "first");
    EXPECT_EQ(*items[0].as<BusDictionary>()->find("agent")->as<std::string>(),
              kORXOrvexdNameVersion() + " (Machine1,1; Test System 1.0 1A1) One/1");
}

TEST_F(ClientConnectionTest, WithoutAStateNobodyIsLeftWaiting) {
    world.start();
    EXPECT_EQ(world.callDaemon(":1.1", "Bag")->errorName(), platform::bus_error::noReply);
    EXPECT_TRUE(world.callDaemon(":1.1", "ListenToFlusher")->arguments);  // needs none
    EXPECT_EQ(world.callDaemon(":1.1", "Feedback", {""})->errorName(), platform::bus_error::noReply);
    EXPECT_EQ(world.search(":1.1", "a")->errorName(), platform::bus_error::noReply);
    EXPECT_EQ(
        world.callDaemon(":1.1", "ReportFeedbackPayloadData", {platform::BusBytes{}, std::uint64_t{0}})->errorName(),
        internalError);
    EXPECT_TRUE(world.callDaemon(":1.1", "ListSessions")->arguments);
    EXPECT_TRUE(world.callDaemon(":1.1", "GetImageMap")->arguments->at(0).as<BusDictionary>()->entries.empty());
    EXPECT_TRUE(world.callDaemon(":1.1", "AddCompletion", {"a", "b"})->arguments);
    EXPECT_TRUE(world.log.contains(LogLevel::fault, "Orvex_Session", "configuration must not be nil"));
}

TEST_F(ClientConnectionTest, NumbersThatAreNotFiniteAreRefused) {
    world.start();
    ASSERT_TRUE(world.configure(":1.1")->arguments);
    EXPECT_EQ(world.callDaemon(":1.1", "ClearEngagedCompletions", {0.0, std::nan("")})->errorName(),
              platform::bus_error::invalidArgs);
    EXPECT_EQ(world.callDaemon(":1.1", "UpdateParameters", {1.0, 1.0, 1.0, INFINITY, 1.0, 1.0, 1.0})->errorName(),
              platform::bus_error::invalidArgs);
}

TEST_F(ClientConnectionTest, SixtyIdleSecondsEndTheTransactionAndTheNextCallOpensOne) {
    world.start();
    ASSERT_TRUE(world.configure(":1.1")->arguments);
    world.time.advance(59s);
    ASSERT_TRUE(world.callDaemon(":1.1", "ListSessions")->arguments);
    world.time.advance(59s);
    EXPECT_EQ(openTransactions(), 1u);
    world.time.advance(1s);
    EXPECT_EQ(openTransactions(), 0u);
    EXPECT_TRUE(world.log.contains(LogLevel::debug, "Orvex_Connection", "timing out idle xpc transaction"));
    EXPECT_GT(world.time.nextDue().value(), world.time.now() + 3h);  // none but the background activities'
    ASSERT_TRUE(world.callDaemon(":1.1", "ListSessions")->arguments);
    EXPECT_EQ(openTransactions(), 1u);
}

TEST_F(ClientConnectionTest, AClientThatLeavesHoldsItsTransactionForSixtySecondsMore) {
    world.start();
    ASSERT_TRUE(world.configure(":1.1")->arguments);
    world.bus.vanish(":1.1");
    world.time.runPending();
    EXPECT_EQ(openTransactions(), 1u);
    world.time.advance(60s);
    EXPECT_EQ(openTransactions(), 0u);
}

TEST_F(ClientConnectionTest, EveryConfigureAddsOneMoreBagRegistrationUpToSixteen) {
    world.start();
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(world.configure(":1.1")->arguments);
    ASSERT_TRUE(world.configure(":1.2")->arguments);
    (void)signalsTo(":1.1");
    (void)signalsTo(":1.2");
    world.time.jumpWall(4h);
    (void)world.search(":1.2", "renews the bag");
    world.time.runPending();
    EXPECT_EQ(signalsTo(":1.1").size(), 16u);
    EXPECT_EQ(signalsTo(":1.2").size(), 1u);
}

TEST_F(ClientConnectionTest, TheImageMapIsTheBagsResources) {
    world.serveBag(R"({"resources": {"tree": "https://x.example/tree.png", "odd": 5}})");
    world.start();
    ASSERT_TRUE(world.configure(":1.1")->arguments);
    const auto outcome = world.callDaemon(":1.1", "GetImageMap");
    const auto* images = outcome->arguments->at(0).as<BusDictionary>();
    ASSERT_EQ(images->entries.size(), 1u);
    EXPECT_EQ(*images->find("tree")->as<std::string>(), "https://x.example/tree.png");
}

}  // namespace
}  // namespace orvex
