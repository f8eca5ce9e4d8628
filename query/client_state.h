#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/orx_request.h"
#include "platform/clock.h"
#include "platform/thread_annotations.h"
#include "query/query_feedback.h"

namespace orvex::platform {
class Semaphore;
}

namespace orvex {

class Assembly;
class GUIDController;
class ORXBag;
class QueryCache;
enum class FieldMask : std::uint32_t;
class QueryResult;
struct QueryFailure;
struct QueryOnItsWay;
struct CachedResultSet;
struct ORXBagChangeNotification;

inline constexpr std::chrono::milliseconds kORXDefaultBagSemaphoreWait{300};
inline constexpr std::chrono::milliseconds kORXFirstLaunchBagSemaphoreWait{600};

/// The engine that turns one client's queries into replies. All connections of a client share it; it outlives them.
///
/// The road of a search: wait for a bag, at most 300 ms after the call's arrival (600 ms on the first launch) → refuse
/// what the bag refuses → ask the engaged completions of this device → build the request → answer from the query cache,
/// or ask the server → keep what it answers → reply, and follow a forced fetch that the answer announces. The other
/// kinds of query go the same road without the caches; lookups and flights are sent again, at most three times, while
/// the client would still show the answer.
///
/// Threading: it has no queue. Its operations are called from any connection's queue, which they may block for the bag
/// wait and for the local completions, and only for that; network completions come on the query session's delivery
/// thread. One leaf mutex guards what changes and is never held across a call; a query takes the bag with the agent it
/// is bound to once, and keeps to it. A reply callback is called exactly once, on the caller's thread or on the
/// delivery thread.
class ClientState : public std::enable_shared_from_this<ClientState> {
public:
    using BagReply = std::move_only_function<void(std::shared_ptr<const ORXBag>, std::optional<ORXError>)>;

    /// The client's bag, bound to its agent. They belong together: a new agent makes a new view.
    struct BoundBag {
        std::shared_ptr<const ORXBag> bag;
        std::string userAgent;
    };

    static std::shared_ptr<ClientState> create(std::string identifier, Assembly& assembly);
    ~ClientState();

    [[nodiscard]] const std::string& identifier() const { return _identifier; }
    [[nodiscard]] std::optional<std::string> userAgent() const;
    [[nodiscard]] std::optional<std::string> clientShortName() const;
    /// What records of this client go to; null: nothing takes them.
    [[nodiscard]] std::shared_ptr<ClientSessionManagerProtocol> sessionManager() const {
        return _feedback.sessionManager();
    }
    [[nodiscard]] std::shared_ptr<const ORXBag> bag() const;
    [[nodiscard]] std::optional<ORXSessionConfiguration> configuration() const;
    void setConfiguration(ORXSessionConfiguration configuration);

    /// The agent that a restored state had.
    void setUserAgent(std::string userAgent);

    /// `arrival` is when the call came: the wait counts from there, so that queued keystrokes do not add up.
    void search(ORXSearchRequest request, platform::MonotonicTime arrival, ORXReplyCallback reply);

    // Queries of the other kinds, with the same wait. A failed `moreResults` or `card` always tells an error.
    void zeroKeyword(const ORXZeroKeywordRequest& request, platform::MonotonicTime arrival, ORXReplyCallback reply);
    void moreResults(const ORXMoreResultsRequest& request, platform::MonotonicTime arrival, ORXReplyCallback reply);
    void card(const ORXCardRequest& request, platform::MonotonicTime arrival, ORXReplyCallback reply);
    void lookup(const ORXLookupRequest& request, platform::MonotonicTime arrival, ORXReplyCallback reply);
    void flightSearch(const ORXFlightSearchRequest& request, platform::MonotonicTime arrival, ORXReplyCallback reply);

    /// Answers the bag as `userAgent` sees it, after the same wait; an empty agent means the one known.
    void bag(std::string_view userAgent, platform::MonotonicTime arrival, BagReply reply);

    /// A new agent, and with it a new short name. Unlike `bag`, it leaves what is cached.
    void updateClient(std::string userAgent);

    /// The memory that the cache takes is given back when the client is idle, too.
    void emptyQueryCache();
    /// Null: the user default "ORXNoQueryCache" is set.
    [[nodiscard]] const std::shared_ptr<QueryCache>& queryCache() const { return _queryCache; }

    /// Opens a connection to the server ahead of a query, unless one was used in the last 30 seconds.
    void warm();

private:
    ClientState(std::string identifier, Assembly& assembly);

    struct SearchOnItsWay;

    [[nodiscard]] bool _ensureBag(platform::MonotonicTime arrival);
    [[nodiscard]] bool _isProbablyFirstLaunchEver() const;
    void _bagChanged(const ORXBagChangeNotification& notification);
    using HeldBag = std::shared_ptr<const ORXBag>;
    /// Holds `bag` as the agent sees it. With `inPlaceOf`, only while that one is held: a newer one stays.
    void _bind(const HeldBag& bag, const std::optional<HeldBag>& inPlaceOf);
    void _markNetworkRequest();
    [[nodiscard]] std::string _currentUserGUID() const;
    /// The use of the maps service that a reply tells: as the request told it, else the present one.
    [[nodiscard]] std::optional<std::string> _geoSessionEntity(const platform::URLRequest& request) const;
    [[nodiscard]] std::optional<BoundBag> _boundBag() const;
    [[nodiscard]] bool _isDisabled(const ORXSearchRequest& request, const ORXBag& bag, ORXReplyCallback& reply) const;
    /// Puts the best completion into the request; returns the callback, which brings the others into the reply.
    [[nodiscard]] ORXReplyCallback _offerLocalCompletions(ORXSearchRequest& request, const ORXBag& bag,
                                                          ORXReplyCallback reply) const;
    /// False, counted, while the user default "ORXNetworkSearchDisabled" is on: answers come from memory alone.
    [[nodiscard]] bool _mayAskServer() const;
    [[nodiscard]] bool _isTooShort(const ORXSearchRequest& request, const ORXBag& bag, ORXReplyCallback& reply) const;
    void _replyFromCache(const ORXSearchRequest& request, const platform::URLRequest& httpRequest,
                         const CachedResultSet& entry, ORXReplyCallback& reply);
    void _dispatchSearch(ORXSearchRequest request, platform::URLRequest httpRequest, std::string userAgent,
                         ORXReplyCallback reply);
    void _finishSearch(SearchOnItsWay& search, const QueryResult& result);
    void _cacheResponse(const QueryResult& result, const SearchOnItsWay& search);
    /// Records the end and tells the client.
    void _finish(QueryOnItsWay& query, const QueryResult& result, const std::optional<QueryFailure>& failure);
    void _followForcedFetch(const platform::URLResponse& response);
    struct QueryTexts;
    struct Retry {
        std::optional<platform::MonotonicTime> expire;  ///< none: never tried again
    };
    /// Whether what came is an answer; called once, at the end.
    using Check = std::move_only_function<std::optional<QueryFailure>(const QueryResult& result)>;
    /// How a query that is no search is sent.
    struct Dispatch;
    /// None, and the client has been told, when there is no bag or it is disabled.
    [[nodiscard]] std::optional<BoundBag> _bagForQuery(const QueryTexts& texts, std::uint64_t queryId,
                                                       std::string_view input, platform::MonotonicTime arrival,
                                                       ORXReplyCallback& reply);
    [[nodiscard]] std::optional<BoundBag> _bagForListQuery(const ORXRequest& request, std::string_view input,
                                                           platform::MonotonicTime arrival, ORXReplyCallback& reply);
    /// True, and the client has been told "nothing", when no request could be built.
    [[nodiscard]] static bool _hasNoEndpoint(const std::optional<platform::URLRequest>& built, std::uint64_t queryId,
                                             ORXReplyCallback& reply);
    void _dispatchQuery(QueryOnItsWay query, Dispatch dispatch);
    [[nodiscard]] static Check _anyBodyCounts(std::string_view gotResponse);
    void _debugFlightSearch(const ORXFlightSearchRequest& request, ORXReplyCallback& reply);
    // What records say of a query.
    [[nodiscard]] RecordedQuery _recorded(std::uint64_t queryId) const { return {queryId, userAgent()}; }
    [[nodiscard]] RecordedQuery _recordedWithUserGUID(std::uint64_t queryId) const;
    [[nodiscard]] std::shared_ptr<NetworkSearch> _startSearchEventForRequest(
        const platform::URLRequest& request, const NetworkSearchOccasion& occasion,
        std::optional<std::string> userAgent) const;
    /// None: proxies are off, and records say nothing of them.
    [[nodiscard]] std::optional<std::int32_t> _cindoraStatus() const;
    void _recordSearchResult(const std::string& userAgent, std::int64_t statusCode);

    // Constant after construction.
    const std::string _identifier;
    Assembly& _assembly;
    const std::shared_ptr<GUIDController> _ownGUIDController;  ///< null: the assembly's is shared
    std::shared_ptr<QueryCache> _queryCache;
    const QueryFeedback _feedback;

    // Under the mutex.
    mutable platform::Mutex _mutex;
    std::shared_ptr<const ORXBag> _bag ORX_GUARDED_BY(_mutex);
    std::optional<std::string> _userAgent ORX_GUARDED_BY(_mutex);
    std::optional<std::string> _clientShortName ORX_GUARDED_BY(_mutex);
    std::optional<ORXSessionConfiguration> _configuration ORX_GUARDED_BY(_mutex);
    std::optional<platform::MonotonicTime> _lastNetworkRequest ORX_GUARDED_BY(_mutex);
    bool _observesBagChanges ORX_GUARDED_BY(_mutex) = false;
    std::vector<std::shared_ptr<platform::Semaphore>> _bagWaiters ORX_GUARDED_BY(_mutex);  ///< one a waiting query
};

}  // namespace orvex
