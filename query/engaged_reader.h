#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/orx_request.h"
#include "platform/sqlite_database.h"

namespace orvex {

/// What an engagement is worth by its age, and the least score that is offered.
struct EngagedParameters {
    double broviaLast1hour = 10;
    double broviaLast1day = 1;
    double broviaLast1week = 0.1;
    double broviaLast1month = 0.01;
    double broviaAll = 0.001;  ///< within the last 365 days
    double broviaMostRecent = 1;
    double minThresholdToSend = 0;
};

/// A connection that searches the engaged completions beside the one that writes them, and its prepared statements.
/// Threading: one search at a time, on any thread. It is the search's own, so stopping it stops nobody else.
class EngagedReader {
public:
    struct Query {
        std::string_view input;
        std::int64_t client = 0;
        std::int64_t now = 0;    ///< seconds since 1970
        std::int64_t count = 0;  ///< of completions, at most
    };
    /// Asked now and then during a search, which ends (SQLITE_INTERRUPT, SQLITE_BUSY) once it is true.
    using Unwanted = std::function<bool()>;
    template <class T>
    using Found = std::expected<T, int>;  ///< or SQLite's code

    /// `path` is a database that is there.
    static Found<std::unique_ptr<EngagedReader>> open(const std::string& path);

    /// Best score first; nothing is dropped for its score.
    [[nodiscard]] Found<std::vector<ORXSuggestion>> completions(const Query& query, const EngagedParameters& parameters,
                                                                const Unwanted& unwanted);

    /// How many engagements match, for one age: "h", "d", "w", "m" or "y", for within the last hour to within the last
    /// year. Of several ages one is answered; none where something that matches is older than a year.
    [[nodiscard]] Found<std::map<std::string, std::int64_t>> featureCounts(const Query& query,
                                                                           const Unwanted& unwanted);

private:
    class Stoppable;
    EngagedReader() = default;

    platform::SQLiteDatabase _database;
};

}  // namespace orvex
