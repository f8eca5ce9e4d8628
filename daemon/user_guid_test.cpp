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

TEST(UserGUIDTest, ItRollsAfterNineHundredSeconds) {
    DaemonWorld world;
    const auto counter = std::make_shared<RollCounter>();
    world.notifications.observe<ORXUserGUIDChangeNotification>(counter, &RollCounter::rolled);
    const auto controller = makeUserGUIDController(world.assembly);
    const auto first = controller->currentUserGUID();
    world.time.advance(899s);
    EXPECT_EQ(controller->currentUserGUID(), first);
    world.time.advance(1s);
    EXPECT_NE(controller->currentUserGUID(), first);
    world.time.runPending();
    EXPECT_EQ(counter->rolls, 1);
    EXPECT_EQ(world.counters.value("com.kelvar.orvexd.userguid"), 1);
    EXPECT_FALSE(world.time.nextDue());
}

}  // namespace
}  // namespace orvex
