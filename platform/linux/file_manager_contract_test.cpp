#include <gtest/gtest.h>

#include <cerrno>

#include "platform/append_file.h"
#include "platform/fakes/fake_file_manager.h"
#include "platform/fakes/temporary_directory.h"
#include "platform/linux/file_manager.h"
#include "platform/mapped_file.h"

namespace orvex::platform {
namespace {

struct RealFiles {
    TemporaryDirectory home;
    LinuxFileManager manager{{.home = home.path()}};
};

struct FakeFiles {
    FakeFileManager manager;
};

/// What every file manager must keep to, the one in memory too.
template <class Files>
class FileManagerContract : public testing::Test {
protected:
    static int code(const auto& result) { return result ? 0 : result.error().code; }
    std::string read(std::string_view name) { return directory->read(name, 1000).value_or("(none)"); }
    std::vector<std::string> list(std::string_view name = ".") { return directory->list(name).value(); }
    bool write(std::string_view name, std::string_view bytes) { return directory->replace(name, bytes).has_value(); }

    Files files;
    std::shared_ptr<Directory> directory = files.manager.cachesDirectory().value();
};

using Managers = testing::Types<RealFiles, FakeFiles>;
TYPED_TEST_SUITE(FileManagerContract, Managers);

TYPED_TEST(FileManagerContract, AFileIsReplacedWhole) {
    EXPECT_EQ(this->code(this->directory->read("a", 10)), ENOENT);
    ASSERT_TRUE(this->write("a", "a longer text"));
    ASSERT_TRUE(this->write("a", std::string_view("b\0", 2)));
    EXPECT_EQ(this->read("a"), std::string("b\0", 2));
    ASSERT_TRUE(this->write("a", ""));
    EXPECT_EQ(this->read("a"), "");
    EXPECT_EQ(this->list(), std::vector<std::string>{"a"});
}

TYPED_TEST(FileManagerContract, AReadIsBounded) {
    ASSERT_TRUE(this->write("a", std::string(100'000, 'x')));
    EXPECT_EQ(this->code(this->directory->read("a", 99'999)), EFBIG);
    EXPECT_EQ(this->directory->read("a", 100'000)->size(), 100'000u);
    EXPECT_EQ(this->code(this->directory->read("a", 0)), EFBIG);
}

TYPED_TEST(FileManagerContract, AnOpenFileStaysWhatItWas) {
    ASSERT_TRUE(this->directory->makeDirectory("d"));
    EXPECT_EQ(this->code(this->directory->openFile("d")), EISDIR);
    EXPECT_EQ(this->code(this->directory->openFile("a")), ENOENT);
    EXPECT_EQ(this->code(this->directory->openFile("../a")), EINVAL);
    ASSERT_TRUE(this->write("a", "old"));
    const auto file = this->directory->openFile("a");
    ASSERT_TRUE(file);
    EXPECT_EQ(file->attributes.size, 3u);
    ASSERT_TRUE(this->write("a", "new text"));
    EXPECT_EQ(mmapFileHandle(file->descriptor).value().bytes(), "old");
    ASSERT_TRUE(this->write("a", ""));
    EXPECT_EQ(this->code(mmapFileHandle(this->directory->openFile("a")->descriptor)), EINVAL);
}

TYPED_TEST(FileManagerContract, AnAppendFileIsNewAndGrowsAtItsEnd) {
    ASSERT_TRUE(this->write("a", "x"));
    ASSERT_TRUE(this->directory->makeDirectory("d"));
    EXPECT_EQ(this->code(this->directory->createFile("a")), EEXIST);
    EXPECT_EQ(this->code(this->directory->createFile("d")), EEXIST);
    EXPECT_EQ(this->code(this->directory->createFile("none/b")), ENOENT);
    EXPECT_EQ(this->code(this->directory->createFile("../b")), EINVAL);

    const auto file = this->directory->createFile("b").value();
    EXPECT_EQ(this->directory->attributes("b")->permissions, 0600u);
    EXPECT_EQ(this->code(file->append("12345")) | this->code(file->append("")) | this->code(file->append("67")), 0);
    EXPECT_EQ(file->size(), 7u);
    EXPECT_EQ(this->code(file->truncate(5)) | this->code(file->append("ab")) | this->code(file->sync()), 0);
    EXPECT_EQ(this->read("b"), "12345ab");
    ASSERT_TRUE(this->directory->rename("b", "c"));
    EXPECT_EQ(this->code(file->append("!")), 0);  // still the same file
    EXPECT_EQ(this->read("c"), "12345ab!");
    ASSERT_TRUE(this->directory->remove("c"));
    EXPECT_EQ(this->code(file->append("!")) | this->code(file->sync()), 0);
    EXPECT_EQ(this->list(), (std::vector<std::string>{"a", "d"}));
}

TYPED_TEST(FileManagerContract, ADirectoryHoldsFilesThatTheOneAboveNamesByPath) {
    EXPECT_EQ(this->code(this->directory->replace("d/a", "x")), ENOENT);
    ASSERT_TRUE(this->directory->makeDirectory("d"));
    ASSERT_TRUE(this->directory->makeDirectory("d"));
    auto below = this->directory->directory("d").value();
    ASSERT_TRUE(below->replace("a", "x"));
    EXPECT_EQ(this->read("d/a"), "x");
    EXPECT_EQ(below->path(), this->directory->path() + "/d");
    EXPECT_EQ(this->list("d"), std::vector<std::string>{"a"});
    EXPECT_EQ(this->list(), std::vector<std::string>{"d"});
    EXPECT_TRUE(this->files.manager.cachesDirectory().value()->read("d/a", 10));
    EXPECT_EQ(this->files.manager.stateDirectory().value()->list(), std::vector<std::string>{});
}

TYPED_TEST(FileManagerContract, WhatIsOfTheWrongKindSaysSo) {
    ASSERT_TRUE(this->directory->makeDirectory("d"));
    ASSERT_TRUE(this->write("f", "x"));
    EXPECT_EQ(this->code(this->directory->read("d", 10)), EISDIR);
    EXPECT_EQ(this->code(this->directory->attributes("d")), EISDIR);
    EXPECT_EQ(this->code(this->directory->replace("d", "x")), EISDIR);
    EXPECT_EQ(this->code(this->directory->makeDirectory("f")), EEXIST);
    EXPECT_EQ(this->code(this->directory->list("f")), ENOTDIR);
    EXPECT_EQ(this->code(this->directory->read("f/a", 10)), ENOTDIR);
    EXPECT_EQ(this->code(this->directory->replace("f/a", "x")), ENOTDIR);
    EXPECT_FALSE(this->directory->directory("f"));
    EXPECT_EQ(this->list(), (std::vector<std::string>{"d", "f"}));  // and nothing is left behind
}

TYPED_TEST(FileManagerContract, NamesThatCouldLeaveTheDirectoryAreRefused) {
    const std::string zero("a\0b", 3);
    for (const std::string& name :
         {std::string(), std::string(".."), std::string("/etc/passwd"), std::string("../a"), std::string("d/../../a"),
          std::string("d//a"), std::string("a/"), zero, std::string(256, 'x')}) {
        EXPECT_EQ(this->code(this->directory->read(name, 10)), EINVAL) << name;
        EXPECT_EQ(this->code(this->directory->replace(name, "x")), EINVAL) << name;
        EXPECT_EQ(this->code(this->directory->remove(name)), EINVAL) << name;
        EXPECT_EQ(this->code(this->directory->makeDirectory(name)), EINVAL) << name;
        EXPECT_EQ(this->code(this->directory->attributes(name)), EINVAL) << name;
        EXPECT_EQ(this->code(this->directory->directory(name)), EINVAL) << name;
    }
    EXPECT_EQ(this->code(this->directory->list("..")), EINVAL);
}

TYPED_TEST(FileManagerContract, RemovingTakesFilesAndEmptyDirectories) {
    ASSERT_TRUE(this->directory->makeDirectory("d"));
    ASSERT_TRUE(this->write("d/a", "x"));
    EXPECT_EQ(this->code(this->directory->remove("none")), ENOENT);
    EXPECT_EQ(this->code(this->directory->remove("d")), ENOTEMPTY);
    EXPECT_EQ(this->code(this->directory->remove("d/a")), 0);
    EXPECT_EQ(this->code(this->directory->remove("d")), 0);
    EXPECT_TRUE(this->list().empty());
}

TYPED_TEST(FileManagerContract, RenamingReplacesAFileAndCarriesADirectory) {
    ASSERT_TRUE(this->write("a", "1") && this->write("b", "2"));
    ASSERT_TRUE(this->directory->makeDirectory("d"));
    ASSERT_TRUE(this->directory->makeDirectory("full"));
    ASSERT_TRUE(this->write("d/x", "3") && this->write("full/x", "4"));
    EXPECT_EQ(this->code(this->directory->rename("a", "b")), 0);
    EXPECT_EQ(this->read("b"), "1");
    EXPECT_EQ(this->code(this->directory->rename("b", "b")), 0);
    EXPECT_EQ(this->code(this->directory->rename("none", "c")), ENOENT);
    EXPECT_EQ(this->code(this->directory->rename("b", "d")), EISDIR);
    EXPECT_EQ(this->code(this->directory->rename("d", "b")), ENOTDIR);
    EXPECT_EQ(this->code(this->directory->rename("d", "full")), ENOTEMPTY);
    EXPECT_EQ(this->code(this->directory->rename("d", "d/below")), EINVAL);
    EXPECT_EQ(this->code(this->directory->rename("b", "../b")), EINVAL);
    EXPECT_EQ(this->code(this->directory->rename("d", "e")), 0);
    EXPECT_EQ(this->read("e/x"), "3");
    EXPECT_EQ(this->list(), (std::vector<std::string>{"b", "e", "full"}));
}

TYPED_TEST(FileManagerContract, ABrokenFileIsSetAsideAndOneIsKept) {
    EXPECT_FALSE(setAside(*this->directory, "a"));
    ASSERT_TRUE(this->write("a", "old"));
    EXPECT_TRUE(setAside(*this->directory, "a"));
    ASSERT_TRUE(this->write("a", "new"));
    EXPECT_TRUE(setAside(*this->directory, "a"));
    EXPECT_EQ(this->read("a.corrupt"), "new");
    EXPECT_EQ(this->list(), std::vector<std::string>{"a.corrupt"});
    // A directory follows a file, and a file the directory.
    ASSERT_TRUE(this->directory->makeDirectory("a"));
    EXPECT_TRUE(setAside(*this->directory, "a"));
    ASSERT_TRUE(this->directory->replace("a", "newest"));
    EXPECT_TRUE(setAside(*this->directory, "a"));
    EXPECT_EQ(this->read("a.corrupt"), "newest");
}

TYPED_TEST(FileManagerContract, LeftoversOfACrashAreToldFromFilesAndRemoved) {
    ASSERT_TRUE(this->write("a.tmp", "x") && this->write(".orvexd-0123456789abcdef.tmp", "x"));
    EXPECT_EQ(removeTemporaries(*this->directory), 1u);
    EXPECT_EQ(this->list(), std::vector<std::string>{"a.tmp"});
}

}  // namespace
}  // namespace orvex::platform
