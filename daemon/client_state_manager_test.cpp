#include "daemon/client_state_manager.h"

#include <gtest/gtest.h>

#include "daemon/daemon_world_test.h"
#include "query/client_state.h"

namespace orvex {
namespace {

using platform::PropertyArray;
using platform::PropertyDictionary;

class ClientStateManagerTest : public testing::Test {
protected:
    DaemonWorld world;
};

TEST_F(ClientStateManagerTest, AnIdentifierHasOneState) {
    ClientStateManager manager(world.assembly);
    const auto first = manager.stateForClientIdentifier("com.kelvar.Lumisk");
    ASSERT_TRUE(first);
    EXPECT_EQ(*first, *manager.stateForClientIdentifier("com.kelvar.Lumisk"));
    EXPECT_EQ((*first)->clientShortName(), "lumisk");
    EXPECT_NE(*first, *manager.stateForClientIdentifier("other"));
    EXPECT_EQ(manager.stateForClientIdentifier("").error(), ClientStateManager::Refusal::emptyIdentifier);
    EXPECT_TRUE(world.log.contains(platform::LogLevel::fault, "Orvex_Session",
                                   "client session identifier cannot be nil or empty"));
}

TEST_F(ClientStateManagerTest, NothingIsKeptUnlessItIsAskedFor) {
    world.defaults.store("sessions", PropertyArray{PropertyDictionary{{"identifier", "x"}, {"agent", "X/1"}}});
    ClientStateManager manager(world.assembly);
    EXPECT_TRUE(manager.sessions().empty());
    (*manager.stateForClientIdentifier("a"))->setUserAgent("A/1");
    manager.saveState();
    world.time.runPending();
    EXPECT_EQ(world.defaults.stored().at("sessions").as<PropertyArray>()->size(), 1u);
}

TEST_F(ClientStateManagerTest, StatesWithAnAgentComeBackAfterARestart) {
    world.defaults.store("ORXPersistSessions", true);
    world.defaults.store("sessions",
                         PropertyArray{PropertyDictionary{{"identifier", "x"}}, PropertyDictionary{{"agent", "lost"}},
                                       PropertyDictionary{{"identifier", 5}}, "odd",
                                       PropertyDictionary{{"identifier", "y"}, {"agent", "Y/1"}}});
    {
        ClientStateManager manager(world.assembly);
        ASSERT_EQ(manager.sessions().size(), 1u);
        EXPECT_EQ(manager.sessions()[0].agent, "Y/1");
        EXPECT_FALSE((*manager.stateForClientIdentifier("x"))->userAgent());
        (*manager.stateForClientIdentifier("z"))->setUserAgent("Z/1");
        manager.saveState();
    }
    const ClientStateManager again(world.assembly);
    ASSERT_EQ(again.sessions().size(), 2u);
    EXPECT_EQ(again.sessions()[1].identifier, "z");
}

}  // namespace
}  // namespace orvex
