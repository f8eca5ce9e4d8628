#include "platform/linux/counter_file.h"

#include <gtest/gtest.h>

#include "platform/fakes/fake_file_manager.h"
#include "platform/fakes/faulty_directory.h"
#include "platform/fakes/manual_dispatcher.h"

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;

class CounterFileTest : public testing::Test {
protected:
    std::shared_ptr<CounterFile> open() { return CounterFile::create(time, faulty, counters); }
    std::string saved() { return state()->read("counters", 1000).value_or("(none)"); }
    void write(std::string_view text) { ASSERT_TRUE(state()->replace("counters", text)); }
    std::shared_ptr<Directory> state() { return files.stateDirectory().value(); }
    void later() { time.advance(2 * CounterFile::saveDelay); }

    ManualDispatcher time;
    FakeFileManager files;
    FaultyFileManager faulty{files};
    Counters counters;
};

TEST_F(CounterFileTest, ChangesAreSavedTogetherSomeTimeAfterTheFirst) {
    const auto file = open();
    counters.add("b c", -2);
    time.advance(CounterFile::saveDelay / 2);
    counters.add("a");
    EXPECT_EQ(saved(), "(none)");
    time.advance(CounterFile::saveDelay);
    EXPECT_EQ(saved(), "a 1\nb c -2\n");
    counters.add("a");
    later();
    EXPECT_EQ(saved(), "a 2\nb c -2\n");
}

TEST_F(CounterFileTest, AFileIsAddedToWhatWasCountedBefore) {
    write("a 40\n");
    counters.add("a", 2);
    const auto file = open();
    EXPECT_EQ(counters.value("a"), 42);
    later();
    EXPECT_EQ(saved(), "a 42\n");
}

TEST_F(CounterFileTest, ClosingSavesAndEnds) {
    const auto file = open();
    counters.add("a");
    file->close();
    EXPECT_EQ(saved(), "a 1\n");
    counters.add("a");
    later();
    EXPECT_EQ(saved(), "a 1\n");
}

TEST_F(CounterFileTest, BrokenLinesAreSkippedAndCounted) {
    write("a 1\nb\n\nc x\n 5\nd 99999999999999999999\ne\x01 1\n\xff 1\nf 2 \ng -3\nh 4");
    const auto file = open();
    EXPECT_EQ(counters.value("a"), 1);
    EXPECT_EQ(counters.value("g"), -3);
    EXPECT_EQ(counters.value("h"), 4);
    EXPECT_EQ(counters.value(CounterFile::brokenLinesCounter), 8);
    EXPECT_EQ(counters.snapshot().size(), 4u);
}

TEST_F(CounterFileTest, WhatIsNoFileIsSetAside) {
    ASSERT_TRUE(state()->makeDirectory("counters"));
    const auto file = open();
    counters.add("a");
    later();
    EXPECT_EQ(saved(), "a 1\n");
}

TEST_F(CounterFileTest, AFailedSaveIsMadeGoodByTheNextOne) {
    const auto file = open();
    faulty.plan().inject(DirectoryFault::writeFails);
    counters.add("a");
    later();
    ASSERT_EQ(faulty.plan().injected(), 1u);
    EXPECT_EQ(saved(), "(none)");
    EXPECT_EQ(time.nextDue(), std::nullopt);
    counters.add("b");
    later();
    EXPECT_EQ(saved(), "a 1\nb 1\n");
}

}  // namespace
}  // namespace orvex::platform
