#pragma once

#include <atomic>
#include <boost/json/fwd.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/orx_error.h"
#include "network/bag_controller.h"
#include "platform/dispatch.h"
#include "platform/http_session.h"
#include "platform/thread_annotations.h"

namespace orvex {

class Assembly;
class BagFetchSession;
struct ORXBagRefreshRequiredNotification;

/// The one owner of the bag: fetches it, keeps it in memory and on disk, and announces every new one.
///
///     none ──create, from "bag.plist"──▶ held, from disk
///     none, held ──fetch that succeeds──▶ held, fresh for 4 h less 10 min, then stale
///     held ──locale, country, version or agent of the fetch changed──▶ stale
///
/// A stale bag is served while its successor is fetched, and a failed fetch changes nothing: the next one who asks
/// starts another. At most one fetch is under way; a trigger that comes meanwhile is dropped.
///
/// Threading: as `BagController` says. `ORXBagChangeNotification` is posted inside the barrier of the access queue: on
/// the thread that calls `create` for the bag on disk, on the delivery thread of the bag session for a fetched one.
/// Durability: a bag is on disk before it is announced; a failure to write it is logged and costs a fetch at the next
/// start. A file that cannot be read as a bag is set aside.
class OrvexBagController final : public BagController, public std::enable_shared_from_this<OrvexBagController> {
public:
    /// Loads the bag on disk, which starts a fetch when it is stale. The request factory is in the assembly by then.
    static std::shared_ptr<OrvexBagController> create(Assembly& assembly);
    ~OrvexBagController() override;
    OrvexBagController(const OrvexBagController&) = delete;
    OrvexBagController& operator=(const OrvexBagController&) = delete;

    [[nodiscard]] std::shared_ptr<const ORXBag> currentBag() override;
    [[nodiscard]] std::optional<std::string> warmURL() override;
    void forceFetchBag(const boost::json::object& hints) override;
    [[nodiscard]] std::shared_ptr<const ORXBag> inMemoryBag() const override;

    /// The bag endpoint: the user default "ORXBagURL", else the host for that country. Takes no queue.
    [[nodiscard]] std::string bagFetchURLWithCountry(std::string_view countryCode) const;

    /// The daemon's own, that bags are asked for with.
    [[nodiscard]] const std::string& userAgent() const { return _userAgent; }

private:
    enum class Origin { disk, network };
    using FetchTurn = std::shared_ptr<void>;  ///< a fetch is under way for as long as one is held
    struct Identity;

    explicit OrvexBagController(Assembly& assembly);
    void _loadBagFromDisk();

    // The bag in memory.
    [[nodiscard]] std::shared_ptr<const ORXBag> _cachedBagState();
    void _cacheBagState(std::shared_ptr<const ORXBag> bag, Origin origin);
    void _postAvailability(std::uint64_t availability);

    // Staleness. Reads the context queue, so never within a block of either queue.
    [[nodiscard]] bool _isRefreshRequiredForCachedBag(const boost::json::object& rawBag);
    [[nodiscard]] std::string _cacheIdentityURL();
    void _handleRefreshNotification(const ORXBagRefreshRequiredNotification& notification);

    // The fetch, since `stale` (none: there was no bag) does not do. One that came meanwhile is what was wanted.
    void _fetchSoon(std::shared_ptr<const ORXBag> stale);
    void _fetchBagStateWithVersion(const std::optional<std::string>& version,
                                   const std::shared_ptr<const ORXBag>& stale);
    void _fetchEnded(BagFetchSession& session, const platform::Body& data,
                     const std::optional<platform::URLResponse>& response,
                     const std::optional<platform::TransportError>& error);
    void _countFailure(const ORXError& error);
    /// Stamps the dictionary and writes it to disk; the stamped one is the result, written or not.
    boost::json::object _cacheBagDictionary(boost::json::object dictionary);

    // Constant after construction.
    Assembly& _assembly;
    const std::string _userAgent;
    const std::shared_ptr<std::atomic<bool>> _fetchInProgress;  ///< shared with the fetch, which may outlive us

    // Synchronised by themselves.
    mutable platform::ConcurrentQueue _inMemoryBagCacheAccessQueue;
    mutable platform::Mutex _identityMutex;
    std::unique_ptr<Identity> _identity ORX_GUARDED_BY(_identityMutex);

    // On the access queue: reads, and barriers that replace it.
    std::shared_ptr<const ORXBag> _inMemoryBag ORX_GUARDED_BY(_inMemoryBagCacheAccessQueue);
};

}  // namespace orvex
