#include "network/orx_tracing.h"

#include <gtest/gtest.h>

#include "platform/fakes/fake_user_defaults.h"
#include "platform/fakes/recording_log.h"

namespace orvex {
namespace {

TEST(ORXTracingTest, TheFlagIsReadOnceAndToldEachTime) {
    const platform::RecordingLog log;
    platform::FakeUserDefaults userDefaults;
    userDefaults.store("TraceEnabled", true);
    ORXTracingSetup(userDefaults);
    EXPECT_TRUE(ORXTraceEnabled());

    userDefaults.store("TraceEnabled", false);
    ORXTracingSetup(userDefaults);
    EXPECT_TRUE(ORXTraceEnabled());
    ASSERT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(log.lines().back().text, "ORXTraceEnabled flag set to 1");
    EXPECT_EQ(log.lines().back().level, platform::LogLevel::debug);
}

}  // namespace
}  // namespace orvex
