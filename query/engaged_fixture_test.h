#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/counters.h"
#include "platform/fakes/recording_log.h"
#include "platform/fakes/temporary_directory.h"
#include "platform/file_manager.h"
#include "query/engaged_store.h"

namespace orvex {

/// The directories of a test, on a real disk, and the database in them as another program sees it.
class EngagedDisk {
public:
    [[nodiscard]] platform::FileManager& files() { return *_files; }
    [[nodiscard]] std::string file(const std::string& name = "Cache.db") const {
        return _home / (".cache/com.kelvar.orvexd/EngagedCompletions/" + name);
    }

    /// Runs `statements` as another program, which keeps its connection; returns the first column of every row.
    std::vector<std::string> sql(const std::string& statements) {
        if (!_other) {
            sqlite3* opened = nullptr;
            EXPECT_EQ(sqlite3_open(file().c_str(), &opened), SQLITE_OK);
            _other.reset(opened);
        }
        std::vector<std::string> values;
        const auto collect = [](void* to, int, char** columns, char**) {
            static_cast<std::vector<std::string>*>(to)->emplace_back(columns[0] ? columns[0] : "NULL");
            return 0;
        };
        EXPECT_EQ(sqlite3_exec(_other.get(), statements.c_str(), collect, &values, nullptr), SQLITE_OK)
            << statements << ": " << sqlite3_errmsg(_other.get());
        return values;
    }
    void leave() { _other.reset(); }  ///< the other program ends

private:
    struct Closer {
        void operator()(sqlite3* connection) const { sqlite3_close(connection); }
    };

    platform::TemporaryDirectory _home;
    std::unique_ptr<platform::FileManager> _files = platform::fileManagerBelow(_home.path());
    std::unique_ptr<sqlite3, Closer> _other;
};

/// A store on such a disk.
class EngagedStoreTest : public testing::Test {
protected:
    static constexpr std::int64_t now = 1'700'000'000;
    static constexpr std::int64_t day = 86'400;

    platform::Result<void> tryAdd(std::string completion, std::int64_t date = now, std::int64_t client = 2,
                                  std::uint64_t maxRows = 0) {
        return store.add({.completion = std::move(completion), .input = "in", .client = client, .maxRows = maxRows},
                         date);
    }
    void add(std::string completion, std::int64_t date = now, std::int64_t client = 2, std::uint64_t maxRows = 0) {
        const auto added = tryAdd(std::move(completion), date, client, maxRows);
        ASSERT_TRUE(added) << added.error().text;
    }
    std::vector<std::string> completions() {
        return disk.sql("SELECT completion FROM completion_cache_engagement ORDER BY engagement_date, completion");
    }
    bool isSetAside() { return std::filesystem::exists(disk.file("Cache.db.corrupt")); }

    platform::RecordingLog log;
    EngagedDisk disk;
    platform::Counters counters;
    EngagedStore store{disk.files(), counters, [] {}};
};

}  // namespace orvex
