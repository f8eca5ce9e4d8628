#include "query/engaged_store.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <limits>

#include "daemon/orvex_logging.h"
#include "platform/counters.h"
#include "query/engaged_text.h"

// Inserting. The purge of old rows and the count of a client's rows read the whole table, and mostly find nothing to
// do. So the oldest date and the counts are kept here, and believed while no other process has written; an insert with
// nothing due is one statement.
//
// Clearing. Deleted rows are overwritten with zeros, and the write-ahead log, which still has them, is carried over and
// cut to nothing. A copy that was set aside cannot be cleared in part, so it goes as a whole.

namespace orvex {
namespace {

namespace sql {

constexpr char begin[] = "BEGIN IMMEDIATE;";
constexpr char commit[] = "COMMIT;";
constexpr char rollback[] = "ROLLBACK;";

constexpr char insert[] =
    "INSERT INTO completion_cache_engagement (completion, input, engagement_date, origin, client, transformed) "
    "VALUES (?1, ?2, ?3, ?4, ?5, ?6)";
constexpr char statistics[] =
    "SELECT client, COUNT(*), MIN(engagement_date) FROM completion_cache_engagement GROUP BY client";
constexpr char dateAtOffset[] =
    "SELECT engagement_date FROM completion_cache_engagement WHERE client == ?1 "
    "ORDER BY engagement_date DESC LIMIT 1 OFFSET ?2";
constexpr char dataVersion[] = "PRAGMA data_version;";

constexpr char clearDatesOfClient[] =
    "DELETE FROM completion_cache_engagement WHERE engagement_date >= ?1 AND engagement_date <= ?2 AND client == ?3";
constexpr char clearDates[] =
    "DELETE FROM completion_cache_engagement WHERE engagement_date >= ?1 AND engagement_date <= ?2";
constexpr char clearClient[] = "DELETE FROM completion_cache_engagement WHERE client == ?3";
constexpr char clearAll[] = "DELETE FROM completion_cache_engagement";
constexpr char giveBackPages[] = "PRAGMA incremental_vacuum;";
constexpr char truncateLog[] = "PRAGMA wal_checkpoint(TRUNCATE);";

}  // namespace sql

constexpr std::int64_t distantPast = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t distantFuture = std::numeric_limits<std::int64_t>::max();

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
    _countCleared(removed);
    return removed;
}

void EngagedStore::_countCleared(std::int64_t removed) {
    _counters.set(entriesCounter, std::max<std::int64_t>(_counters.value(entriesCounter) - removed, 0));
    std::error_code error;
    const auto size = std::filesystem::file_size(_path, error);
    if (!error) _counters.set(sizeCounter, static_cast<std::int64_t>(size));
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

}  // namespace orvex
