#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/file_manager.h"
#include "platform/result.h"
#include "platform/sqlite_database.h"

namespace orvex::platform {
class Counters;
}

namespace orvex {

/// The file of engaged completions, "EngagedCompletions/Cache.db" in the caches directory, and its one writer.
///
///     closed ──open──▶ open ──damage is found──▶ set aside as *.corrupt, made anew ──▶ open
///                      open ──close──▶ closed
///
/// Whatever changes it opens it first when it is closed, so a disk or a lock that was in the way once is no matter the
/// next time. A file of another schema version is emptied. A database that another process locks is waited for, at
/// most `busyTimeout`.
///
/// Durability: what was answered survives a crash of the process at any moment; a power cut may lose the last changes,
/// never the file. Once a clear has succeeded, what it took is nowhere in the files any more; if another process reads
/// them at that moment, that holds after the next change.
/// Limits: the file grows to 256 MiB and takes no more then.
/// Threading: none of its own; one operation at a time, which may take as long as the disk and the lock do.
class EngagedStore {
public:
    struct Engagement {
        std::string completion;  ///< not empty
        std::string input;       ///< what was typed
        int origin = 0;
        std::int64_t client = 0;
        std::uint64_t maxRows = 0;  ///< of this client, with this one; 0: `defaultMaxRows`
    };
    /// What a clear is about; absent: all dates, all clients.
    struct Range {
        std::optional<std::pair<std::int64_t, std::int64_t>> dates;  ///< seconds since 1970, both ends included
        std::optional<std::int64_t> client;
    };

    /// How many rows the file has and how many bytes, as of the last change.
    static constexpr std::string_view entriesCounter = "com.kelvar.orvexd.brovia.localCompletionIndex.entries";
    static constexpr std::string_view sizeCounter = "com.kelvar.orvexd.brovia.localCompletionIndex.size";

    static constexpr std::int64_t schemaVersion = 6;
    static constexpr std::uint64_t defaultMaxRows = 10'000;
    static constexpr std::chrono::hours lifetime{30 * 24};  ///< of an engagement, if another follows
    static constexpr std::chrono::seconds busyTimeout{5};

    /// `closeReaders` returns when nobody else in this process has the file open; called before it is set aside.
    EngagedStore(platform::FileManager& fileManager, platform::Counters& counters, std::function<void()> closeReaders);

    [[nodiscard]] platform::Result<void> open();  ///< nothing when it is open
    void close();
    [[nodiscard]] bool isOpen() const { return _database.isOpen(); }
    /// Of the open file, without symbolic links.
    [[nodiscard]] const std::string& path() const { return _path; }

    /// Adds one engagement of `now` (seconds since 1970), after what the lifetime and the client's limit take away: of
    /// the client's rows the newest `maxRows` - 1 stay, fewer where several are of one second.
    [[nodiscard]] platform::Result<void> add(const Engagement& engagement, std::int64_t now);

    /// Returns how many rows it took.
    [[nodiscard]] platform::Result<std::int64_t> clear(const Range& range);

    /// A reader of this generation of the file got this code of SQLite. Sets the file aside and makes a new one, if
    /// that is what it says.
    void checkDamage(int code, std::uint64_t generation);
    [[nodiscard]] std::uint64_t generation() const { return _generation; }

private:
    /// The database and SQLite's two beside it.
    static constexpr const char* databaseFiles[] = {"Cache.db", "Cache.db-wal", "Cache.db-shm"};

    /// What would otherwise be asked of the file for each insert. Holds while no other process has written.
    struct Statistics {
        std::int64_t dataVersion = 0;
        std::map<std::int64_t, std::uint64_t> rowsOfClient;
        std::optional<std::int64_t> oldest;  ///< or earlier; none: no rows
    };

    [[nodiscard]] platform::Result<void> _createOrUpdateDatabaseIfNeeded();
    [[nodiscard]] platform::Result<void> _openOnce();
    [[nodiscard]] platform::Result<std::shared_ptr<platform::Directory>> _directory() const;
    [[nodiscard]] platform::Result<std::string> _readyFile(bool& isNew);
    [[nodiscard]] int _configure(bool isNew);
    [[nodiscard]] int _checkSchema(bool isNew);
    [[nodiscard]] bool _takesEngagements();
    [[nodiscard]] int _setDBSchema();
    [[nodiscard]] int _execSQLStatement(const char* sql);
    void _logFailed(const char* sql, int code) const;  ///< of the statement that ran last
    [[nodiscard]] std::optional<std::int64_t> _value(const char* sql, int& code);

    [[nodiscard]] int _insert(const Engagement& engagement, const std::string& transformed, std::int64_t now);
    [[nodiscard]] int _insertRow(const Engagement& engagement, const std::string& transformed, std::int64_t now);
    [[nodiscard]] int _refreshStatistics();
    [[nodiscard]] int _purge(std::int64_t cutoff);
    [[nodiscard]] int _deleteOldestEngagements(std::uint64_t limit, std::int64_t client);
    void _performAggdLogging();
    void _countCleared(std::int64_t removed);

    [[nodiscard]] int _delete(const Range& range);
    void _eraseTraces();

    [[nodiscard]] bool _isDamage(int code);
    void _setAside();
    [[nodiscard]] std::unexpected<platform::Failure> _failed(const char* what, int code) const;

    // Constant after construction.
    platform::FileManager& _fileManager;
    platform::Counters& _counters;
    const std::function<void()> _closeReaders;

    platform::SQLiteDatabase _database;
    std::string _path;
    std::uint64_t _generation = 0;    ///< how often it was opened
    std::int64_t _schemaVersion = 0;  ///< 0 until it was read
    std::optional<Statistics> _statistics;
    bool _owesTruncation = false;  ///< a clear could not empty the log, since somebody was reading it
};

}  // namespace orvex
