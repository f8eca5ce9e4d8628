#include "query/engaged_reader.h"

#include "daemon/orvex_logging.h"
#include "platform/text.h"
#include "query/engaged_text.h"

// The score of a completion is the sum of what its engagements are worth by age, and a share that grows with the date
// of the latest. `origin` stands bare beside the one MAX, so it is the latest engagement's. The parameters are
// numbered: in the text thresholds and weights alternate.

namespace orvex {
namespace {

namespace sql {

constexpr char configure[] = "PRAGMA query_only = 1;";

constexpr char search[] =
    "SELECT completion, origin, SUM(CASE WHEN engagement_date > ?1 THEN ?12 WHEN engagement_date > ?2 THEN ?13 "
    "WHEN engagement_date > ?3 THEN ?14 WHEN engagement_date > ?4 THEN ?15 WHEN engagement_date > ?5 THEN ?16 "
    "ELSE 0 END) + (?17 * MAX(engagement_date) / ?6) AS score FROM completion_cache_engagement "
    "WHERE (input BETWEEN ?7 AND ?8 OR transformed BETWEEN ?9 AND ?10) AND client == ?11 "
    "GROUP BY completion ORDER BY score DESC LIMIT ?18";

constexpr char features[] =
    "SELECT F, COUNT(*) FROM (SELECT completion, CASE WHEN engagement_date > ?1 THEN 'h' "
    "WHEN engagement_date > ?2 THEN 'd' WHEN engagement_date > ?3 THEN 'w' WHEN engagement_date > ?4 THEN 'm' "
    "WHEN engagement_date > ?5 THEN 'y' END AS F FROM completion_cache_engagement "
    "WHERE (input BETWEEN ?7 AND ?8 OR transformed BETWEEN ?9 AND ?10) AND client == ?11) GROUP BY F LIMIT 1";

}  // namespace sql

constexpr int stepsBetweenQuestions = 1000;  // about 20 µs

constexpr int maxLockTries = 200;  // of a millisecond each; nobody who waits for a search waits longer

constexpr std::int64_t thresholdAges[] = {3'600, 86'400, 604'800, 2'592'000, 31'536'000};  // seconds

/// The texts that a run is bound to, for as long as it lasts.
struct PrefixRanges {
    explicit PrefixRanges(std::string_view input)
        : inputEnd(endOfPrefixRange(input)),
          transformed(normalizedForMatching(input)),
          transformedEnd(endOfPrefixRange(transformed)) {}

    const std::string inputEnd, transformed, transformedEnd;
};

void bindQuery(platform::SQLiteRun& run, const EngagedReader::Query& query, const PrefixRanges& ranges) {
    int position = 1;
    for (const auto age : thresholdAges) run.bind(position++, query.now - age);
    run.bind(7, query.input).bind(8, ranges.inputEnd);
    run.bind(9, ranges.transformed).bind(10, ranges.transformedEnd);
    run.bind(11, query.client);
}

void logUnlessPrepared(platform::SQLiteRun& run, const char* sql) {
    if (run.prepared()) return;
    OrvexLogForCategory(OrvexLoggingCategory::search)
        .error("_prepareSelectStatement failed - SQL:{} code: {}", sql, run.finish());
}

std::uint32_t typeOfOrigin(std::string_view origin) {
    if (origin == "se") return 1;
    return origin == "3d" ? 8 : 0;
}

int askedByBusyHandler(void* unwanted, int tries) {
    if (tries >= maxLockTries || (*static_cast<const EngagedReader::Unwanted*>(unwanted))()) return 0;
    sqlite3_sleep(1);
    return 1;
}

int askedByProgressHandler(void* unwanted) {
    return (*static_cast<const EngagedReader::Unwanted*>(unwanted))() ? 1 : 0;
}

}  // namespace

/// While it lives, SQLite asks whether to go on, at work and at locks.
class EngagedReader::Stoppable {
public:
    Stoppable(sqlite3* connection, const Unwanted& unwanted) : _connection(connection) {
        auto* asked = const_cast<Unwanted*>(&unwanted);
        sqlite3_progress_handler(_connection, stepsBetweenQuestions, askedByProgressHandler, asked);
        sqlite3_busy_handler(_connection, askedByBusyHandler, asked);
    }
    ~Stoppable() {
        sqlite3_progress_handler(_connection, 0, nullptr, nullptr);
        sqlite3_busy_handler(_connection, nullptr, nullptr);
    }
    Stoppable(const Stoppable&) = delete;
    Stoppable& operator=(const Stoppable&) = delete;

private:
    sqlite3* const _connection;
};

EngagedReader::Found<std::unique_ptr<EngagedReader>> EngagedReader::open(const std::string& path) {
    std::unique_ptr<EngagedReader> reader(new EngagedReader);
    auto& database = reader->_database;
    int code = database.open(path, SQLITE_OPEN_READWRITE);
    if (code == SQLITE_OK) {
        sqlite3_db_config(database.handle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
        code = database.execute(sql::configure);
    }
    if (code != SQLITE_OK) return std::unexpected(code);
    return reader;
}

EngagedReader::Found<std::vector<ORXSuggestion>> EngagedReader::completions(const Query& query,
                                                                            const EngagedParameters& parameters,
                                                                            const Unwanted& unwanted) {
    const PrefixRanges ranges(query.input);
    const Stoppable stoppable(_database.handle(), unwanted);
    auto run = _database.run(sql::search);
    logUnlessPrepared(run, sql::search);
    bindQuery(run, query, ranges);
    run.bind(6, query.now);
    run.bind(12, parameters.broviaLast1hour).bind(13, parameters.broviaLast1day);
    run.bind(14, parameters.broviaLast1week).bind(15, parameters.broviaLast1month);
    run.bind(16, parameters.broviaAll).bind(17, parameters.broviaMostRecent);
    run.bind(18, query.count);
    std::vector<ORXSuggestion> found;
    while (run.step()) {
        found.push_back({.suggestion = std::string(run.text(0)),
                         .query = std::string(query.input),
                         .score = run.real(2),
                         .type = typeOfOrigin(run.text(1)),
                         .topicIdentifier = {},
                         .fbr = {}});
    }
    if (const int code = run.finish(); code != SQLITE_OK) return std::unexpected(code);
    return found;
}

EngagedReader::Found<std::map<std::string, std::int64_t>> EngagedReader::featureCounts(const Query& query,
                                                                                       const Unwanted& unwanted) {
    const PrefixRanges ranges(query.input);
    const Stoppable stoppable(_database.handle(), unwanted);
    auto run = _database.run(sql::features);
    logUnlessPrepared(run, sql::features);
    bindQuery(run, query, ranges);
    std::map<std::string, std::int64_t> counts;
    if (run.step() && !run.isNull(0)) counts.emplace(run.text(0), run.integer(1));
    if (const int code = run.finish(); code != SQLITE_OK) return std::unexpected(code);
    return counts;
}

}  // namespace orvex
