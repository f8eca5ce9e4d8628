#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/dispatch.h"
#include "platform/http_session.h"
#include "platform/memory_pressure.h"
#include "query/cached_result_set.h"
#include "resources/critbit.h"

namespace orvex {

class Assembly;
struct ORXSearchRequest;

/// Recent answers of the server to one client, by the query that each completes: a user who types on towards a query
/// that the server has completed already is answered without it.
///
///     empty ──set──▶ holding, and listening for memory pressure ──cleared, or the last entry expired──▶ empty
///
/// It is cleared as a whole: when an insertion would bring the cost to 2 MiB, when memory gets scarce, and when the
/// user, their session, country, time zone, locale, restrictions or accounts change.
///
/// Threading: callable from any thread but its own queue. `getRequest` and `removeAllObjects` wait for that queue,
/// `set` and the clearing on notifications do not. Time is the monotonic clock's.
class QueryCache : public std::enable_shared_from_this<QueryCache> {
public:
    static constexpr std::uint64_t maxCost = 2'097'152;  ///< bytes; reached, it is too much
    static constexpr std::uint64_t entryOverhead = 1024;
    struct Usage {
        std::uint64_t entries = 0;
        std::uint64_t cost = 0;  ///< charged since the last clearing, replaced and expired entries included
    };

    static std::shared_ptr<QueryCache> create(Assembly& assembly);
    ~QueryCache();
    QueryCache(const QueryCache&) = delete;
    QueryCache& operator=(const QueryCache&) = delete;

    /// The answer whose query extends what is typed by the least; of several such the one with the highest positive
    /// score, else the first. Null when there is none, and for a request with query items of the client's own.
    /// `httpRequest` may be null: a request for plain results.
    [[nodiscard]] std::shared_ptr<const CachedResultSet> getRequest(const ORXSearchRequest& request,
                                                                    const platform::URLRequest* httpRequest);
    [[nodiscard]] std::shared_ptr<const CachedResultSet> get(const std::string& text);

    /// Takes effect before any later call. One without a body or a query is ignored; one longer typed than completed,
    /// or of 2 MiB, is refused with a log line.
    void set(std::shared_ptr<const CachedResultSet> entry);

    void removeAllObjects();
    [[nodiscard]] Usage usage() const;
    [[nodiscard]] std::uint64_t count() const { return usage().entries; }

private:
    using Candidates = std::vector<std::shared_ptr<const CachedResultSet>>;
    struct Lookup;

    explicit QueryCache(Assembly& assembly);
    template <class Notification>
    void _clearUpon();
    void _clearSoon();

    [[nodiscard]] Candidates _candidates(const Lookup& lookup) ORX_REQUIRES(_queue);
    void _insert(std::shared_ptr<const CachedResultSet> entry) ORX_REQUIRES(_queue);
    void _clearCache() ORX_REQUIRES(_queue);
    void _didBecomeNonEmpty() ORX_REQUIRES(_queue);
    void _didBecomeEmpty() ORX_REQUIRES(_queue);

    // Constant after construction.
    Assembly& _assembly;

    // Synchronised by itself.
    mutable platform::SerialQueue _queue;

    // On the queue.
    CritbitTree<const CachedResultSet> _tree ORX_GUARDED_BY(_queue);
    std::uint64_t _currentCost ORX_GUARDED_BY(_queue) = 0;
    std::unique_ptr<platform::MemoryPressure::Listening> _source ORX_GUARDED_BY(_queue);  ///< while not empty
};

}  // namespace orvex
