#include "query/engaged_store.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <limits>

#include "daemon/orvex_logging.h"
#include "platform/counters.h"
#include "query/engaged_text.h"

// Opening. The file is made by us, empty and mode 0600, and SQLite's two others take that mode from it. The vacuum mode
// is set before the log mode: set later it is ignored until a VACUUM. SQLite opens anything; whether it is a database
// shows with the first statement.
//
// Inserting. The purge of old rows and the count of a client's rows read the whole table, and mostly find nothing to
// do. So the oldest date and the counts are kept here, and believed while no other process has written; an insert with
// nothing due is one statement.
//
// A file of the right version that does not take an engagement, its table lost or another, is damaged like one that
// cannot be read: nothing that is set by a version alone could mend it.
//
// Clearing. Deleted rows are overwritten with zeros, and the write-ahead log, which still has them, is carried over and
// cut to nothing. A copy that was set aside cannot be cleared in part, so it goes as a whole.

namespace orvex {
namespace {

namespace sql {

constexpr char vacuumMode[] = "PRAGMA auto_vacuum;";
constexpr char setVacuumMode[] = "PRAGMA auto_vacuum = 2;";
constexpr char vacuum[] = "VACUUM;";
constexpr char configure[] =
    "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA secure_delete = ON; "
    "PRAGMA max_page_count = 65536;";
constexpr char quickCheck[] = "PRAGMA quick_check(1);";
constexpr char dataVersion[] = "PRAGMA data_version;";
constexpr char giveBackPages[] = "PRAGMA incremental_vacuum;";
constexpr char truncateLog[] = "PRAGMA wal_checkpoint(TRUNCATE);";

constexpr char begin[] = "BEGIN IMMEDIATE;";
constexpr char commit[] = "COMMIT;";
constexpr char rollback[] = "ROLLBACK;";

constexpr char readVersion[] = "SELECT schema_version from completion_cache_schema_version";
constexpr char insertVersion[] = "INSERT INTO completion_cache_schema_version VALUES (6)";

constexpr char insert[] =
    "INSERT INTO completion_cache_engagement (completion, input, engagement_date, origin, client, transformed) "
    "VALUES (?1, ?2, ?3, ?4, ?5, ?6)";
constexpr char explainInsert[] =
    "EXPLAIN INSERT INTO completion_cache_engagement (completion, input, engagement_date, origin, client, transformed) "
    "VALUES (NULL, NULL, NULL, NULL, NULL, NULL)";
constexpr char statistics[] =
    "SELECT client, COUNT(*), MIN(engagement_date) FROM completion_cache_engagement GROUP BY client";
constexpr char dateAtOffset[] =
    "SELECT engagement_date FROM completion_cache_engagement WHERE client == ?1 "
    "ORDER BY engagement_date DESC LIMIT 1 OFFSET ?2";

constexpr char clearDatesOfClient[] =
    "DELETE FROM completion_cache_engagement WHERE engagement_date >= ?1 AND engagement_date <= ?2 AND client == ?3";
constexpr char clearDates[] =
    "DELETE FROM completion_cache_engagement WHERE engagement_date >= ?1 AND engagement_date <= ?2";
constexpr char clearClient[] = "DELETE FROM completion_cache_engagement WHERE client == ?3";
constexpr char clearAll[] = "DELETE FROM completion_cache_engagement";

/// The schema, step by step; each has the line that its failure logs.
constexpr struct {
    const char* statement;
    const char* failure;
} schema[] = {
    {"DROP table IF EXISTS completion_cache_schema_version;", "Error _setDBSchema drop schema table"},
    {"CREATE table completion_cache_schema_version(schema_version INT);", "Error _setDBSchema create schema table"},
    {"DROP table IF EXISTS completion_cache_engagement;", "Error _setDBSchema drop completion_cache_engagement table"},
    {"CREATE TABLE IF NOT EXISTS completion_cache_engagement(completion TEXT, input TEXT, engagement_date INT, "
     "origin TEXT, client INT, transformed TEXT);",
     "Error _setDBSchema create completion_cache_engagement table"},
    {"CREATE INDEX transformed_index ON completion_cache_engagement(transformed);",
     "Error _setDBSchema table completion_cache_engagement create index (transformed)"},
    {"CREATE INDEX input_index ON completion_cache_engagement(input);",
     "Error _setDBSchema table completion_cache_engagement create index (input)"},
    {insertVersion, "Error _setDBSchema insert schema version string"},
};

}  // namespace sql

constexpr const char* databaseFiles[] = {"Cache.db", "Cache.db-wal", "Cache.db-shm"};

constexpr std::int64_t distantPast = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t distantFuture = std::numeric_limits<std::int64_t>::max();

constexpr std::string_view entriesCounter = "com.kelvar.orvexd.brovia.localCompletionIndex.entries";
constexpr std::string_view sizeCounter = "com.kelvar.orvexd.brovia.localCompletionIndex.size";
constexpr std::string_view repairedCounter = "com.kelvar.orvexd.completions.repaired";
constexpr std::string_view failedCounter = "com.kelvar.orvexd.completions.failed";

const platform::Logger& log() { return OrvexLogForCategory(OrvexLoggingCategory::search); }

std::string_view originText(int origin) {
    if (origin == 1 || origin == 3) return "se";
    return origin == 2 ? "3d" : "";
}

std::string describedDate(std::int64_t date) {
    if (date == distantPast) return "distant past";
    return date == distantFuture ? "distant future" : std::to_string(date);
}

std::string described(const EngagedStore::Range& range) {
    if (range.dates) {
        return fmt::format("completions fromDate:{} toDate:{}{}", describedDate(range.dates->first),
                           describedDate(range.dates->second), range.client ? "" : " for all clients");
    }
    return range.client ? fmt::format("completions for client {}", *range.client) : "all completions";
}

}  // namespace

EngagedStore::EngagedStore(platform::FileManager& fileManager, platform::Counters& counters,
                           std::function<void()> closeReaders)
    : _fileManager(fileManager),
      _counters(counters),
      _closeReaders(std::move(closeReaders)) {}

std::unexpected<platform::Failure> EngagedStore::_failed(const char* what, int code) const {
    return platform::failure(code, fmt::format("cannot {}: {}", what, sqlite3_errstr(code)));
}

// Opening.

platform::Result<void> EngagedStore::open() {
    return isOpen() ? platform::Result<void>() : _createOrUpdateDatabaseIfNeeded();
}

void EngagedStore::close() {
    _closeReaders();
    _statistics.reset();
    _database.close();
}

platform::Result<void> EngagedStore::_createOrUpdateDatabaseIfNeeded() {
    if (isOpen()) {
        log().log("Closing existing Completions database connection");
        close();
    }
    auto opened = _openOnce();
    if (opened || !_isDamage(opened.error().code)) {
        if (!opened) close();
        return opened;
    }
    _setAside();
    opened = _openOnce();
    if (!opened) close();
    return opened;
}

platform::Result<void> EngagedStore::_openOnce() {
    bool isNew = false;
    auto path = _readyFile(isNew);
    if (!path) {
        log().error("Failed to create database dir: {}", path.error().text);
        return platform::failure(SQLITE_CANTOPEN, path.error().text);
    }
    _path = *std::move(path);
    int code = _database.open(_path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    if (code != SQLITE_OK) {
        log().error("Failed to open completions database: {} error={} cause={}", _path, code, _database.errorMessage());
        return _failed("open the completions database", code);
    }
    ++_generation;
    log().log("Completions database opened: {}", _path);
    code = _configure(isNew);
    if (code == SQLITE_OK) code = _checkSchema(isNew);
    if (code != SQLITE_OK) return _failed("use the completions database", code);
    return {};
}

platform::Result<std::shared_ptr<platform::Directory>> EngagedStore::_directory() const {
    auto caches = _fileManager.cachesDirectory();
    if (!caches) return caches;
    return (*caches)->directory("EngagedCompletions");
}

/// The path of a file that is ours to open, made if there was none.
platform::Result<std::string> EngagedStore::_readyFile(bool& isNew) {
    auto directory = _directory();
    if (!directory) return std::unexpected(directory.error());
    for (const char* name : databaseFiles) {
        const auto attributes = (*directory)->attributes(name);
        if (!attributes && platform::saysBrokenFile(attributes.error())) {
            log().error("{} is no file, it is set aside: {}", name, attributes.error().text);
            platform::setAside(**directory, name);
        } else if (!attributes && attributes.error().code != ENOENT) {
            return std::unexpected(attributes.error());
        }
    }
    const auto attributes = (*directory)->attributes(databaseFiles[0]);
    isNew = !attributes || attributes->size == 0;
    if (!attributes) {
        if (auto made = (*directory)->replace(databaseFiles[0], ""); !made) return std::unexpected(made.error());
    }
    std::error_code error;
    const auto path = std::filesystem::canonical((*directory)->path(), error) / databaseFiles[0];
    if (!error && attributes && attributes->permissions != 0600) {
        using std::filesystem::perms;
        std::filesystem::permissions(path, perms::owner_read | perms::owner_write, error);
    }
    if (error) return platform::failure(error.value(), path.string() + ": " + error.message());
    return path.string();
}

int EngagedStore::_configure(bool isNew) {
    sqlite3_busy_timeout(_database.handle(), static_cast<int>(std::chrono::milliseconds(busyTimeout).count()));
    int code = SQLITE_OK;
    if (isNew) {
        code = _execSQLStatement(sql::setVacuumMode);
    } else if (const auto mode = _value(sql::vacuumMode, code); mode && *mode != 2) {
        code = _execSQLStatement(sql::setVacuumMode);
        if (code == SQLITE_OK) code = _execSQLStatement(sql::vacuum);
    }
    return code == SQLITE_OK ? _execSQLStatement(sql::configure) : code;
}

int EngagedStore::_checkSchema(bool isNew) {
    if (isNew) return _setDBSchema();
    if (_schemaVersion == schemaVersion) return _takesEngagements() ? SQLITE_OK : SQLITE_CORRUPT;
    int code = SQLITE_OK;
    const auto version = _value(sql::readVersion, code);
    if (code != SQLITE_OK) {
        log().error("Engaged completion cache schema version read failed");
        // A missing table is an answer; a lock or a disk that fails is none, and must not cost what is stored.
        if (platform::primaryCode(code) != SQLITE_ERROR) return code;
    }
    if (version != schemaVersion) return _setDBSchema();
    _schemaVersion = schemaVersion;
    return _takesEngagements() ? SQLITE_OK : SQLITE_CORRUPT;
}

/// Whether the schema has what an insert needs, as far as can be told; nothing is inserted.
bool EngagedStore::_takesEngagements() {
    return platform::primaryCode(_database.execute(sql::explainInsert)) != SQLITE_ERROR;
}

int EngagedStore::_setDBSchema() {
    _statistics.reset();
    if (_execSQLStatement(sql::setVacuumMode) != SQLITE_OK) log().error("Error _setDBSchema pragma auto_vacum");
    int code = _execSQLStatement(sql::begin);
    if (code != SQLITE_OK) return code;
    for (const auto& step : sql::schema) {
        const int failed = _execSQLStatement(step.statement);
        if (failed == SQLITE_OK) continue;
        log().error("{}", step.failure);
        if (code == SQLITE_OK) code = failed;
    }
    if (code == SQLITE_OK) code = _execSQLStatement(sql::commit);
    if (code != SQLITE_OK) {
        (void)_database.execute(sql::rollback);  // which fails where the failure itself has rolled back
        return code;
    }
    _schemaVersion = schemaVersion;
    return SQLITE_OK;
}

int EngagedStore::_execSQLStatement(const char* sql) {
    const int code = _database.execute(sql);
    if (code != SQLITE_OK) _logFailed(sql, code);
    return code;
}

void EngagedStore::_logFailed(const char* sql, int code) const {
    log().error("_execSQLStatement failed - SQL:{} error-code: {} error-message: {}", sql, code,
                _database.errorMessage());
}

/// The first column of the first row, of a statement without parameters.
std::optional<std::int64_t> EngagedStore::_value(const char* sql, int& code) {
    auto run = _database.run(sql);
    std::optional<std::int64_t> value;
    if (run.step()) value = run.integer(0);
    code = run.finish();
    return value;
}

// Inserting.

platform::Result<void> EngagedStore::add(const Engagement& engagement, std::int64_t now) {
    if (auto opened = open(); !opened) return opened;
    const auto transformed = normalizedForMatching(engagement.completion);
    log().debug("Adding completion: {} input: {} transformed: {}", platform::privately(engagement.completion),
                platform::privately(engagement.input), platform::privately(transformed));
    int code = _insert(engagement, transformed, now);
    if (code != SQLITE_OK && _isDamage(code)) {
        log().error("Corrupt db error while adding completion {}, rebuilding schema",
                    platform::privately(engagement.completion));
        _setAside();
        if (auto opened = _createOrUpdateDatabaseIfNeeded(); !opened) return opened;
        code = _insert(engagement, transformed, now);
    }
    if (code != SQLITE_OK) {
        log().error("Failed to add completion: {}", platform::privately(engagement.completion));
        _counters.add(failedCounter);
        return _failed("add the completion", code);
    }
    log().log("Completion added: {} input {}", platform::privately(engagement.completion),
              platform::privately(engagement.input));
    _performAggdLogging();
    if (_owesTruncation) _eraseTraces();
    return {};
}

int EngagedStore::_insert(const Engagement& engagement, const std::string& transformed, std::int64_t now) {
    if (const int code = _refreshStatistics(); code != SQLITE_OK) return code;
    const auto cutoff = now - std::chrono::seconds(lifetime).count();
    const auto limit = engagement.maxRows == 0 ? defaultMaxRows : engagement.maxRows;
    const bool purgeIsDue = _statistics->oldest && *_statistics->oldest <= cutoff;
    if (!purgeIsDue && _statistics->rowsOfClient[engagement.client] < limit)
        return _insertRow(engagement, transformed, now);

    int code = _database.execute(sql::begin);
    if (code == SQLITE_OK && purgeIsDue) code = _purge(cutoff);
    if (code == SQLITE_OK && _statistics->rowsOfClient[engagement.client] >= limit) {
        code = _deleteOldestEngagements(limit, engagement.client);
    }
    if (code == SQLITE_OK) code = _insertRow(engagement, transformed, now);
    if (code == SQLITE_OK) code = _database.execute(sql::commit);
    if (code != SQLITE_OK) {
        (void)_database.execute(sql::rollback);
        _statistics.reset();
    }
    return code;
}

int EngagedStore::_insertRow(const Engagement& engagement, const std::string& transformed, std::int64_t now) {
    const auto origin = originText(engagement.origin);
    auto run = _database.run(sql::insert);
    if (!run.prepared()) log().error("_prepareInsertStatement failed - SQL:{} code: {}", sql::insert, run.finish());
    run.bind(1, engagement.completion).bind(2, engagement.input).bind(3, now);
    if (!origin.empty()) run.bind(4, origin);
    run.bind(5, engagement.client).bind(6, transformed);
    const int code = run.finish();
    if (code != SQLITE_OK) return code;
    ++_statistics->rowsOfClient[engagement.client];
    _statistics->oldest = std::min(_statistics->oldest.value_or(now), now);
    return SQLITE_OK;
}

int EngagedStore::_refreshStatistics() {
    int code = SQLITE_OK;
    const auto version = _value(sql::dataVersion, code);
    if (code != SQLITE_OK || !version) return code == SQLITE_OK ? SQLITE_ERROR : code;
    if (_statistics && _statistics->dataVersion == *version) return SQLITE_OK;
    Statistics read{.dataVersion = *version, .rowsOfClient = {}, .oldest = {}};
    auto run = _database.run(sql::statistics);
    while (run.step()) {
        read.rowsOfClient[run.integer(0)] += static_cast<std::uint64_t>(run.integer(1));
        if (!run.isNull(2)) read.oldest = std::min(read.oldest.value_or(run.integer(2)), run.integer(2));
    }
    code = run.finish();
    if (code == SQLITE_OK) _statistics = std::move(read);
    return code;
}

int EngagedStore::_purge(std::int64_t cutoff) {
    const int code = _delete({.dates = std::pair(distantPast, cutoff), .client = {}});
    _statistics.reset();
    return code == SQLITE_OK ? _refreshStatistics() : code;
}

int EngagedStore::_deleteOldestEngagements(std::uint64_t limit, std::int64_t client) {
    // One fewer than the limit may stay, for the row that follows: the newest of those that go is at this offset.
    constexpr auto most = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    auto run = _database.run(sql::dateAtOffset);
    run.bind(1, client).bind(2, static_cast<std::int64_t>(std::min(limit - 1, most)));
    std::optional<std::int64_t> date;
    if (run.step()) date = run.integer(0);
    int code = run.finish();
    if (code != SQLITE_OK || !date) return code;
    code = _delete({.dates = std::pair(distantPast, *date), .client = client});
    _statistics->rowsOfClient[client] -= static_cast<std::uint64_t>(sqlite3_changes64(_database.handle()));
    return code;
}

void EngagedStore::_performAggdLogging() {
    std::uint64_t rows = 0;
    for (const auto& [client, count] : _statistics->rowsOfClient) rows += count;
    std::error_code error;
    const auto size = std::filesystem::file_size(_path, error);
    const auto report = [this](std::string_view key, std::uint64_t value) {
        _counters.set(key, static_cast<std::int64_t>(value));
        log().log("Aggd logging {}: {}", key, value);
    };
    report(entriesCounter, rows);
    if (!error) report(sizeCounter, size);
}

// Clearing.

platform::Result<std::int64_t> EngagedStore::clear(const Range& range) {
    if (auto opened = open(); !opened) return std::unexpected(opened.error());
    _statistics.reset();
    int code = _delete(range);
    if (code != SQLITE_OK && _isDamage(code)) {
        _setAside();
        if (auto opened = _createOrUpdateDatabaseIfNeeded(); !opened) return std::unexpected(opened.error());
        code = _delete(range);
    }
    if (code != SQLITE_OK) {
        _counters.add(failedCounter);
        return _failed("clear completions", code);
    }
    const auto removed = sqlite3_changes64(_database.handle());
    _eraseTraces();
    return removed;
}

/// Deletes and logs. The statistics are the caller's.
int EngagedStore::_delete(const Range& range) {
    const char* const dated = range.client ? sql::clearDatesOfClient : sql::clearDates;
    const char* const undated = range.client ? sql::clearClient : sql::clearAll;
    const char* const statement = range.dates ? dated : undated;
    auto run = _database.run(statement);
    if (range.dates) run.bind(1, range.dates->first).bind(2, range.dates->second);
    if (range.client) run.bind(3, *range.client);
    const int code = run.finish();
    if (code == SQLITE_OK) {
        log().log("Cleared {}", described(range));
    } else {
        _logFailed(statement, code);
        log().error("Failed to clear{}{}", range.dates ? "" : " ", described(range));
    }
    return code;
}

void EngagedStore::_eraseTraces() {
    (void)_execSQLStatement(sql::giveBackPages);
    int code = SQLITE_OK;
    const auto busy = _value(sql::truncateLog, code);
    _owesTruncation = code != SQLITE_OK || busy != 0;
    if (_owesTruncation) {
        log().error(
            "cleared completions are still in the log of the database, code: {}; another attempt follows the "
            "next change",
            code);
    }
    const auto directory = _directory();
    if (!directory) return;
    for (const char* name : databaseFiles) (void)(*directory)->remove(std::string(name) + ".corrupt");  // mostly ENOENT
}

// Repairing.

void EngagedStore::checkDamage(int code, std::uint64_t generation) {
    if (!isOpen() || generation != _generation || !_isDamage(code)) return;
    _setAside();
    (void)_createOrUpdateDatabaseIfNeeded();  // logs; the next change tries again
}

bool EngagedStore::_isDamage(int code) {
    const int primary = platform::primaryCode(code);
    if (primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB) return true;
    if (primary == SQLITE_ERROR && isOpen()) return !_takesEngagements();
    if (primary != SQLITE_IOERR || !isOpen()) return false;
    auto run = _database.run(sql::quickCheck);
    const bool isWhole = run.step() && run.text(0) == "ok";
    return !isWhole;
}

void EngagedStore::_setAside() {
    log().error("the completions database is damaged, it is set aside: {}", _path);
    _counters.add(repairedCounter);
    close();
    _schemaVersion = 0;
    const auto directory = _directory();
    if (!directory) return;
    for (const char* name : databaseFiles) platform::setAside(**directory, name);
}

}  // namespace orvex
