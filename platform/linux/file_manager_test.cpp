#include "platform/linux/file_manager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "platform/fakes/temporary_directory.h"
#include "platform/linux/open_beneath.h"

namespace orvex::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class LinuxFileManagerTest : public testing::Test {
protected:
    static int code(const auto& result) { return result ? 0 : result.error().code; }
    std::string own(const std::string& name) { return home / ".cache/com.kelvar.orvexd/" + name; }
    static unsigned int mode(const std::string& path) {
        return static_cast<unsigned int>(fs::status(path).permissions());
    }

    TemporaryDirectory home;
    LinuxFileManager manager{{.home = home.path()}};
    std::shared_ptr<Directory> directory = manager.cachesDirectory().value();
};

TEST_F(LinuxFileManagerTest, DirectoriesStandWhereTheBaseDirectoryRulesPutThem) {
    EXPECT_EQ(directory->path(), home / ".cache/com.kelvar.orvexd");
    EXPECT_EQ(manager.stateDirectory().value()->path(), home / ".local/state/com.kelvar.orvexd");
    EXPECT_EQ(manager.configurationDirectory().value()->path(), home / ".config/com.kelvar.orvexd");
    EXPECT_EQ(mode(directory->path()), 0700u);

    LinuxFileManager other({.home = home.path(), .cacheHome = home / "c", .stateHome = "relative", .configHome = ""});
    EXPECT_EQ(other.cachesDirectory().value()->path(), home / "c/com.kelvar.orvexd");
    EXPECT_EQ(other.stateDirectory().value()->path(), home / ".local/state/com.kelvar.orvexd");
    EXPECT_EQ(other.configurationDirectory("com.kelvar.lookup.shared").value()->path(),
              home / ".config/com.kelvar.lookup.shared");
}

TEST_F(LinuxFileManagerTest, WithoutAHomeEachCallFailsAndAHomeThatComesLaterIsFound) {
    LinuxFileManager homeless({.home = std::nullopt});
    EXPECT_EQ(code(homeless.cachesDirectory()), ENOENT);
    writeFile(home / "later", "in the way");
    LinuxFileManager waiting({.home = home / "later"});
    EXPECT_EQ(code(waiting.stateDirectory()), ENOTDIR);
    fs::remove(home / "later");
    EXPECT_EQ(code(waiting.stateDirectory()), 0);
}

TEST_F(LinuxFileManagerTest, ADirectoryThatWasRemovedIsMadeAgain) {
    fs::remove_all(directory->path());
    EXPECT_EQ(code(directory->replace("a", "x")), ENOENT);
    directory = manager.cachesDirectory().value();
    EXPECT_EQ(code(directory->replace("a", "x")), 0);
}

TEST_F(LinuxFileManagerTest, ALinkedBaseIsNormalButOurOwnDirectoryIsNoLink) {
    fs::create_directories(home / "elsewhere");
    fs::create_directory_symlink(home / "elsewhere", home / "linked");
    LinuxFileManager linked({.cacheHome = home / "linked"});
    EXPECT_EQ(code(linked.cachesDirectory()), 0);
    fs::remove_all(home / "elsewhere/com.kelvar.orvexd");
    fs::create_directory_symlink(home.path(), home / "elsewhere/com.kelvar.orvexd");
    EXPECT_EQ(code(linked.cachesDirectory()), ELOOP);
}

TEST_F(LinuxFileManagerTest, AnOpenDirectoryIsClosedToOthers) {
    fs::permissions(directory->path(), fs::perms::all);
    ASSERT_TRUE(manager.cachesDirectory());
    EXPECT_EQ(mode(directory->path()), 0700u);
    ASSERT_TRUE(directory->replace("a", "x"));
    EXPECT_EQ(mode(own("a")), 0600u);
}

TEST_F(LinuxFileManagerTest, SymbolicLinksAreNotFollowed) {
    writeFile(home / "secret", "secret");
    fs::create_symlink(home / "secret", own("file"));
    fs::create_directory_symlink(home.path(), own("directory"));
    EXPECT_EQ(code(directory->read("file", 100)), ELOOP);
    EXPECT_EQ(code(directory->attributes("file")), ELOOP);
    EXPECT_EQ(code(directory->read("directory/secret", 100)), ELOOP);
    EXPECT_NE(code(directory->replace("directory/secret", "x")), 0);
    EXPECT_NE(code(directory->remove("directory/secret")), 0);
    EXPECT_NE(code(directory->directory("directory")), 0);
    EXPECT_NE(code(directory->list("directory")), 0);
    ASSERT_EQ(code(directory->replace("file", "ours")), 0);  // the link itself is replaced
    EXPECT_EQ(directory->read("file", 100), "ours");
    EXPECT_EQ(readFile(home / "secret"), "secret");
}

TEST_F(LinuxFileManagerTest, WhatIsNoRegularFileIsNeverWaitedFor) {
    ASSERT_EQ(::mkfifo(own("fifo").c_str(), 0600), 0);
    const FileDescriptor listening(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    ASSERT_LT(own("s").size(), sizeof address.sun_path);
    own("s").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(listening.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    for (const auto* name : {"fifo", "s"}) {
        EXPECT_EQ(code(directory->read(name, 100)), ENXIO) << name;
        EXPECT_EQ(code(directory->attributes(name)), ENXIO) << name;
        EXPECT_TRUE(saysBrokenFile(directory->read(name, 100).error()));
        EXPECT_TRUE(setAside(*directory, name));
        EXPECT_EQ(code(directory->replace(name, "x")), 0);
    }
}

TEST_F(LinuxFileManagerTest, AFileOfAnotherUserIsRefused) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
    writeFile(own("a"), "x");
    ASSERT_EQ(::chown(own("a").c_str(), 1, 1), 0);
    EXPECT_EQ(code(directory->read("a", 100)), EPERM);
    EXPECT_EQ(code(directory->attributes("a")), EPERM);
}

TEST_F(LinuxFileManagerTest, ALockKeepsOthersOutUntilItsDescriptorIsGone) {
    const auto settings = manager.configurationDirectory("d").value();
    auto held = settings->lock("lock", 0ms);
    ASSERT_TRUE(held);
    EXPECT_EQ(code(settings->lock("lock", 0ms)), EWOULDBLOCK);
    EXPECT_EQ(code(settings->lock("lock", 20ms)), EWOULDBLOCK);
    std::jthread holder([&] { held->reset(); });
    EXPECT_EQ(code(settings->lock("lock", 1h)), 0);
    ASSERT_EQ(::mkfifo((settings->path() + "/fifo").c_str(), 0600), 0);
    EXPECT_EQ(code(settings->lock("fifo", 0ms)), ENXIO);
}

/// Old kernels and sandboxes have no openat2: both ways must refuse the same.
TEST_F(LinuxFileManagerTest, OpeningPartByPartRefusesWhatTheKernelRefuses) {
    fs::create_directories(own("d/e"));
    writeFile(own("d/e/a"), "x");
    writeFile(home / "secret", "secret");
    fs::create_symlink(home / "secret", own("d/link"));
    fs::create_directory_symlink(home.path(), own("d/out"));
    const FileDescriptor base(::open(directory->path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const auto open : {openBeneath, openBeneathStepwise}) {
        EXPECT_EQ(code(open(base.get(), "d/e/a", O_RDONLY, 0)), 0);
        EXPECT_EQ(code(open(base.get(), ".", O_RDONLY | O_DIRECTORY, 0)), 0);
        EXPECT_EQ(code(open(base.get(), "d/e/new", O_RDWR | O_CREAT, 0600)), 0);
        EXPECT_EQ(code(open(base.get(), "d/link", O_RDONLY, 0)), ELOOP);
        EXPECT_NE(code(open(base.get(), "d/out/secret", O_RDONLY, 0)), 0);
        EXPECT_EQ(code(open(base.get(), "d/../d/e/a", O_RDONLY, 0)), EINVAL);
        EXPECT_EQ(code(open(base.get(), "/etc/passwd", O_RDONLY, 0)), EINVAL);
    }
}

}  // namespace
}  // namespace orvex::platform
