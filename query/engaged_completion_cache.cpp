#include "query/engaged_completion_cache.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "platform/counters.h"
#include "platform/japanese_text.h"
#include "platform/transactions.h"
#include "platform/user_defaults.h"

// A search owns what it touches: a reader taken from the idle ones (or a new one), and the `Search` that it shares with
// its caller. It holds the search queue as a read, so that a barrier there means that nobody reads; the barrier is for
// closing the file only, and first makes the searches stop.

namespace orvex {
namespace {

const platform::Logger& log() { return OrvexLogForCategory(OrvexLoggingCategory::search); }

constexpr std::size_t maxIdleReaders = 4;
constexpr std::chrono::hours longestTimeout{1};
constexpr std::chrono::seconds aroundEqualDates{5};

/// The ends of time stay the ends of time.
std::int64_t wholeSeconds(platform::WallTime date) {
    if (date == platform::WallTime::max()) return std::numeric_limits<std::int64_t>::max();
    if (date == platform::WallTime::min()) return std::numeric_limits<std::int64_t>::min();
    return std::chrono::duration_cast<std::chrono::seconds>(date.time_since_epoch()).count();
}

std::pair<std::int64_t, std::int64_t> datesBetween(platform::WallTime from, platform::WallTime to) {
    std::pair dates(wholeSeconds(from), wholeSeconds(to));
    if (from == to && from != platform::WallTime::max() && from != platform::WallTime::min()) {
        dates.first -= aroundEqualDates.count();
        dates.second += aroundEqualDates.count();
    }
    return dates;
}

bool areFinite(const EngagedParameters& parameters) {
    const auto& [hour, day, week, month, all, mostRecent, threshold] = parameters;
    const double values[] = {hour, day, week, month, all, mostRecent, threshold};
    return std::ranges::all_of(values, [](double value) { return std::isfinite(value); });
}

}  // namespace

std::int64_t engagedClientNumber(const std::optional<std::string>& clientShortName) {
    if (clientShortName == "brovia") return engagedByBrovia;
    return clientShortName == "lumisk" ? engagedByLumisk : engagedByOthers;
}

struct EngagedCompletionCache::Search {
    explicit Search(platform::Dispatcher& dispatcher) : underWay(dispatcher) { underWay.enter(); }

    EngagedReader::Query query() const { return {input, client, now, count}; }
    void end() { underWay.leave(); }

    // Constant once it is submitted.
    std::string input;
    std::int64_t client = 0;
    std::int64_t now = 0;
    std::int64_t count = 0;
    std::optional<platform::MonotonicTime> deadline;
    EngagedParameters parameters;
    std::move_only_function<void(FeatureCounts)> wantsFeatureCounts;  ///< empty: completions are searched

    platform::TaskGroup underWay;
    std::atomic<bool> late = false;    ///< its caller waits no longer, or it was stopped at the deadline
    std::vector<ORXSuggestion> found;  ///< the caller's once `underWay` has ended
};

std::shared_ptr<EngagedCompletionCache> EngagedCompletionCache::sharedInstance(Assembly& assembly) {
    return assembly.engagedCompletionCache([&assembly] {
        return create({.dispatcher = assembly.dispatcher(),
                       .userDefaults = assembly.userDefaults(),
                       .fileManager = assembly.fileManager(),
                       .counters = assembly.counters(),
                       .transactions = assembly.transactions()});
    });
}

std::shared_ptr<EngagedCompletionCache> EngagedCompletionCache::create(Services services) {
    std::shared_ptr<EngagedCompletionCache> cache(new EngagedCompletionCache(services));
    cache->_begin();
    return cache;
}

EngagedCompletionCache::EngagedCompletionCache(Services services)
    : _services(services),
      _searchQueue(services.dispatcher, "com.kelvar.orvexd.eccsearchq"),
      _updateQueue(services.dispatcher, "com.kelvar.orvexd.eccupdateq"),
      _store(services.fileManager, services.counters, [this] { _closeReaders(); }) {}

EngagedCompletionCache::~EngagedCompletionCache() {
    _updateQueue.close();
    const platform::MutexLock lock(_mutex);
    _idleReaders.clear();  // before the writer, which leaves the file tidy when it is the last
}

void EngagedCompletionCache::_begin() {
    _update([this] {
        _updateQueue.assertCurrent();
        (void)_store.open();  // logged there; the next change tries again
    });
    _warmup();
}

bool EngagedCompletionCache::_cacheEnabled() const {
    return !_services.userDefaults.boolean(setting::disableLocalCompletions);
}

std::int64_t EngagedCompletionCache::_now() const { return wholeSeconds(_services.dispatcher.wallNow()); }

void EngagedCompletionCache::updateParameters(const EngagedParameters& parameters) {
    if (!areFinite(parameters)) {
        log().error("EngagedCompletionCache updateParameters: refused, a number is not finite");
        return;
    }
    log().debug(
        "EngagedCompletionCache updateParameters: (1h {:f}) (1d {:f}) (7d {:f}) (1m {:f}) (all {:f}) (recent {:f}) "
        "(t {:f})",
        parameters.broviaLast1hour, parameters.broviaLast1day, parameters.broviaLast1week, parameters.broviaLast1month,
        parameters.broviaAll, parameters.broviaMostRecent, parameters.minThresholdToSend);
    const platform::MutexLock lock(_mutex);
    _parameters = parameters;
}

// Changes.

void EngagedCompletionCache::_update(std::move_only_function<void()> change) {
    _updateQueue.async([this, change = std::move(change),
                        transaction = _services.transactions.begin("engaged completions")]() mutable {
        _updateQueue.assertCurrent();
        change();
        _publish();
    });
}

void EngagedCompletionCache::addCompletion(Engagement engagement, Added added) {
    if (!_cacheEnabled() || engagement.completion.empty()) {
        if (added) added({});
        return;
    }
    _update([this, engagement = std::move(engagement), added = std::move(added)]() mutable {
        _updateQueue.assertCurrent();
        auto result = _store.add(engagement, _now());
        if (added) added(std::move(result));
    });
}

void EngagedCompletionCache::_clear(EngagedStore::Range range, Cleared cleared) {
    _update([this, range = std::move(range), cleared = std::move(cleared)]() mutable {
        _updateQueue.assertCurrent();
        auto result = _store.clear(range);
        if (cleared) cleared(std::move(result));
    });
}

void EngagedCompletionCache::clearCompletionsFromDate(platform::WallTime fromDate, platform::WallTime toDate,
                                                      std::int64_t client, Cleared cleared) {
    _clear({.dates = datesBetween(fromDate, toDate), .client = client}, std::move(cleared));
}

void EngagedCompletionCache::clearCompletionsFromDate(platform::WallTime fromDate, platform::WallTime toDate) {
    clearCompletionsFromDate(fromDate, toDate, engagedByOthers);
}

void EngagedCompletionCache::clearAllClientCompletionsFromDate(platform::WallTime fromDate, platform::WallTime toDate,
                                                               Cleared cleared) {
    _clear({.dates = datesBetween(fromDate, toDate), .client = {}}, std::move(cleared));
}

void EngagedCompletionCache::clearAllCompletionsForClient(std::int64_t client, Cleared cleared) {
    _clear({.dates = {}, .client = client}, std::move(cleared));
}

void EngagedCompletionCache::clearAllCompletions(Cleared cleared) { _clear({}, std::move(cleared)); }

void EngagedCompletionCache::lumiskDidClearSuggestions() {
    log().log("suggestions cleared notification received from Lumisk, clearing EngagedCompletionCache");
    clearAllCompletions();
}

void EngagedCompletionCache::closeDBConnection() {
    _updateQueue.sync([this] {
        _updateQueue.assertCurrent();
        _store.close();
        _publish();
    });
}

void EngagedCompletionCache::_publish() {
    std::vector<std::shared_ptr<Search>> waiting;
    {
        const platform::MutexLock lock(_mutex);
        _file = _store.isOpen() ? File::open : File::closed;
        _path = _store.path();
        _generation = _store.generation();
        waiting.swap(_waitingForFile);
    }
    for (auto& search : waiting) _submit(std::move(search));
}

// Searches.

std::vector<ORXSuggestion> EngagedCompletionCache::completionsForInput(std::string_view input, std::int64_t client,
                                                                       std::uint64_t count,
                                                                       std::chrono::nanoseconds timeout) {
    if (!_cacheEnabled()) return {};
    const auto begin = _services.dispatcher.now();
    auto search = std::make_shared<Search>(_services.dispatcher);
    search->input = input;
    search->client = client;
    search->now = _now();
    search->count = static_cast<std::int64_t>(std::min<std::uint64_t>(count, std::numeric_limits<std::int64_t>::max()));
    timeout = std::clamp<std::chrono::nanoseconds>(timeout, {}, longestTimeout);
    search->deadline = begin + timeout;
    {
        const platform::MutexLock lock(_mutex);
        search->parameters = _parameters;
    }
    _submit(search);
    if (!search->underWay.wait(timeout) || search->late) {
        search->late = true;
        log().debug("EngagedCompletionCache search timed out for input {} timeout value {}", platform::privately(input),
                    std::chrono::duration_cast<std::chrono::milliseconds>(timeout).count());
        _services.counters.add("com.kelvar.orvexd.completions.late");
        return {};
    }
    auto found = std::move(search->found);
    const auto duration = std::chrono::duration_cast<std::chrono::microseconds>(_services.dispatcher.now() - begin);
    for (const auto& match : found) {
        log().log("Match found input {}, completion {}, score {:f} duration {}", platform::privately(input),
                  platform::privately(match.suggestion), match.score, duration.count());
    }
    std::erase_if(found, [threshold = search->parameters.minThresholdToSend](const ORXSuggestion& match) {
        return match.score < threshold || !std::isfinite(match.score);
    });
    return found;
}

std::optional<ORXSuggestion> EngagedCompletionCache::completionForInput(std::string_view input, std::int64_t client) {
    auto found = completionsForInput(input, client, 1);
    if (found.empty()) return std::nullopt;
    return std::move(found.front());
}

void EngagedCompletionCache::featureCountsForInput(std::string input, std::int64_t client,
                                                   std::move_only_function<void(FeatureCounts)> completion) {
    if (!_cacheEnabled()) {
        completion({});
        return;
    }
    auto search = std::make_shared<Search>(_services.dispatcher);
    search->input = std::move(input);
    search->client = client;
    search->now = _now();
    search->wantsFeatureCounts = std::move(completion);
    _submit(std::move(search));
}

void EngagedCompletionCache::_warmup() {
    auto search = std::make_shared<Search>(_services.dispatcher);
    search->input = "warm";
    search->now = _now();
    search->count = 1;
    _submit(std::move(search));
}

void EngagedCompletionCache::_submit(std::shared_ptr<Search> search) {
    {
        const platform::MutexLock lock(_mutex);
        if (_file == File::opening) {
            _waitingForFile.push_back(std::move(search));
            return;
        }
    }
    // Not before other work: searches that never end would keep the changes from their turn.
    const platform::GlobalQueue pool(_services.dispatcher, platform::Priority::standard);
    pool.async([weak = weak_from_this(), search = std::move(search)] {
        const auto self = weak.lock();
        if (self && !search->late) {
            self->_searchQueue.sync([&] {
                self->_searchQueue.assertCurrent();
                self->_run(*search);
            });
        }
        search->end();
    });
}

void EngagedCompletionCache::_run(Search& search) {
    const EngagedReader::Unwanted unwanted = [this, &search] {
        if (search.deadline && _services.dispatcher.now() >= *search.deadline) search.late = true;
        return search.late || _stopsSearches;
    };
    std::uint64_t generation = 0;
    auto reader = _takeReader(generation);
    int code = SQLITE_OK;
    FeatureCounts counts;
    if (reader && search.wantsFeatureCounts) {
        if (auto found = reader->featureCounts(search.query(), unwanted))
            counts = *std::move(found);
        else
            code = found.error();
    } else if (reader) {
        if (auto found = reader->completions(search.query(), search.parameters, unwanted))
            search.found = *std::move(found);
        else
            code = found.error();
    }
    if (reader && code == SQLITE_OK) _giveBack(std::move(reader));
    reader.reset();
    if (code != SQLITE_OK && !unwanted()) _searchFailed(code, generation);
    if (search.wantsFeatureCounts) search.wantsFeatureCounts(std::move(counts));
}

std::unique_ptr<EngagedReader> EngagedCompletionCache::_takeReader(std::uint64_t& generation) {
    std::string path;
    {
        const platform::MutexLock lock(_mutex);
        if (_file != File::open) return nullptr;
        generation = _generation;
        if (!_idleReaders.empty()) {
            auto reader = std::move(_idleReaders.back());
            _idleReaders.pop_back();
            return reader;
        }
        path = _path;
    }
    auto opened = EngagedReader::open(path);
    if (opened) return *std::move(opened);
    _searchFailed(opened.error(), generation);
    return nullptr;
}

void EngagedCompletionCache::_giveBack(std::unique_ptr<EngagedReader> reader) {
    const platform::MutexLock lock(_mutex);
    if (_idleReaders.size() < maxIdleReaders) _idleReaders.push_back(std::move(reader));
}

/// Called on the update queue, by the store.
void EngagedCompletionCache::_closeReaders() {
    _stopsSearches = true;
    _searchQueue.barrierSync([this] {
        std::vector<std::unique_ptr<EngagedReader>> closed;
        const platform::MutexLock lock(_mutex);
        closed.swap(_idleReaders);
        _file = File::opening;  // until `_publish`, which follows every change
    });
    _stopsSearches = false;
}

void EngagedCompletionCache::_searchFailed(int code, std::uint64_t generation) {
    log().error("a search of engaged completions failed, code: {} {}", code, sqlite3_errstr(code));
    _update([this, code, generation] {
        _updateQueue.assertCurrent();
        _store.checkDamage(code, generation);
    });
}

bool EngagedCompletionCache::containsJapanese(std::string_view text) { return platform::containsJapanese(text); }
bool EngagedCompletionCache::containsKanjiOrKatakana(std::string_view text) {
    return platform::containsKanjiOrKatakana(text);
}
std::string EngagedCompletionCache::kanize(std::string_view text) { return platform::kanize(text); }

}  // namespace orvex
