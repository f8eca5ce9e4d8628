#include "query/engaged_store.h"

#include <cerrno>
#include <filesystem>

#include "daemon/orvex_logging.h"
#include "platform/counters.h"
#include "platform/log_events.h"

// Opening. The file is made by us, empty and mode 0600, and SQLite's two others take that mode from it. The vacuum mode
// is set before the log mode: set later it is ignored until a VACUUM. SQLite opens anything; whether it is a database
// shows with the first statement.
//
// A file of the right version that does not take an engagement, its table lost or another, is damaged like one that
// cannot be read: nothing that is set by a version alone could mend it.

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

constexpr char begin[] = "BEGIN IMMEDIATE;";
constexpr char commit[] = "COMMIT;";
constexpr char rollback[] = "ROLLBACK;";

constexpr char readVersion[] = "SELECT schema_version from completion_cache_schema_version";
constexpr char insertVersion[] = "INSERT INTO completion_cache_schema_version VALUES (6)";
constexpr char explainInsert[] =
    "EXPLAIN INSERT INTO completion_cache_engagement (completion, input, engagement_date, origin, client, transformed) "
    "VALUES (NULL, NULL, NULL, NULL, NULL, NULL)";

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

constexpr std::string_view repairedCounter = "com.kelvar.orvexd.completions.repaired";

const platform::Logger& log() { return OrvexLogForCategory(OrvexLoggingCategory::search); }

}  // namespace

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
            log()
                .as(platform::LogEvent::fileSetAside, {{"ORVEX_FILE", name}, {"ORVEX_REASON", attributes.error().text}})
                .error("{} is no file, it is set aside: {}", name, attributes.error().text);
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
    log()
        .as(platform::LogEvent::fileSetAside, {{"ORVEX_FILE", _path}})
        .error("the completions database is damaged, it is set aside: {}", _path);
    _counters.add(repairedCounter);
    close();
    _schemaVersion = 0;
    const auto directory = _directory();
    if (!directory) return;
    for (const char* name : databaseFiles) platform::setAside(**directory, name);
}

}  // namespace orvex
