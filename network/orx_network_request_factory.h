#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "network/device_policy.h"
#include "network/location_context.h"
#include "network/location_manager.h"
#include "network/motion_manager.h"
#include "network/network_service_proxy.h"
#include "network/orvex_subscription_manager.h"
#include "network/request_context.h"
#include "network/request_vocabulary.h"
#include "platform/dispatch.h"
#include "platform/http_session.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {
class DeviceInformation;
struct LocaleSettings;
}  // namespace orvex::platform

namespace orvex {

class Assembly;
class ORXBag;
class OrvexBagController;
class OrvexURLRequestBuilder;
struct ORXCardRequest;
struct ORXFlightSearchRequest;
struct ORXLookupRequest;
struct ORXMoreResultsRequest;
struct ORXSearchRequest;
struct ORXZeroKeywordRequest;

/// Builds every HTTP request that the daemon sends, from what a client asks, the bag, and the context: what the device
/// is like, kept up to date by change notifications.
///
/// What a request carries, in which order, is data (network/request_vocabulary.h); a builder here only says which
/// request it is and what it is made of.
///
/// A query's builder also sees to it that the location is less than 300 s old and samples the movement once; it waits
/// for neither. A new bag says which location sources it takes, what is visible, and through which proxy queries go.
///
/// Threading: callable from any thread, but never from a block of the context queue itself. Builders run on the
/// caller's thread, in a read of that queue, so that each request sees one state of the context; updates are barriers
/// that are queued and never waited for.
class ORXNetworkRequestFactory : public std::enable_shared_from_this<ORXNetworkRequestFactory>,
                                 public LocationManagerDelegate,
                                 public MotionManagerDelegate,
                                 public OrvexSubscriptionManagerDelegate {
public:
    /// Reads the whole context first: the bag controller that is made next is told apart by it.
    static std::shared_ptr<ORXNetworkRequestFactory> create(Assembly& assembly);
    ORXNetworkRequestFactory(const ORXNetworkRequestFactory&) = delete;
    ORXNetworkRequestFactory& operator=(const ORXNetworkRequestFactory&) = delete;

    // None when the endpoint is no acceptable URL, or the bag names none.

    [[nodiscard]] std::optional<platform::URLRequest> bagFetchRequest(const OrvexBagController& controller,
                                                                      std::string_view userAgent,
                                                                      const std::optional<std::string>& version) const;
    /// For its URL only, which changes exactly when a bag would: no key, no headers.
    [[nodiscard]] std::optional<platform::URLRequest> bagCacheRequest(const OrvexBagController& controller,
                                                                      std::string_view userAgent,
                                                                      const std::optional<std::string>& version) const;
    [[nodiscard]] std::optional<platform::URLRequest> warmRequest(std::string_view url) const;
    [[nodiscard]] std::optional<platform::URLRequest> searchRequest(const ORXSearchRequest& request, const ORXBag& bag,
                                                                    std::string_view userGuid,
                                                                    FieldMask fieldMask = FieldMask::none);

    [[nodiscard]] std::optional<platform::URLRequest> zeroKeywordRequest(const ORXZeroKeywordRequest& request,
                                                                         const ORXBag& bag, std::string_view userGuid,
                                                                         FieldMask fieldMask = FieldMask::none);
    [[nodiscard]] std::optional<platform::URLRequest> moreResultsRequest(const ORXMoreResultsRequest& request,
                                                                         const ORXBag& bag, std::string_view userGuid,
                                                                         FieldMask fieldMask = FieldMask::none);
    [[nodiscard]] std::optional<platform::URLRequest> lookupRequest(const ORXLookupRequest& request, const ORXBag& bag,
                                                                    std::string_view userGuid);
    [[nodiscard]] std::optional<platform::URLRequest> flightSearchRequest(const ORXFlightSearchRequest& request,
                                                                          const ORXBag& bag, std::string_view userGuid);
    /// To the card's own URL.
    [[nodiscard]] std::optional<platform::URLRequest> cardRequest(const ORXCardRequest& request, const ORXBag& bag,
                                                                  std::string_view userGuid) const;

    struct FileDownload {
        std::string_view url;
        std::string_view version = {};  ///< of the file that is there; empty: none
        bool includeLatLong = false;
    };
    [[nodiscard]] std::optional<platform::URLRequest> fileDownloadRequest(const FileDownload& download) const;

    struct FlusherUpload {
        std::string_view url;
        std::chrono::nanoseconds timeout;
        std::string_view digest;
    };
    /// A POST without its body, which is deflated.
    [[nodiscard]] std::optional<platform::URLRequest> flusherUploadRequest(const FlusherUpload& upload) const;

    /// After a search, resource downloads tell the location as it is.
    void setPerformedSearch();
    /// JSON text; see SilhouetteTopics.
    void setSilhouetteTopics(std::string_view json);

    /// The daemon's own agent for `name`: "NAME-AND-VERSION (DEVICE) name"; for an empty one its own name and version.
    [[nodiscard]] static std::string createUserAgentString(const platform::DeviceInformation& device,
                                                           std::string_view name);

    /// 1 when queries shall go through the proxy, else 0.
    [[nodiscard]] std::int32_t cindoraStatus() const;
    /// Sends a query's task, not resumed yet, through the proxy if they shall; one that cannot goes direct. Returns the
    /// proxy's URL if it goes through it.
    std::optional<std::string> enableCindora(platform::URLSessionTask& task) const;

    // What the last bag makes visible on the device.
    [[nodiscard]] bool gazelVisible() const { return _gazelVisible; }
    [[nodiscard]] bool hashtagImagesVisible() const { return _hashtagImagesVisible; }

    // What the managers tell.
    void didUpdateLocations(const std::vector<platform::Location>& locations) override;
    void didChangeAuthorizationStatus(platform::LocationAuthorization status) override;
    void didFailWithError(const platform::Failure& error) override;
    void didUpdateMotionActivity(const platform::MotionActivity& activity) override;
    void didUpdateSubscriptionDictionaries(const boost::json::array& dictionaries) override;
    void didUpdateStorefrontIdentifier(const std::string& identifier) override;

    /// The present use of the maps service as requests tell it, without counting; none where there is no such service.
    std::optional<std::string> getMapsUserSessionEntityAndReset(ResetMapsSession reset) const;

    /// Goes up when locale, languages or country change: a bag request's URL may be kept as long as this stays.
    [[nodiscard]] std::uint64_t localeGeneration() const { return _localeGeneration; }

    /// Waits for the updates that are queued.
    void flushContextAccessQueue() {
        _contextAccessQueue.barrierSync([] {});
    }
    [[nodiscard]] platform::ConcurrentQueue& contextAccessQueue() { return _contextAccessQueue; }

private:
    explicit ORXNetworkRequestFactory(Assembly& assembly);

    using Update = std::move_only_function<void(ORXNetworkRequestFactory& self)>;

    void _subscribe();
    void _readContext();
    [[nodiscard]] std::optional<platform::URLRequest> _bagRequest(const OrvexBagController& controller,
                                                                  const RequestInputs& inputs) const;
    [[nodiscard]] std::optional<platform::URLRequest> _queryRequest(const std::optional<std::string>& endpoint,
                                                                    const RequestInputs& inputs);
    [[nodiscard]] std::optional<platform::URLRequest> _read(const RequestInputs& inputs,
                                                            std::optional<OrvexURLRequestBuilder> builder) const;
    [[nodiscard]] platform::URLRequest _build(RequestInputs inputs, OrvexURLRequestBuilder builder) const
        ORX_REQUIRES_SHARED(_contextAccessQueue);
    /// Null when it is refused.
    [[nodiscard]] std::shared_ptr<const platform::URL> _queryEndpoint(const std::string& endpoint) const;
    /// Queues `update` as a barrier of the context queue.
    void _update(Update update);
    void _localeDidChange(const platform::LocaleSettings& settings);
    void _policyDidChange();
    void _readDictionaries();
    void _didGetBag(std::shared_ptr<const ORXBag> bag);
    void _publishVisibility(const ORXBag& bag);
    void _startUpdatingLocation();
    void _startLocationUnlessFresh() ORX_REQUIRES(_contextAccessQueue);
    void _startUpdatingMotion();
    void _refreshRoutineMode();

    // Constant after construction.
    Assembly& _assembly;

    // Synchronised by themselves.
    mutable platform::ConcurrentQueue _contextAccessQueue;
    std::atomic<std::uint64_t> _localeGeneration = 0;
    std::atomic<bool> _gazelVisible = false;
    std::atomic<bool> _hashtagImagesVisible = false;
    NetworkServiceProxy _proxy;

    // The last query's endpoint, parsed: the next one's is mostly the same.
    mutable platform::Mutex _endpointMutex;
    mutable std::string _endpoint ORX_GUARDED_BY(_endpointMutex);
    mutable std::shared_ptr<const platform::URL> _parsedEndpoint ORX_GUARDED_BY(_endpointMutex);

    // On the context queue: reads, and barriers that change it.
    RequestContext _context ORX_GUARDED_BY(_contextAccessQueue);
    LocationContext _location ORX_GUARDED_BY(_contextAccessQueue);
};

}  // namespace orvex
