#include <gtest/gtest.h>

#include <filesystem>

#include "query/engaged_fixture_test.h"

namespace orvex {
namespace {

using Texts = std::vector<std::string>;

TEST_F(EngagedStoreTest, ANewFileIsOursAloneAndHasTheFormat) {
    ASSERT_TRUE(store.open());
    EXPECT_EQ(disk.sql("PRAGMA auto_vacuum"), Texts{"2"});
    EXPECT_EQ(disk.sql("PRAGMA journal_mode"), Texts{"wal"});
    EXPECT_EQ(disk.sql("SELECT schema_version FROM completion_cache_schema_version"), Texts{"6"});
    EXPECT_EQ(disk.sql("SELECT name FROM sqlite_master WHERE type = 'index' ORDER BY name"),
              (Texts{"input_index", "transformed_index"}));
    add("a");
    for (const char* name : {"Cache.db", "Cache.db-wal", "Cache.db-shm"}) {
        struct stat attributes{};
        ASSERT_EQ(::stat(disk.file(name).c_str(), &attributes), 0) << name;
        EXPECT_EQ(attributes.st_mode & 07777, 0600u) << name;
    }
}

TEST_F(EngagedStoreTest, RowsLiveOnAndAnOlderSchemaIsEmptied) {
    add("a");
    store.close();
    ASSERT_TRUE(store.open());
    EXPECT_EQ(completions(), Texts{"a"});
    disk.sql("UPDATE completion_cache_schema_version SET schema_version = 5");
    EngagedStore next{disk.files(), counters, [] {}};
    ASSERT_TRUE(next.open());
    EXPECT_EQ(completions(), Texts{});
    EXPECT_EQ(disk.sql("SELECT schema_version FROM completion_cache_schema_version"), Texts{"6"});
}

TEST_F(EngagedStoreTest, AnOlderFileIsBroughtToTheVacuumModeAndKeepsItsRows) {
    ASSERT_TRUE(store.open());
    add("a");
    store.close();
    disk.sql("PRAGMA journal_mode = DELETE; PRAGMA auto_vacuum = 0; VACUUM;");
    ASSERT_EQ(disk.sql("PRAGMA auto_vacuum"), Texts{"0"});
    disk.leave();
    std::filesystem::permissions(disk.file(), std::filesystem::perms(0444));
    ASSERT_TRUE(store.open());
    EXPECT_EQ(disk.sql("PRAGMA auto_vacuum"), Texts{"2"});
    EXPECT_EQ(completions(), Texts{"a"});
}

TEST_F(EngagedStoreTest, AnInsertTakesAwayWhatIsThirtyDaysOldOfAnyClient) {
    add("a", now - 31 * day, 1);
    add("b", now - 30 * day, 2);
    add("c", now - 30 * day + 1, 2);
    add("future", now + 400 * day, 0);
    EXPECT_EQ(completions().size(), 1u);  // for the clock of that insert
    add("c", now - 30 * day + 1, 2);
    add("d", now, 2);
    EXPECT_EQ(completions(), (Texts{"c", "d", "future"}));
    add("e", now + 1, 1);
    EXPECT_EQ(completions(), (Texts{"d", "e", "future"}));
    EXPECT_TRUE(log.contains(platform::LogLevel::standard, "Orvex_Search",
                             "Cleared completions fromDate:distant past toDate:1697408001 for all clients"));
}

TEST_F(EngagedStoreTest, AClientNeverExceedsItsLimitAndTheOldestGo) {
    for (int i = 0; i < 5; ++i) {
        add(std::to_string(i), now + i, 1, 3);
        add("other", now + i, 2, 100);
    }
    EXPECT_EQ(disk.sql("SELECT completion FROM completion_cache_engagement WHERE client = 1 ORDER BY 1"),
              (Texts{"2", "3", "4"}));
    add("last", now + 9, 1, 1);
    EXPECT_EQ(disk.sql("SELECT completion FROM completion_cache_engagement WHERE client = 1"), Texts{"last"});
    EXPECT_EQ(disk.sql("SELECT COUNT(*) FROM completion_cache_engagement WHERE client = 2"), Texts{"5"});
    EXPECT_EQ(counters.value("com.kelvar.orvexd.brovia.localCompletionIndex.entries"), 6);
    EXPECT_GT(counters.value("com.kelvar.orvexd.brovia.localCompletionIndex.size"), 0);
    disk.sql(
        "DELETE FROM completion_cache_engagement; INSERT INTO completion_cache_engagement "
        "VALUES ('x', '', 1, NULL, 1, 'x'), ('y', '', 1700000000, NULL, 1, 'y')");
    add("z", now + 10, 1, 2);  // what another program did is seen
    EXPECT_EQ(completions(), (Texts{"y", "z"}));
}

TEST_F(EngagedStoreTest, WhatWasClearedIsInNoFile) {
    const std::string secret = "a completion that nobody may find again";
    for (int i = 0; i < 200; ++i) add(secret + std::to_string(i), now + i);
    add("kept", now + 500);
    platform::writeFile(disk.file("Cache.db.corrupt"), secret);
    const auto removed = store.clear({.dates = std::pair(now, now + 199), .client = 2});
    ASSERT_TRUE(removed);
    EXPECT_EQ(*removed, 200);
    EXPECT_EQ(counters.value(EngagedStore::entriesCounter), 1);
    EXPECT_FALSE(isSetAside());
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(disk.file()).parent_path())) {
        EXPECT_EQ(platform::readFile(entry.path()).find("nobody may find"), std::string::npos) << entry.path();
    }
    EXPECT_EQ(completions(), Texts{"kept"});
}

}  // namespace
}  // namespace orvex
