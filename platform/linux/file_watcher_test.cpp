#include "platform/linux/file_watcher.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <semaphore>
#include <thread>

#include "platform/fakes/temporary_directory.h"

namespace orvex::platform {
namespace {

namespace fs = std::filesystem;

class FileWatcherTest : public testing::Test {
protected:
    using Told = std::counting_semaphore<>;

    std::unique_ptr<FileWatcher::Watch> watch(const std::string& directory, const std::string& name, Told& told) {
        return watcher.watch(base / directory, name, [&told] { told.release(); });
    }
    static void waitFor(Told& told) { told.acquire(); }

    TemporaryDirectory base;
    FileWatcher watcher;
    Told told{0};
};

TEST_F(FileWatcherTest, EveryWayToChangeAFileIsTold) {
    fs::create_directory(base / "d");
    const auto watching = watch("d", "f", told);
    writeFile(base / "d/f", "1");
    waitFor(told);
    writeFile(base / "d/new", "2");
    fs::rename(base / "d/new", base / "d/f");
    waitFor(told);
    fs::rename(base / "d/f", base / "d/gone");
    waitFor(told);
    writeFile(base / "d/f", "3");
    waitFor(told);
    fs::remove(base / "d/f");
    waitFor(told);
}

TEST_F(FileWatcherTest, OtherFilesAreNot) {
    fs::create_directory(base / "d");
    Told other{0};
    const auto watching = watch("d", "f", told);
    const auto marker = watch("d", "marker", other);
    writeFile(base / "d/ff", "1");
    fs::create_directory(base / "d/sub");
    writeFile(base / "d/sub/f", "1");
    writeFile(base / "d/marker", "1");
    waitFor(other);  // which came after the rest
    EXPECT_FALSE(told.try_acquire());
}

TEST_F(FileWatcherTest, MissingDirectoriesAreWaitedForAndMayGoAndComeBack) {
    const std::string file = base / "a/b/c/f";
    std::atomic<bool> present = false;
    const auto watching = watcher.watch(base / "a/b/c", "f", [&] {
        present = fs::exists(file);
        present.notify_all();
    });
    for (int round = 0; round < 3; ++round) {
        fs::create_directories(base / "a/b/c");
        writeFile(file, "1");
        present.wait(false);
        fs::remove_all(base / "a");
        present.wait(true);
    }
    fs::create_directories(base / "elsewhere/b/c");
    writeFile(base / "elsewhere/b/c/f", "1");
    fs::rename(base / "elsewhere", base / "a");  // it comes with its file
    present.wait(false);
}

TEST_F(FileWatcherTest, AWatchThatEndedIsSilentAndOthersGoOn) {
    fs::create_directory(base / "d");
    Told other{0};
    auto watching = watch("d", "f", told);
    const auto second = watch("d", "f", other);
    watching.reset();
    writeFile(base / "d/f", "1");
    waitFor(other);
    EXPECT_FALSE(told.try_acquire());
}

TEST_F(FileWatcherTest, AHandlerMayEndItsOwnWatch) {
    fs::create_directory(base / "d");
    std::unique_ptr<FileWatcher::Watch> own;
    std::binary_semaphore ready{0};
    own = watcher.watch(base / "d", "f", [&] {
        ready.acquire();
        own.reset();
        told.release();
    });
    writeFile(base / "d/f", "1");
    ready.release();
    waitFor(told);
    EXPECT_EQ(own, nullptr);
}

TEST_F(FileWatcherTest, EndingAWatchWaitsForItsHandler) {
    fs::create_directory(base / "d");
    std::binary_semaphore begun{0};
    std::atomic<bool> returned = false;
    auto watching = watcher.watch(base / "d", "f", [&] {
        if (returned) return;
        begun.release();
        std::this_thread::yield();
        returned = true;
    });
    writeFile(base / "d/f", "1");
    begun.acquire();
    watching.reset();
    EXPECT_TRUE(returned);
}

}  // namespace
}  // namespace orvex::platform
