#include "daemon/orvex_logging.h"

#include <gtest/gtest.h>

namespace orvex {
namespace {

TEST(OrvexLoggingDeathTest, ACategoryBeyondTheLastAborts) {
    EXPECT_DEATH(OrvexLogForCategory(OrvexLoggingCategory{21}), "category < OrvexLoggingCategoryCount");
}

}  // namespace
}  // namespace orvex
