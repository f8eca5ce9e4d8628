#include "platform/clock.h"

#include <gtest/gtest.h>

#include <limits>

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;

TEST(ClockTest, WhatNoDateCanHoldSaturates) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    for (const double late : {infinity, 1e300, 9223372036.9, 9223372036.854776}) {
        EXPECT_EQ(wallTimeFromSeconds(late), WallTime::max()) << late;
        EXPECT_EQ(wallTimeFromSeconds(-late), WallTime::min()) << -late;
    }
    // The last seconds on either side do not overflow on the way.
    EXPECT_LT(wallTimeFromSeconds(9223372036.8547), WallTime::max());
    EXPECT_GT(wallTimeFromSeconds(-9223372036.8547), WallTime::min());
    EXPECT_EQ(wallTimeFromSeconds(std::numeric_limits<double>::quiet_NaN()), WallTime());
}

}  // namespace
}  // namespace orvex::platform
