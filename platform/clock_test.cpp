#include "platform/clock.h"

#include <gtest/gtest.h>

#include <limits>

#include "platform/age.h"

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

TEST(ClockTest, AnAgeThatOnlyAWrongClockMakesIsNone) {
    const WallTime now(1'700'000'000s);
    EXPECT_EQ(ageOf(now - 3h, now), 3h);
    EXPECT_EQ(ageOf(now - std::chrono::years(9), now), std::chrono::years(9));
    for (const WallTime wrong :
         {now + 1s, now + std::chrono::years(30), WallTime(), WallTime::min(), WallTime::max()}) {
        EXPECT_EQ(ageOf(wrong, now), 0s) << secondsSince1970(wrong);
    }
}

}  // namespace
}  // namespace orvex::platform
