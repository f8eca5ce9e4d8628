#include "platform/linux/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <thread>

#include "platform/fakes/temporary_directory.h"

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;

/// In a process of its own, since it changes what a process has one of.
class ProcessDeathTest : public testing::Test {
protected:
    ProcessDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    TemporaryDirectory directory;
};

TEST_F(ProcessDeathTest, FilesArePrivateAndFailedWritesAreErrors) {
    const auto writeInVain = [this] {
        prepareProcess();
        struct stat status = {};
        const int file = ::open((directory / "file").c_str(), O_CREAT | O_WRONLY, 0666);
        bool good = ::fstat(file, &status) == 0 && (status.st_mode & 0777) == 0600;
        const rlimit none{.rlim_cur = 0, .rlim_max = 0};
        ::setrlimit(RLIMIT_FSIZE, &none);
        good = good && ::write(file, "x", 1) < 0 && errno == EFBIG;
        std::array<int, 2> ends{};
        good = good && ::pipe(ends.data()) == 0;
        ::close(ends[0]);
        good = good && ::write(ends[1], "x", 1) < 0 && errno == EPIPE;
        exitNow(good ? 7 : 8);
    };
    EXPECT_EXIT(writeInVain(), testing::ExitedWithCode(7), "");
}

class LockFileTest : public testing::Test {
protected:
    Result<LockFile> take(std::chrono::milliseconds patience = 0ms) {
        return LockFile::take(directory / "orvexd.lock", patience);
    }

    TemporaryDirectory directory;
};

TEST_F(LockFileTest, ALeavingDaemonIsWaitedFor) {
    std::optional<Result<LockFile>> leaving = take();
    ASSERT_TRUE(leaving->has_value());
    ASSERT_FALSE(take(20ms).has_value());
    std::atomic<bool> left = false;
    std::jthread leaves([&] {
        std::this_thread::yield();
        left = true;
        leaving.reset();
    });
    EXPECT_TRUE(take(1h).has_value());
    EXPECT_TRUE(left);
}

TEST_F(LockFileTest, WhatIsNoFileOfOursIsRefused) {
    ASSERT_EQ(::symlink("/etc/passwd", (directory / "orvexd.lock").c_str()), 0);
    EXPECT_EQ(take().error().code, ELOOP);
    ::unlink((directory / "orvexd.lock").c_str());
    ASSERT_EQ(::mkfifo((directory / "orvexd.lock").c_str(), 0600), 0);
    EXPECT_EQ(take().error().code, EPERM);
    EXPECT_EQ(LockFile::take(directory / "absent/orvexd.lock").error().code, ENOENT);
}

}  // namespace
}  // namespace orvex::platform
