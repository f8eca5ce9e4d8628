#include "platform/fakes/faulty_directory.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "platform/fakes/fake_file_manager.h"

namespace orvex::platform {
namespace {

class FaultyDirectoryTest : public testing::Test {
protected:
    FaultyDirectoryTest() { EXPECT_TRUE(directory->replace("a", "before")); }
    std::string read(std::string_view name) { return directory->read(name, 100).value_or("(none)"); }
    int code(const Result<void>& result) { return result ? 0 : result.error().code; }

    FakeFileManager files;
    FaultyFileManager faulty{files};
    FaultPlan& plan = faulty.plan();
    std::shared_ptr<Directory> directory = faulty.cachesDirectory().value();
};

TEST_F(FaultyDirectoryTest, TheNthWriteFailsAndLeavesTheOldFile) {
    plan.inject(DirectoryFault::writeFails, 2);
    EXPECT_EQ(code(directory->replace("a", "first")), 0);
    EXPECT_EQ(code(directory->replace("a", "second")), ENOSPC);
    EXPECT_EQ(read("a"), "first");
    EXPECT_EQ(plan.injected(), 1u);
    EXPECT_EQ(code(directory->replace("a", "third")), 0);
}

TEST_F(FaultyDirectoryTest, ATornWriteLeavesHalfUnderATemporaryName) {
    plan.inject(DirectoryFault::writeTears);
    EXPECT_EQ(code(directory->replace("a", "12345678")), EIO);
    EXPECT_EQ(read("a"), "before");
    EXPECT_EQ(directory->list()->size(), 2u);
    EXPECT_EQ(removeTemporaries(*directory), 1u);
}

TEST_F(FaultyDirectoryTest, WhatWasNotSyncedIsLostWithThePower) {
    plan.inject(DirectoryFault::syncFails);
    plan.inject(DirectoryFault::syncFails, 2);
    EXPECT_EQ(code(directory->replace("a", "after")), EIO);
    EXPECT_EQ(code(directory->rename("a", "b")), EIO);
    EXPECT_EQ(read("b"), "after");
    plan.loseUnsynced();
    EXPECT_EQ(read("a"), "before");
    EXPECT_EQ(read("b"), "(none)");
    EXPECT_EQ(plan.injected(), 2u);

    plan.inject(DirectoryFault::syncFails);
    EXPECT_EQ(code(directory->replace("a", "after")), EIO);
    EXPECT_EQ(code(directory->replace("c", "x")), 0);  // syncs the directory
    plan.loseUnsynced();
    EXPECT_EQ(read("a"), "after");
}

TEST_F(FaultyDirectoryTest, DirectoriesBelowShareThePlan) {
    const auto below = directory->directory("d").value();
    ASSERT_TRUE(below->replace("a", "x"));
    plan.inject(DirectoryFault::renameFails);
    EXPECT_EQ(code(below->rename("a", "b")), EIO);
    EXPECT_TRUE(below->read("a", 10));
    EXPECT_EQ(plan.injected(), 1u);
}

}  // namespace
}  // namespace orvex::platform
