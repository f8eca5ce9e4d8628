#include "daemon/orvex_logging.h"

#include <gtest/gtest.h>

#include "platform/fakes/recording_log.h"

namespace orvex {
namespace {

TEST(OrvexLoggingTest, EachCategoryHasItsOwnName) {
    EXPECT_EQ(OrvexLogForCategory(OrvexLoggingCategory::general).category(), "Orvex");
    EXPECT_EQ(OrvexLogForCategory(OrvexLoggingCategory::lookUp).category(), "Orvex_LookUp");
    EXPECT_EQ(OrvexLogForCategory(OrvexLoggingCategory::bag).category(), "Orvex_Bag");
    EXPECT_EQ(OrvexLogForCategory(OrvexLoggingCategory::feedbackErrors).category(), "Orvex_Feedback_Errors");
    EXPECT_EQ(OrvexLogForCategory(OrvexLoggingCategory::uploadManager).category(), "Orvex_UploadManager");
    EXPECT_EQ(static_cast<std::uint32_t>(OrvexLoggingCategory::uploadManager) + 1, OrvexLoggingCategoryCount);
}

TEST(OrvexLoggingTest, ALoggerStaysTheSameAndWritesUnderTheSubsystem) {
    const platform::RecordingLog log;
    const auto& logger = OrvexLogForCategory(OrvexLoggingCategory::search);
    EXPECT_EQ(&logger, &OrvexLogForCategory(OrvexLoggingCategory::search));
    logger.error("it happened");
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines().front().subsystem, "com.kelvar.orvexd");
    EXPECT_EQ(log.lines().front().category, "Orvex_Search");
}

TEST(OrvexLoggingDeathTest, ACategoryBeyondTheLastAborts) {
    EXPECT_DEATH(OrvexLogForCategory(OrvexLoggingCategory{21}), "category < OrvexLoggingCategoryCount");
}

}  // namespace
}  // namespace orvex
