#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/orx_request.h"
#include "platform/clock.h"
#include "platform/dispatch.h"
#include "platform/result.h"
#include "platform/thread_annotations.h"
#include "query/engaged_reader.h"
#include "query/engaged_store.h"

namespace orvex::platform {
class Transactions;
class UserDefaults;
}  // namespace orvex::platform

namespace orvex {

class Assembly;

/// How the store numbers clients.
enum EngagedClient : std::int64_t { engagedByOthers = 0, engagedByBrovia = 1, engagedByLumisk = 2 };
[[nodiscard]] std::int64_t engagedClientNumber(const std::optional<std::string>& clientShortName);

/// The completions that the user picked for what they had typed, on this device, by client. What is typed later finds
/// them by prefix, ranked by how often and how lately they were picked.
///
///     made ──▶ opening the file, on the update queue ──▶ ready; reopened and repaired as EngagedStore says
///
/// A search runs on the pool, with a connection of its own, and its caller waits for it at most the time-out. One that
/// is late is stopped, counted ("com.kelvar.orvexd.completions.late"), and writes only what it shares with its caller;
/// nobody waits for it. A search that comes while the file is being opened begins when it is open. Changes run in order
/// on the update queue; a search sees those that were answered before it began.
///
/// While the user default "ORXDisableLocalCompletions" is set, nothing is stored and nothing is found; what is asked to
/// be cleared is cleared.
///
/// Threading: callable from any thread. Only the searches wait, and `closeDBConnection`. Callbacks of changes come on
/// the update queue, those of `featureCountsForInput` on the pool.
class EngagedCompletionCache : public std::enable_shared_from_this<EngagedCompletionCache> {
public:
    using Engagement = EngagedStore::Engagement;
    /// When it is committed, or with the reason why it is not (SQLite's code). May be empty.
    using Added = std::move_only_function<void(platform::Result<void>)>;
    /// As `Added`, with the number of rows that were removed.
    using Cleared = std::move_only_function<void(platform::Result<std::int64_t> removed)>;
    /// By age, "h", "d", "w", "m" or "y"; none: no counts.
    using FeatureCounts = std::map<std::string, std::int64_t>;

    /// What it needs of the platform. All of it outlives the cache.
    struct Services {
        platform::Dispatcher& dispatcher;
        platform::UserDefaults& userDefaults;
        platform::FileManager& fileManager;
        platform::Counters& counters;
        platform::Transactions& transactions;
    };

    static constexpr std::chrono::milliseconds defaultTimeout{50};

    /// The one of this assembly, made on first use.
    static std::shared_ptr<EngagedCompletionCache> sharedInstance(Assembly& assembly);
    /// Opens "EngagedCompletions/Cache.db" in the caches directory, without waiting for it.
    static std::shared_ptr<EngagedCompletionCache> create(Services services);
    ~EngagedCompletionCache();  ///< runs the changes that are queued

    /// Applied when it returns, to every search that begins later; one that has begun keeps what it has. One with a
    /// number that is not finite is refused as a whole.
    void updateParameters(const EngagedParameters& parameters);

    /// Adds an engagement of now. An empty completion is not stored.
    void addCompletion(Engagement engagement, Added added = {});

    /// At most `count`, best first, without those below the threshold. `input` is what was typed, `client` a number of
    /// `EngagedClient`.
    [[nodiscard]] std::vector<ORXSuggestion> completionsForInput(std::string_view input, std::int64_t client,
                                                                 std::uint64_t count,
                                                                 std::chrono::nanoseconds timeout = defaultTimeout);
    [[nodiscard]] std::optional<ORXSuggestion> completionForInput(std::string_view input,
                                                                  std::int64_t client = engagedByOthers);

    void featureCountsForInput(std::string input, std::int64_t client,
                               std::move_only_function<void(FeatureCounts)> completion);

    // Dates are cut to whole seconds, both included. Two equal ones mean the ten seconds around them.
    void clearCompletionsFromDate(platform::WallTime fromDate, platform::WallTime toDate, std::int64_t client,
                                  Cleared cleared = {});
    void clearCompletionsFromDate(platform::WallTime fromDate, platform::WallTime toDate);  ///< of the other clients
    void clearAllClientCompletionsFromDate(platform::WallTime fromDate, platform::WallTime toDate,
                                           Cleared cleared = {});
    void clearAllCompletionsForClient(std::int64_t client, Cleared cleared = {});
    void clearAllCompletions(Cleared cleared = {});
    void lumiskDidClearSuggestions();

    /// Waits for the changes that are queued and stops the searches. The next change opens the file again.
    void closeDBConnection();

    static bool containsJapanese(std::string_view text);
    static bool containsKanjiOrKatakana(std::string_view text);
    static std::string kanize(std::string_view text);

private:
    /// One search, shared by its caller and whoever runs it.
    struct Search;
    enum class File : std::uint8_t { opening, open, closed };

    explicit EngagedCompletionCache(Services services);
    void _begin();
    [[nodiscard]] bool _cacheEnabled() const;
    [[nodiscard]] std::int64_t _now() const;

    /// Posts a change, with a transaction for as long as it takes.
    void _update(std::move_only_function<void()> change);
    void _clear(EngagedStore::Range range, Cleared cleared);
    /// Tells the searches where the file is now, and begins those that waited for it.
    void _publish() ORX_REQUIRES(_updateQueue);

    void _submit(std::shared_ptr<Search> search);
    void _run(Search& search) ORX_REQUIRES_SHARED(_searchQueue);
    void _warmup();
    [[nodiscard]] std::unique_ptr<EngagedReader> _takeReader(std::uint64_t& generation);
    void _giveBack(std::unique_ptr<EngagedReader> reader);
    void _closeReaders();
    void _searchFailed(int code, std::uint64_t generation);

    // Constant after construction.
    const Services _services;

    // Synchronised by themselves.
    platform::ConcurrentQueue _searchQueue;  ///< searches; the barrier closes their connections
    platform::SerialQueue _updateQueue;
    std::atomic<bool> _stopsSearches = false;
    mutable platform::Mutex _mutex;
    EngagedParameters _parameters ORX_GUARDED_BY(_mutex);
    File _file ORX_GUARDED_BY(_mutex) = File::opening;
    std::string _path ORX_GUARDED_BY(_mutex);  ///< and the generation, of the file that is open
    std::uint64_t _generation ORX_GUARDED_BY(_mutex) = 0;
    std::vector<std::unique_ptr<EngagedReader>> _idleReaders ORX_GUARDED_BY(_mutex);
    std::vector<std::shared_ptr<Search>> _waitingForFile ORX_GUARDED_BY(_mutex);

    // On the update queue.
    EngagedStore _store ORX_GUARDED_BY(_updateQueue);
};

}  // namespace orvex
