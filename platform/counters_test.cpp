#include "platform/counters.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace orvex::platform {
namespace {

TEST(CountersTest, SumsSaturate) {
    Counters counters;
    counters.set("up", std::numeric_limits<std::int64_t>::max());
    counters.add("up");
    EXPECT_EQ(counters.value("up"), std::numeric_limits<std::int64_t>::max());
    counters.set("down", std::numeric_limits<std::int64_t>::min());
    counters.add("down", -1);
    EXPECT_EQ(counters.value("down"), std::numeric_limits<std::int64_t>::min());
}

TEST(CountersTest, NamesThatCannotBeKeptCountUnderOther) {
    Counters counters;
    counters.add("");
    counters.add("line\nend");
    counters.add("\xff");
    counters.add(std::string(Counters::maxNameBytes + 1, 'x'));
    EXPECT_EQ(counters.value(Counters::otherName), 4);
    EXPECT_EQ(counters.snapshot().size(), 1u);
    counters.add(std::string(Counters::maxNameBytes, 'x'));
    EXPECT_EQ(counters.value(Counters::otherName), 4);
}

TEST(CountersTest, ThereAreNeverMoreThanTheLimitOfNames) {
    Counters counters;
    for (std::size_t index = 0; index < Counters::maxNames + 10; ++index) counters.add("n" + std::to_string(index));
    EXPECT_EQ(counters.snapshot().size(), Counters::maxNames);
    EXPECT_EQ(counters.value(Counters::otherName), 11);
    counters.add("n0");  // known ones go on
    EXPECT_EQ(counters.value("n0"), 2);
}

TEST(CountersTest, AChangeIsReportedOnceUntilTheNextSnapshot) {
    Counters counters;
    int reports = 0;
    counters.setChangeHandler([&] {
        ++reports;
        (void)counters.value("a");  // no lock is held
    });
    counters.add("a");
    counters.add("a");
    EXPECT_EQ(reports, 1);
    (void)counters.snapshot();
    EXPECT_EQ(reports, 1);
    counters.set("a", 7);
    EXPECT_EQ(reports, 2);
}

}  // namespace
}  // namespace orvex::platform
