#include <gtest/gtest.h>

#include "core/notifications.h"
#include "daemon/daemon_world_test.h"
#include "feedback/guid_controller.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;

struct RollCounter {
    int rolls = 0;
    void rolled(const ORXUserGUIDChangeNotification&) { ++rolls; }
};

class UserGUIDTest : public testing::Test {
protected:
    UserGUIDTest() {
        world.notifications.observe<ORXUserGUIDChangeNotification>(counter, &RollCounter::rolled);
        controller = makeUserGUIDController(world.assembly);
        first = controller->currentUserGUID();
    }
    int rolls() {
        world.time.runPending();
        return counter->rolls;
    }

    DaemonWorld world;
    std::shared_ptr<RollCounter> counter = std::make_shared<RollCounter>();
    std::shared_ptr<GUIDController> controller;
    std::string first;
};

TEST_F(UserGUIDTest, ItRollsAfterNineHundredSeconds) {
    world.time.advance(899s);
    EXPECT_EQ(controller->currentUserGUID(), first);
    world.time.advance(1s);
    EXPECT_NE(controller->currentUserGUID(), first);
    EXPECT_EQ(rolls(), 1);
    EXPECT_EQ(world.counters.value("com.kelvar.orvexd.userguid"), 1);
    EXPECT_FALSE(world.time.nextDue());
}

TEST_F(UserGUIDTest, AResetIsSeenByTheNextWhoAsks) {
    controller->reset();
    EXPECT_NE(controller->currentUserGUID(), first);
    EXPECT_EQ(rolls(), 1);
}

TEST_F(UserGUIDTest, ItRollsWhenTheDateGoesBackToBeforeItWasMade) {
    world.time.jumpWall(-1s);
    EXPECT_NE(controller->currentUserGUID(), first);
}

}  // namespace
}  // namespace orvex
