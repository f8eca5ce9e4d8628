#include "query/query_cache.h"

#include <fmt/format.h>

#include <algorithm>

#include "core/notifications.h"
#include "core/orx_request.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "platform/log_events.h"
#include "platform/notification_center.h"
#include "platform/text.h"

// What is charged is a body, and a body counts once for every entry made from it: the sum is an upper bound, cheap to
// keep. It is not lowered when an entry is replaced or expires, only by clearing a cache that holds something.

namespace orvex {
namespace {

const platform::Logger& cachingLog() { return OrvexLogForCategory(OrvexLoggingCategory::caching); }

/// `candidates` is not empty.
void keepSmallestExtension(std::vector<std::shared_ptr<const CachedResultSet>>& candidates) {
    const auto length = [](const auto& entry) { return entry->queryLength; };
    const auto shortest = std::ranges::min(candidates, {}, length)->queryLength;
    std::erase_if(candidates, [&](const auto& entry) { return entry->queryLength != shortest; });
}

}  // namespace

struct QueryCache::Lookup {
    std::string input;
    std::size_t inputLength;
    std::optional<double> scale;  ///< none: any
    RequestVariant variant;

    [[nodiscard]] bool admits(const CachedResultSet& entry) const {
        const CachedResponse& response = *entry.response;
        if (scale && *scale != response.uiScale) return false;
        return response.inputLength <= inputLength && response.variant == variant;
    }
};

std::shared_ptr<QueryCache> QueryCache::create(Assembly& assembly) {
    std::shared_ptr<QueryCache> cache(new QueryCache(assembly));
    cache->_clearUpon<ORXUserGUIDChangeNotification>();
    cache->_clearUpon<ORXSessionSoftLimitNotification>();
    cache->_clearUpon<ORXSessionMaxLimitNotification>();
    cache->_clearUpon<CountryCodeDidChangeNotification>();
    cache->_clearUpon<SystemTimeZoneDidChangeNotification>();
    cache->_clearUpon<CurrentLocaleDidChangeNotification>();
    cache->_clearUpon<EffectiveSettingsChangedNotification>();
    cache->_clearUpon<AccountStoreDidChangeNotification>();
    cache->_clearUpon<AccountCredentialsDidChangeNotification>();
    return cache;
}

QueryCache::QueryCache(Assembly& assembly)
    : _assembly(assembly),
      _queue(assembly.dispatcher(), "com.kelvar.orvex.queryCache") {}

QueryCache::~QueryCache() {
    _assembly.notificationCenter().removeObserver(this);
    _queue.close();
}

template <class Notification>
void QueryCache::_clearUpon() {
    _assembly.notificationCenter().observe<Notification>(
        shared_from_this(), [](QueryCache& cache, const Notification&) { cache._clearSoon(); });
}

void QueryCache::_clearSoon() {
    _queue.async([this] {
        _queue.assertCurrent();
        _clearCache();
    });
}

std::shared_ptr<const CachedResultSet> QueryCache::getRequest(const ORXSearchRequest& request,
                                                              const platform::URLRequest* httpRequest) {
    if (!request.queryItems.empty()) return nullptr;
    Lookup lookup{.input = platform::lowercased(request.queryString),
                  .inputLength = 0,
                  .scale = request.scale > 0 ? std::optional(scaleOnTheWire(request.scale)) : std::nullopt,
                  .variant = httpRequest != nullptr ? RequestVariant(*httpRequest) : RequestVariant()};
    lookup.inputLength = platform::utf16Length(lookup.input);
    cachingLog().debug("cache lookup: '{}' qtype {} suggest {}", platform::privately(lookup.input),
                       platform::orNull(lookup.variant.qtype), platform::orNull(lookup.variant.suggestQueries));

    auto candidates = _queue.sync([&] {
        _queue.assertCurrent();
        return _candidates(lookup);
    });
    if (candidates.empty()) return nullptr;
    keepSmallestExtension(candidates);
    auto choice = candidates.front();
    for (const auto& entry : candidates) {
        cachingLog().log("entry {} prefix: {} input: {} score: {:f}", fmt::ptr(entry.get()),
                         platform::privately(entry->query), platform::privately(lookup.input), entry->completionScore);
        if (entry->completionScore > 0 && entry->completionScore > choice->completionScore) choice = entry;
    }
    return choice;
}

std::shared_ptr<const CachedResultSet> QueryCache::get(const std::string& text) {
    ORXSearchRequest request;
    request.queryString = text;
    return getRequest(request, nullptr);
}

QueryCache::Candidates QueryCache::_candidates(const Lookup& lookup) {
    const auto now = _assembly.dispatcher().now();
    Candidates candidates;
    std::vector<std::string> expired;
    _tree.objectsMatchingPrefix(lookup.input, [&](std::string_view key, const auto& entry, bool&) {
        if (entry->expireTime && *entry->expireTime <= now) {
            expired.emplace_back(key);
        } else if (lookup.admits(*entry)) {
            candidates.push_back(entry);
        }
    });
    for (const auto& key : expired) _tree.removeObjectForKey(key);
    if (!expired.empty() && _tree.count() == 0) _didBecomeEmpty();
    return candidates;
}

void QueryCache::set(std::shared_ptr<const CachedResultSet> entry) {
    if (!entry || !entry->response->data || entry->query.empty()) return;
    if (entry->response->inputLength > entry->queryLength) {
        cachingLog().error("BUG: NOT caching '{}' because input is longer than completed query '{}'",
                           platform::privately(entry->query), platform::privately(entry->response->input));
        return;
    }
    _queue.async([this, entry = std::move(entry)]() mutable {
        _queue.assertCurrent();
        _insert(std::move(entry));
    });
}

void QueryCache::_insert(std::shared_ptr<const CachedResultSet> entry) {
    const std::uint64_t cost = entry->cost() + entryOverhead;
    if (cost >= maxCost) {
        cachingLog().error("NOT caching '{}' with cost {}", platform::privately(entry->query), cost);
        return;
    }
    cachingLog().info("caching '{}' with cost {}", platform::privately(entry->query), cost);
    if (_currentCost + cost >= maxCost) {
        cachingLog().log("!!! exceeded max cost, flushing cache !!!");
        _clearCache();
    }
    const std::string& query = entry->query;
    if (!_tree.setObject(entry, query)) {
        cachingLog().error("no memory to cache '{}'", platform::privately(query));
        return;
    }
    _currentCost += cost;
    if (_tree.count() == 1) _didBecomeNonEmpty();
}

void QueryCache::removeAllObjects() {
    _queue.sync([this] {
        _queue.assertCurrent();
        _clearCache();
    });
}

QueryCache::Usage QueryCache::usage() const {
    return _queue.sync([this] {
        _queue.assertCurrent();
        return Usage{.entries = _tree.count(), .cost = _currentCost};
    });
}

void QueryCache::_clearCache() {
    if (_tree.count() == 0) return;
    _tree.removeAllObjects();
    _currentCost = 0;
    _didBecomeEmpty();
}

void QueryCache::_didBecomeNonEmpty() {
    cachingLog().debug("query cache no longer empty");
    _source.reset();  // a replaced only entry finds one there
    _source = _assembly.memoryPressure().listen([weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        cachingLog().as(platform::LogEvent::memoryPressure).log("emptying caches under memory pressure");
        self->_clearSoon();
    });
}

void QueryCache::_didBecomeEmpty() {
    cachingLog().log("query cache became empty");
    _source.reset();
}

}  // namespace orvex
