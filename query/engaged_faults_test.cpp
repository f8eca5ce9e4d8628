#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <utility>

#include "query/engaged_fixture_test.h"
#include "query/engaged_reader.h"

namespace orvex {
namespace {

using platform::LogLevel;
using Texts = std::vector<std::string>;

/// What SQLite's own writes do: all of them go through one system call, which SQLite lets a test replace.
class WriteFault {
public:
    enum class Kind { noSpace, ioError, crash };

    /// The `nth` write from now on and every later one fails.
    WriteFault(Kind kind, int nth) {
        plan = {.kind = kind, .remaining = nth, .injected = 0};
        for (const char* name : {"pwrite", "pwrite64"}) {
            sqlite3_vfs* vfs = sqlite3_vfs_find(nullptr);
            vfs->xSetSystemCall(vfs, name, reinterpret_cast<sqlite3_syscall_ptr>(&faultyWrite));
        }
    }
    ~WriteFault() {
        sqlite3_vfs* vfs = sqlite3_vfs_find(nullptr);
        vfs->xSetSystemCall(vfs, nullptr, nullptr);
    }
    WriteFault(const WriteFault&) = delete;
    WriteFault& operator=(const WriteFault&) = delete;
    [[nodiscard]] static int injected() { return plan.injected; }

private:
    struct Plan {
        Kind kind;
        int remaining;
        int injected;
    };
    static ssize_t faultyWrite(int file, const void* bytes, std::size_t size, off_t offset) {
        if (--plan.remaining > 0) return ::pwrite(file, bytes, size, offset);
        ++plan.injected;
        if (plan.kind == Kind::crash) {
            (void)!::pwrite(file, bytes, size / 2, offset);  // torn
            ::_exit(9);
        }
        errno = plan.kind == Kind::noSpace ? ENOSPC : EIO;
        return -1;
    }
    static inline Plan plan{};
};

class EngagedFaultsTest : public EngagedStoreTest {
protected:
    void overwriteMiddle() {
        store.close();
        const auto size = std::filesystem::file_size(disk.file());
        ASSERT_GE(size, 16u * 4096);
        std::fstream file(disk.file(), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(4096);
        file << std::string(size - 4096, '\xA5');
    }
};

TEST_F(EngagedFaultsTest, WhatIsNoDatabaseIsSetAside) {
    ASSERT_TRUE(store.open());
    store.close();
    platform::writeFile(disk.file("elsewhere"), "untouched");
    const std::function<void()> breakIt[] = {
        [&] { platform::writeFile(disk.file(), std::string(5000, 'x')); },
        [&] { std::filesystem::create_directory(disk.file()); },
        [&] { std::filesystem::create_symlink(disk.file("elsewhere"), disk.file()); },
        [&] { ASSERT_EQ(::mkfifo(disk.file().c_str(), 0600), 0); },
    };
    for (const auto& breakNow : breakIt) {
        store.close();
        disk.leave();
        for (const char* name : {"Cache.db", "Cache.db-wal", "Cache.db-shm", "Cache.db.corrupt"}) {
            std::filesystem::remove_all(disk.file(name));
        }
        breakNow();
        add("a");
        EXPECT_TRUE(std::filesystem::symlink_status(disk.file("Cache.db.corrupt")).type() !=
                    std::filesystem::file_type::not_found);
        EXPECT_EQ(completions(), Texts{"a"});
    }
    EXPECT_EQ(platform::readFile(disk.file("elsewhere")), "untouched");
    store.close();
    disk.leave();
    std::filesystem::remove(disk.file("Cache.db.corrupt"));
    platform::writeFile(disk.file(), "");
    add("b");
    EXPECT_FALSE(isSetAside());
}

TEST_F(EngagedFaultsTest, DamageInTheMiddleIsRepairedAndCostsNoNewCompletion) {
    ASSERT_TRUE(store.open());
    disk.sql(
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 3000) "
        "INSERT INTO completion_cache_engagement SELECT 'completion ' || i, 'input ' || i, 1700000000, 'se', 2, "
        "'completion ' || i FROM n");
    disk.leave();
    overwriteMiddle();
    add("a");
    EXPECT_TRUE(isSetAside());
    EXPECT_EQ(completions(), Texts{"a"});
    EXPECT_EQ(counters.value("com.kelvar.orvexd.completions.repaired"), 1);
    const auto generation = store.generation();
    store.checkDamage(SQLITE_CORRUPT, generation - 1);  // of the file that was set aside
    EXPECT_EQ(completions(), Texts{"a"});
    disk.leave();
    store.checkDamage(SQLITE_IOERR_READ, generation);  // and the file is whole
    EXPECT_EQ(completions(), Texts{"a"});
    disk.leave();
    store.checkDamage(SQLITE_CORRUPT_INDEX, generation);
    EXPECT_EQ(completions(), Texts{});
}

TEST_F(EngagedFaultsTest, AFullOrFailingDiskLosesNothingThatIsStored) {
    add("kept");
    for (const auto kind : {WriteFault::Kind::noSpace, WriteFault::Kind::ioError}) {
        const WriteFault fault(kind, 1);
        EXPECT_FALSE(tryAdd("lost"));
        EXPECT_GT(WriteFault::injected(), 0);
        EXPECT_FALSE(store.clear({}));
    }
    EXPECT_FALSE(isSetAside());
    EXPECT_EQ(completions(), Texts{"kept"});
    EXPECT_EQ(counters.value("com.kelvar.orvexd.completions.failed"), 4);
    add("later");
    EXPECT_EQ(completions(), (Texts{"kept", "later"}));
}

TEST_F(EngagedFaultsTest, ACrashAtAnyWriteLeavesAWholeFile) {
    add("first", now - 31 * day);
    store.close();
    for (int write = 1;; ++write) {
        const auto child = ::fork();
        if (child == 0) {
            const WriteFault fault(WriteFault::Kind::crash, write);
            const auto added = tryAdd("added", now + write);  // with a purge, in one transaction
            ::_exit(added ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) != 1);
        ASSERT_TRUE(store.open());
        EXPECT_EQ(disk.sql("PRAGMA integrity_check"), Texts{"ok"});
        const auto rows = completions();
        if (WEXITSTATUS(status) == 0) {
            EXPECT_GT(write, 2);
            EXPECT_EQ(rows, Texts{"added"});
            break;
        }
        EXPECT_TRUE(rows == Texts{"first"} || rows == Texts{"added"}) << write;
        EXPECT_TRUE(store.clear({}));
        add("first", now - 31 * day);
        disk.leave();
        store.close();
    }
    EXPECT_FALSE(isSetAside());
}

TEST_F(EngagedFaultsTest, ALostTableIsLoggedAndMadeAnew) {
    ASSERT_TRUE(store.open());
    disk.sql("DROP TABLE completion_cache_engagement");
    const auto logged = [&](const std::string& text) { return log.contains(LogLevel::error, "Orvex_Search", text); };
    const auto reader = EngagedReader::open(store.path());
    ASSERT_TRUE(reader);
    const auto found =
        (*reader)->completions({.input = "in", .client = 2, .now = now, .count = 1}, {}, [] { return false; });
    EXPECT_EQ(found ? SQLITE_OK : found.error(), SQLITE_ERROR);
    EXPECT_TRUE(logged("_prepareSelectStatement failed - SQL:SELECT completion, origin"));
    EXPECT_TRUE(store.clear({.dates = std::pair(now, now), .client = {}}));
    EXPECT_TRUE(logged("_execSQLStatement failed - SQL:DELETE FROM completion_cache_engagement WHERE"));
    EXPECT_TRUE(logged("error-code: 1 error-message: no such table: completion_cache_engagement"));
    EXPECT_TRUE(logged("Failed to clearcompletions fromDate:1700000000 toDate:1700000000 for all clients"));

    for (const auto* instead : {"", "CREATE VIEW completion_cache_engagement AS SELECT 1 AS completion",
                                "CREATE TABLE completion_cache_engagement(completion TEXT)"}) {
        for (const bool isOpen : {true, false}) {
            disk.leave();
            disk.sql(std::string("DROP TABLE completion_cache_engagement;") + instead);
            disk.leave();
            if (!isOpen) store.close();
            add("a");
            EXPECT_EQ(completions(), Texts{"a"}) << instead;
            EngagedStore next{disk.files(), counters, [] {}};
            ASSERT_TRUE(next.add({.completion = "b", .input = "in", .client = 2}, now));
            EXPECT_EQ(completions(), (Texts{"a", "b"})) << instead;
        }
    }
    EXPECT_EQ(counters.value("com.kelvar.orvexd.completions.repaired"), 7);
}

/// What SQLite does while it waits for a lock: it sleeps, here as long as the test says that it did.
class SleepsOfSQLite {
public:
    explicit SleepsOfSQLite(std::function<void(std::chrono::microseconds slept)> whenAsleep) {
        _whenAsleep = std::move(whenAsleep);
        slept = {};
        _original = std::exchange(sqlite3_vfs_find(nullptr)->xSleep, &SleepsOfSQLite::_sleep);
    }
    ~SleepsOfSQLite() { sqlite3_vfs_find(nullptr)->xSleep = _original; }
    SleepsOfSQLite(const SleepsOfSQLite&) = delete;
    SleepsOfSQLite& operator=(const SleepsOfSQLite&) = delete;

    static inline std::chrono::microseconds slept{};

private:
    static int _sleep(sqlite3_vfs*, int microseconds) {
        slept += std::chrono::microseconds(microseconds);
        _whenAsleep(slept);
        return microseconds;
    }

    static inline std::function<void(std::chrono::microseconds)> _whenAsleep;
    int (*_original)(sqlite3_vfs*, int) = nullptr;
};

TEST_F(EngagedFaultsTest, ALockOfAnotherProgramIsWaitedForSomeSeconds) {
    ASSERT_TRUE(store.open());
    disk.sql("BEGIN IMMEDIATE");
    {
        const SleepsOfSQLite sleeps([this](auto slept) {
            if (slept >= std::chrono::seconds(2)) disk.sql("COMMIT; SELECT 1");
        });
        EXPECT_TRUE(tryAdd("a"));
        EXPECT_GE(SleepsOfSQLite::slept, std::chrono::seconds(2));
    }
    EXPECT_EQ(completions(), Texts{"a"});
    disk.sql("BEGIN IMMEDIATE");
    {
        const SleepsOfSQLite sleeps([](auto) {});
        const auto added = tryAdd("b");
        EXPECT_EQ(added ? SQLITE_OK : platform::primaryCode(added.error().code), SQLITE_BUSY);
    }
    disk.sql("COMMIT");
    EXPECT_EQ(completions(), Texts{"a"});
    EXPECT_FALSE(isSetAside());
}

/// A file system that was mounted read-only, as SQLite meets it.
class ReadOnlyFileSystem {
public:
    ReadOnlyFileSystem() { _set(reinterpret_cast<sqlite3_syscall_ptr>(&_open)); }
    ~ReadOnlyFileSystem() { _set(nullptr); }
    ReadOnlyFileSystem(const ReadOnlyFileSystem&) = delete;
    ReadOnlyFileSystem& operator=(const ReadOnlyFileSystem&) = delete;

private:
    static void _set(sqlite3_syscall_ptr call) {
        sqlite3_vfs* vfs = sqlite3_vfs_find(nullptr);
        vfs->xSetSystemCall(vfs, "open", call);
    }
    static int _open(const char* path, int flags, int mode) {
        if ((flags & (O_RDWR | O_WRONLY | O_CREAT)) == 0) return ::open(path, flags, mode);
        errno = EROFS;
        return -1;
    }
};

TEST_F(EngagedFaultsTest, WhatCannotBeWrittenIsRefusedAndStays) {
    add("kept");
    store.close();
    {
        const ReadOnlyFileSystem readOnly;
        EXPECT_FALSE(tryAdd("lost"));
        EXPECT_FALSE(store.clear({}));
        EXPECT_FALSE(store.isOpen());
    }
    EXPECT_FALSE(isSetAside());
    add("later");
    EXPECT_EQ(completions(), (Texts{"kept", "later"}));
}

}  // namespace
}  // namespace orvex
