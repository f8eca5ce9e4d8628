#include "platform/linux/memory_pressure.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <future>

#include "platform/fakes/temporary_directory.h"

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;

TEST(MemoryPressureTest, MemoryIsScarceBelowASixteenth) {
    EXPECT_FALSE(isMemoryScarce("MemTotal:  1600 kB\nMemFree: 1 kB\nMemAvailable:  100 kB\n"));
    EXPECT_TRUE(isMemoryScarce("MemTotal:  1600 kB\nMemFree: 1 kB\nMemAvailable:  99 kB\n"));
    EXPECT_FALSE(isMemoryScarce(""));
    EXPECT_FALSE(isMemoryScarce("MemTotal:  1600 kB\nMemAvailable:"));
    EXPECT_FALSE(isMemoryScarce("MemTotal:  1600 kB\nMemAvailable: much"));
}

TEST(MemoryPressureTest, WithoutATriggerTheAvailableMemoryIsAskedAgainAndAgain) {
    const TemporaryDirectory directory;
    const std::string information = std::string(directory.path()) + "/meminfo";
    std::ofstream(information) << "MemTotal:  1600 kB\nMemAvailable:  1 kB\n";
    LinuxMemoryPressure memory({.pressureFile = std::string(directory.path()) + "/none",
                                .informationFile = information,
                                .checkInterval = 1ms});
    for (int round = 0; round < 2; ++round) {  // the second arms anew
        struct Heard {
            std::promise<void> third;
            std::atomic<int> calls = 0;
        };
        const auto heard = std::make_shared<Heard>();  // a call may still be under way when the listening ends
        const auto listening = memory.listen([heard] {
            if (++heard->calls == 3) heard->third.set_value();
        });
        EXPECT_EQ(heard->third.get_future().wait_for(60s), std::future_status::ready);
    }
}

// Whether the kernel gives us a trigger or not: nothing hangs, and nothing is told of a machine at rest that ended.
TEST(MemoryPressureTest, TheKernelsOwnFilesAreUsable) {
    LinuxMemoryPressure memory;
    auto first = memory.listen([] {});
    const auto second = memory.listen([] {});
    first.reset();
    first = memory.listen([] {});
}

}  // namespace
}  // namespace orvex::platform
