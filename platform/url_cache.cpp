#include "platform/url_cache.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "platform/text.h"

namespace orvex::platform {
namespace {

using std::chrono::seconds;
using std::chrono::sys_seconds;

constexpr seconds longestPeriod{1LL << 31};  // RFC 9111, section 1.2.2; more than that is meant as "for ever"

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

/// Calls `visit` with each member that is not empty. A comma in quotes divides too: no directive of ours has one, and
/// a quote that is never closed shall not hide what follows.
template <class Visit>
void forEachMember(std::string_view list, Visit visit) {
    while (!list.empty()) {
        const auto end = std::min(list.find(','), list.size());
        if (const auto member = trimmed(list.substr(0, end)); !member.empty()) visit(member);
        list.remove_prefix(std::min(end + 1, list.size()));
    }
}

/// delta-seconds (RFC 9111, section 1.2.2), at most `longestPeriod`.
std::optional<seconds> parseSeconds(std::string_view text) {
    if (text.empty() || !std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; })) return std::nullopt;
    std::int64_t count = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), count);
    return result.ec == std::errc() ? std::min(seconds(count), longestPeriod) : longestPeriod;
}

std::optional<sys_seconds> dateIn(const HTTPHeaders& headers, std::string_view name) {
    const auto text = headerValue(headers, name);
    return text ? parseHTTPDate(*text) : std::nullopt;
}

sys_seconds wholeSeconds(WallTime time) { return sys_seconds(std::chrono::floor<seconds>(time.time_since_epoch())); }

struct CacheControl {
    bool noStore = false;
    bool noCache = false;
    std::optional<seconds> maxAge;  ///< the shortest, when there are several; one that is no number is 0
};

CacheControl parseCacheControl(const HTTPHeaders& headers) {
    CacheControl control;
    forEachMember(joinedHeaderValues(headers, "Cache-Control").value_or(""), [&control](std::string_view member) {
        const auto equals = std::min(member.find('='), member.size());
        const auto name = trimmed(member.substr(0, equals));
        auto value = trimmed(member.substr(std::min(equals + 1, member.size())));
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
        if (isSameName(name, "no-store")) control.noStore = true;
        if (isSameName(name, "no-cache")) control.noCache = true;
        if (isSameName(name, "max-age"))
            control.maxAge = std::min(control.maxAge.value_or(longestPeriod), parseSeconds(value).value_or(seconds(0)));
    });
    return control;
}

/// RFC 9111, section 4.2.1, without the guess. None: the answer says nothing of it, or forbids use without asking.
std::optional<seconds> freshnessPeriod(const HTTPHeaders& headers, WallTime arrived) {
    const auto control = parseCacheControl(headers);
    if (control.noCache) return std::nullopt;
    if (control.maxAge) return control.maxAge;
    if (!headerValue(headers, "Expires")) return std::nullopt;
    const auto expires = dateIn(headers, "Expires");
    if (!expires) return seconds(0);  // "0" is the usual way of saying so
    return std::clamp(*expires - dateIn(headers, "Date").value_or(wholeSeconds(arrived)), seconds(0), longestPeriod);
}

/// RFC 9111, section 4.2.3.
seconds ageOnArrival(const HTTPHeaders& headers, MonotonicTime requested, CacheTime arrived) {
    const auto stated = parseSeconds(headerValue(headers, "Age").value_or("")).value_or(seconds(0));
    const auto corrected = stated + std::chrono::floor<seconds>(arrived.monotonic - requested);
    const auto now = wholeSeconds(arrived.wall);
    return std::clamp(std::max(now - dateIn(headers, "Date").value_or(now), corrected), seconds(0), longestPeriod);
}

/// Statuses that say of themselves that they may be stored (RFC 9110, section 15.1), without the partial answer.
bool isStorableStatus(std::int64_t status) {
    static constexpr std::array<std::int64_t, 10> storable{200, 203, 204, 300, 301, 404, 405, 410, 414, 501};
    return std::ranges::find(storable, status) != storable.end();
}

bool isSafe(std::string_view method) {
    return method == "GET" || method == "HEAD" || method == "OPTIONS" || method == "TRACE";
}

bool takesPart(const URLRequest& request) {
    static constexpr std::array<std::string_view, 8> ownRules{
        "Cache-Control", "Pragma",   "If-None-Match", "If-Modified-Since",
        "If-Match",      "If-Range", "Range",         "If-Unmodified-Since"};
    return request.method == "GET" && request.body.empty() && !unsendablePart(request) &&
           std::ranges::none_of(ownRules,
                                [&request](auto name) { return headerValue(request.headers, name).has_value(); });
}

/// The values of `request` for the names in `vary`. None: `vary` has a "*".
std::optional<HTTPHeaders> variedHeaders(const URLRequest& request, std::string_view vary) {
    HTTPHeaders varied;
    bool byAnything = false;
    forEachMember(vary, [&](std::string_view name) {
        byAnything = byAnything || name == "*";
        if (auto value = joinedHeaderValues(request.headers, name)) varied.emplace_back(name, *std::move(value));
    });
    return byAnything ? std::nullopt : std::optional(std::move(varied));
}

std::string varyOf(const HTTPAnswer& answer) {
    return joinedHeaderValues(answer.response.headers, "Vary").value_or("");
}

/// For the weak comparison (RFC 9110, section 8.8.3.2).
std::string_view opaqueTag(std::string_view tag) { return tag.starts_with("W/") ? tag.substr(2) : tag; }

void removeHeader(HTTPHeaders& headers, std::string_view name) {
    std::erase_if(headers, [name](const auto& header) { return isSameName(header.first, name); });
}

std::size_t bytesOf(const HTTPHeaders& headers) {
    std::size_t bytes = 0;
    for (const auto& [name, value] : headers) bytes += name.size() + value.size();
    return bytes;
}

std::size_t bytesOf(const HTTPAnswer& answer) {
    return bytesOf(answer.response.headers) + answer.response.url.size() + (answer.body ? answer.body->size() : 0);
}

}  // namespace

CachedAnswer::CachedAnswer(HTTPAnswer answer, MonotonicTime requested, CacheTime arrived)
    : _answer(std::move(answer)),
      _freshnessPeriod(freshnessPeriod(_answer.response.headers, arrived.wall)),
      _ageOnArrival(ageOnArrival(_answer.response.headers, requested, arrived)),
      _arrived(arrived) {
    removeHeader(_answer.response.headers, "Age");
}

seconds CachedAnswer::_age(CacheTime now) const {
    const auto since = std::max(now.monotonic - _arrived.monotonic, now.wall - _arrived.wall);
    return _ageOnArrival + std::max(std::chrono::floor<seconds>(since), seconds(0));
}

bool CachedAnswer::isFresh(CacheTime now) const { return _freshnessPeriod && _age(now) < *_freshnessPeriod; }

HTTPHeaders CachedAnswer::conditions() const {
    if (_answer.response.statusCode != 200) return {};
    HTTPHeaders conditions;
    const auto tag = headerValue(_answer.response.headers, "ETag");
    if (tag && !trimmed(*tag).empty() && !hasControlCharacter(*tag)) conditions.emplace_back("If-None-Match", *tag);
    const auto date = headerValue(_answer.response.headers, "Last-Modified");
    if (date && parseHTTPDate(*date) && !hasControlCharacter(*date))
        conditions.emplace_back("If-Modified-Since", *date);
    return conditions;
}

bool CachedAnswer::isNamedBy(const URLResponse& response) const {
    const auto named = headerValue(response.headers, "ETag");
    return !named || opaqueTag(*named) == opaqueTag(headerValue(_answer.response.headers, "ETag").value_or(*named));
}

HTTPAnswer CachedAnswer::at(CacheTime now) const {
    HTTPAnswer answer = _answer;
    answer.response.headers.emplace_back("Age", std::to_string(_age(now).count()));
    return answer;
}

HTTPAnswer CachedAnswer::refreshed(const URLResponse& response) const {
    static constexpr std::array<std::string_view, 5> aboutBody{"Content-Length", "Content-Encoding", "Content-Range",
                                                               "Content-Type", "Transfer-Encoding"};
    HTTPHeaders fields = response.headers;
    for (const auto name : aboutBody) removeHeader(fields, name);
    HTTPAnswer answer = _answer;
    removeHeader(answer.response.headers, "Date");  // without one of its own a 304 is as new as its arrival
    for (const auto& [name, value] : fields) removeHeader(answer.response.headers, name);
    answer.response.headers.insert(answer.response.headers.end(), fields.begin(), fields.end());
    return answer;
}

std::shared_ptr<const CachedAnswer> URLCache::find(const URLRequest& request, CacheTime now) {
    if (_capacity == 0 || request.cachePolicy != CachePolicy::useProtocol || !takesPart(request)) return nullptr;
    const MutexLock lock(_mutex);
    const auto found = _byURL.find(request.url);
    if (found == _byURL.end()) return nullptr;
    const auto entry = found->second;
    if (variedHeaders(request, entry->vary) != entry->varied) return nullptr;
    if (!entry->answer->isFresh(now) && entry->answer->conditions().empty()) {
        _erase(entry);
        return nullptr;
    }
    _entries.splice(_entries.begin(), _entries, entry);
    return entry->answer;
}

HTTPAnswer URLCache::accept(const Exchange& exchange, HTTPAnswer answer) {
    const std::int64_t status = answer.response.statusCode;
    if (_capacity == 0) return answer;
    if (!isSafe(exchange.request.method) && status < 400) _remove(exchange.request.url);
    if (!takesPart(exchange.request) || (status >= 500 && !isStorableStatus(status))) return answer;
    if (status != 304 || !exchange.validated || exchange.wasRedirected) {
        _store(exchange, answer);
        return answer;
    }
    HTTPAnswer refreshed = exchange.validated->refreshed(answer.response);
    if (exchange.validated->isNamedBy(answer.response))
        _store(exchange, refreshed);
    else
        _remove(exchange.request.url);
    return refreshed;
}

bool URLCache::purge(MonotonicTime now) {
    const MutexLock lock(_mutex);
    _purged = now;
    _byURL.clear();
    _entries.clear();
    _bytes = 0;
    return _capacity > 0;
}

void URLCache::_store(const Exchange& exchange, const HTTPAnswer& answer) {
    // What was there is replaced by a later answer, and goes when that one may not be stored.
    _remove(exchange.request.url);
    std::string vary = varyOf(answer);
    auto varied = variedHeaders(exchange.request, vary);
    if (exchange.wasRedirected || !varied || !isStorableStatus(answer.response.statusCode)) return;
    if (parseCacheControl(answer.response.headers).noStore) return;
    auto stored = std::make_shared<CachedAnswer>(answer, exchange.requested, exchange.arrived);
    if (!stored->isFresh(exchange.arrived) && stored->conditions().empty()) return;
    const std::size_t bytes = exchange.request.url.size() + vary.size() + bytesOf(*varied) + bytesOf(answer);
    if (bytes > _capacity / 4) return;
    _insert({exchange.request.url, std::move(vary), *std::move(varied), std::move(stored), bytes}, exchange.requested);
}

void URLCache::_insert(Entry entry, MonotonicTime requested) {
    const MutexLock lock(_mutex);
    if (_purged && requested <= *_purged) return;
    if (const auto found = _byURL.find(entry.url); found != _byURL.end()) _erase(found->second);
    _bytes += entry.bytes;
    _entries.push_front(std::move(entry));
    _byURL[_entries.front().url] = _entries.begin();
    while (_bytes > _capacity) _erase(std::prev(_entries.end()));
}

void URLCache::_remove(const std::string& url) {
    const MutexLock lock(_mutex);
    if (const auto found = _byURL.find(url); found != _byURL.end()) _erase(found->second);
}

void URLCache::_erase(Entries::iterator entry) {
    _bytes -= entry->bytes;
    _byURL.erase(entry->url);
    _entries.erase(entry);
}

}  // namespace orvex::platform
