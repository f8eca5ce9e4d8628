#pragma once

#include <chrono>
#include <cstddef>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "platform/clock.h"
#include "platform/http_session.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

/// A point in time on both clocks. An answer ages by the one that went further: the monotonic clock stands still while
/// the machine sleeps, and anyone may set the date back.
struct CacheTime {
    MonotonicTime monotonic;
    WallTime wall;
};

struct HTTPAnswer {
    URLResponse response;
    Body body;
};

/// An answer as it is stored; never changes. Whoever has one may use it after the cache has let it go.
class CachedAnswer {
public:
    /// `requested` is when the request left, `arrived` when the answer was complete.
    CachedAnswer(HTTPAnswer answer, MonotonicTime requested, CacheTime arrived);

    [[nodiscard]] bool isFresh(CacheTime now) const;

    /// Fields that make a request for it conditional; none: it has no validator. Only a 200 is validated.
    [[nodiscard]] HTTPHeaders conditions() const;

    /// As the client gets it, with its present age as `Age`.
    [[nodiscard]] HTTPAnswer at(CacheTime now) const;

    /// Whether the 304 `response` means this version. If it names another the server contradicts itself: the client's
    /// question is answered, but the answer is not kept.
    [[nodiscard]] bool isNamedBy(const URLResponse& response) const;

    /// With the fields of the 304 `response` in the place of its own, except those about the body.
    [[nodiscard]] HTTPAnswer refreshed(const URLResponse& response) const;

private:
    [[nodiscard]] std::chrono::seconds _age(CacheTime now) const;

    // Constant after construction.
    HTTPAnswer _answer;                                    ///< without `Age`
    std::optional<std::chrono::seconds> _freshnessPeriod;  ///< none: always validated
    std::chrono::seconds _ageOnArrival;
    CacheTime _arrived;
};

/// A private cache in memory for the answers of one session (RFC 9111). It holds one answer for each URL, and the
/// values of the request's headers that the answer varies by; one for other values takes its place.
///
/// An answer is used without asking while its max-age, or else Expires, says so; freshness is never guessed, and a
/// stale answer never used, so `must-revalidate` changes nothing. A 200 with an ETag or Last-Modified is stored even
/// when it is stale or `no-cache`, and validated each time. What carries neither is not stored, nor is `no-store`,
/// `Vary: *`, an answer that was redirected, or one of more than a quarter of the capacity. What was used least
/// recently goes first.
///
/// Only a GET takes part, and none with conditions, a range or cache directives of its own. A method that is not safe
/// removes what is stored for its URL.
///
/// Threading: callable from any thread; a leaf lock. Pure: the caller says what time it is.
/// Limits: `capacity` bytes of URLs, headers and bodies. Bodies are shared with the clients. Durability: none.
class URLCache {
public:
    struct Exchange {
        const URLRequest& request;                      ///< as the client made it
        std::shared_ptr<const CachedAnswer> validated;  ///< whose conditions were sent along; may be null
        bool wasRedirected = false;
        MonotonicTime requested;
        CacheTime arrived;
    };

    explicit URLCache(std::size_t capacity) : _capacity(capacity) {}  ///< of 0: nothing is ever stored
    URLCache(const URLCache&) = delete;
    URLCache& operator=(const URLCache&) = delete;

    /// An answer to `request` that is fresh, or whose `conditions` are to be sent along. Null: ask as ever.
    [[nodiscard]] std::shared_ptr<const CachedAnswer> find(const URLRequest& request, CacheTime now);

    /// Takes note of a whole answer from the server, of any method and status. Returns what the client gets: the
    /// answer itself, or the stored one that a 304 has validated.
    [[nodiscard]] HTTPAnswer accept(const Exchange& exchange, HTTPAnswer answer);

    /// Empties it; an answer to a request of before `now` that is still under way will not be stored. False when it has
    /// no capacity.
    bool purge(MonotonicTime now);

private:
    struct Entry {
        std::string url;
        std::string vary;    ///< names of the request's headers that the answer varies by
        HTTPHeaders varied;  ///< their values in the request; absent ones are left out
        std::shared_ptr<const CachedAnswer> answer;
        std::size_t bytes = 0;
    };
    using Entries = std::list<Entry>;

    void _store(const Exchange& exchange, const HTTPAnswer& answer);
    void _insert(Entry entry, MonotonicTime requested);
    void _remove(const std::string& url);
    void _erase(Entries::iterator entry) ORX_REQUIRES(_mutex);

    // Constant after construction.
    const std::size_t _capacity;

    // Guarded by the mutex.
    Mutex _mutex;
    Entries _entries ORX_GUARDED_BY(_mutex);  ///< the most recently used first
    std::unordered_map<std::string, Entries::iterator> _byURL ORX_GUARDED_BY(_mutex);
    std::size_t _bytes ORX_GUARDED_BY(_mutex) = 0;
    std::optional<MonotonicTime> _purged ORX_GUARDED_BY(_mutex);
};

}  // namespace orvex::platform
