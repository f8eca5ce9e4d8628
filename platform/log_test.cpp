#include "platform/log.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "platform/fakes/recording_log.h"
#include "platform/log_events.h"

namespace orvex::platform {
namespace {

/// An argument that tells when it is formatted.
struct Telltale {
    int* formatted;
};

}  // namespace
}  // namespace orvex::platform

template <>
struct fmt::formatter<orvex::platform::Telltale> : fmt::formatter<std::string_view> {
    template <class Context>
    auto format(orvex::platform::Telltale telltale, Context& context) const {
        ++*telltale.formatted;
        return fmt::formatter<std::string_view>::format("told", context);
    }
};

namespace orvex::platform {
namespace {

const Logger& logger() {
    static const Logger search("com.kelvar.orvexd", "Orvex_Search");
    return search;
}

TEST(Log, ALevelAboveTheOneInForceIsWrittenAndOneBelowIsNotEvenFormatted) {
    const RecordingLog log(LogLevel::info);
    int formatted = 0;
    logger().debug("{}", Telltale{&formatted});
    EXPECT_EQ(formatted, 0);
    logger().info("{}", Telltale{&formatted});
    logger().fault("fault {}", 2);
    EXPECT_EQ(formatted, 1);
    EXPECT_EQ(log.lines().size(), 2u);
    EXPECT_TRUE(log.contains(LogLevel::info, "Orvex_Search", "told"));
    EXPECT_TRUE(log.contains(LogLevel::fault, "Orvex_Search", "fault 2"));
    EXPECT_EQ(log.lines()[0].subsystem, "com.kelvar.orvexd");
}

TEST(Log, PrivateArgumentsShowOnlyWhenTheLevelInForceIsDebug) {
    {
        const RecordingLog log(LogLevel::info);
        logger().error("query '{}' failed", privately("socks"));
        EXPECT_EQ(log.lines()[0].text, "query '<private>' failed");
    }
    const RecordingLog log(LogLevel::debug);
    logger().error("query '{}' failed", privately("socks"));
    EXPECT_EQ(log.lines()[0].text, "query 'socks' failed");
}

TEST(Log, ForeignTextCannotForgeALine) {
    const RecordingLog log;
    logger().log("agent {}", "x\n2026-01-01T00:00:00.000Z fault - forged\x1b[2J");
    EXPECT_EQ(log.lines()[0].text, "agent x\\x0A2026-01-01T00:00:00.000Z fault - forged\\x1B[2J");
}

TEST(Log, AnEventCarriesItsFieldsEscapedAndCut) {
    const RecordingLog log(LogLevel::error);
    const std::string forged = "a\nMESSAGE_ID=b";
    logger().as(LogEvent::writeFailed, {{"ORVEX_FILE", forged}, {"ORVEX_REASON", std::string(2000, 'x')}}).error("no");
    logger().as(LogEvent::clientRefused, {{"ORVEX_COUNT", std::size_t{1024}}}).error("{}", "many");
    logger().as(LogEvent::started).log("below the level in force");
    logger().error("no event");
    const auto failed = log.events(LogEvent::writeFailed);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].text, "no");
    EXPECT_EQ(failed[0].category, "Orvex_Search");
    EXPECT_EQ(failed[0].fields.at("ORVEX_FILE"), "a\\x0AMESSAGE_ID=b");
    EXPECT_EQ(failed[0].fields.at("ORVEX_REASON"), std::string(maxLogFieldBytes, 'x') + "…");
    EXPECT_EQ(log.events(LogEvent::clientRefused).at(0).fields.at("ORVEX_COUNT"), "1024");
    EXPECT_EQ(log.lines().size(), 3u);
    EXPECT_FALSE(log.lines().back().event);
}

TEST(Log, ALongMessageIsCutOnACharacterBoundary) {
    const RecordingLog log;
    logger().log("{}", std::string(maxLogMessageBytes, 'a'));
    logger().log("{}", std::string(maxLogMessageBytes - 1, 'a') + "é and more");
    EXPECT_EQ(log.lines()[0].text, std::string(maxLogMessageBytes, 'a'));
    EXPECT_EQ(log.lines()[1].text, std::string(maxLogMessageBytes - 1, 'a') + "…");
}

TEST(Log, SinksMayBeChangedWhileOthersLog) {
    const RecordingLog outer(LogLevel::fault);
    std::atomic<bool> stop = false;
    std::vector<std::jthread> writers;
    for (int index = 0; index < 3; ++index) {
        writers.emplace_back([&stop] {
            while (!stop) logger().error("line {}", 1);
        });
    }
    std::size_t taken = 0;
    for (int round = 0; round < 100 || taken == 0; ++round) {
        const RecordingLog log(LogLevel::error);
        std::this_thread::yield();
        taken += log.lines().size();
    }
    stop = true;
    writers.clear();
    EXPECT_GT(taken, 0u);
    EXPECT_TRUE(outer.lines().empty());
}

}  // namespace
}  // namespace orvex::platform
