#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

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
/// Threading: callable from any thread, but never from a block of the context queue itself. Builders run on the
/// caller's thread, in a read of that queue, so that each request sees one state of the context; updates are barriers
/// that are queued and never waited for.
class ORXNetworkRequestFactory : public std::enable_shared_from_this<ORXNetworkRequestFactory> {
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
                                                                    FieldMask fieldMask = FieldMask::none) const;

    [[nodiscard]] std::optional<platform::URLRequest> zeroKeywordRequest(const ORXZeroKeywordRequest& request,
                                                                         const ORXBag& bag, std::string_view userGuid,
                                                                         FieldMask fieldMask = FieldMask::none) const;
    [[nodiscard]] std::optional<platform::URLRequest> moreResultsRequest(const ORXMoreResultsRequest& request,
                                                                         const ORXBag& bag, std::string_view userGuid,
                                                                         FieldMask fieldMask = FieldMask::none) const;
    [[nodiscard]] std::optional<platform::URLRequest> lookupRequest(const ORXLookupRequest& request, const ORXBag& bag,
                                                                    std::string_view userGuid) const;
    [[nodiscard]] std::optional<platform::URLRequest> flightSearchRequest(const ORXFlightSearchRequest& request,
                                                                          const ORXBag& bag,
                                                                          std::string_view userGuid) const;
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

    /// JSON text; see SilhouetteTopics. Does not wait.
    void setSilhouetteTopics(std::string_view json);

    /// The daemon's own agent for `name`: "NAME-AND-VERSION (DEVICE) name"; for an empty one its own name and version.
    [[nodiscard]] static std::string createUserAgentString(const platform::DeviceInformation& device,
                                                           std::string_view name);

    /// Goes up with every change of the context: what was made from it may be kept as long as this stays.
    [[nodiscard]] std::uint64_t contextGeneration() const { return _contextGeneration; }

    /// Waits for the updates that are queued.
    void flushContextAccessQueue() {
        _contextAccessQueue.barrierSync([] {});
    }
    [[nodiscard]] platform::ConcurrentQueue& contextAccessQueue() { return _contextAccessQueue; }

private:
    explicit ORXNetworkRequestFactory(Assembly& assembly);

    void _readContext();
    [[nodiscard]] std::optional<platform::URLRequest> _bagRequest(const OrvexBagController& controller,
                                                                  const RequestInputs& inputs) const;
    [[nodiscard]] std::optional<platform::URLRequest> _queryRequest(const std::optional<std::string>& endpoint,
                                                                    const RequestInputs& inputs) const;
    [[nodiscard]] std::optional<platform::URLRequest> _read(const RequestInputs& inputs,
                                                            std::string_view endpoint) const;
    [[nodiscard]] std::optional<platform::URLRequest> _build(RequestInputs inputs, std::string_view endpoint) const
        ORX_REQUIRES_SHARED(_contextAccessQueue);
    /// Queues an update of the context.
    void _change(std::move_only_function<void(RequestContext&)> change);
    void _localeDidChange(const platform::LocaleSettings& settings);

    // Constant after construction.
    Assembly& _assembly;

    // Synchronised by themselves.
    mutable platform::ConcurrentQueue _contextAccessQueue;
    std::atomic<std::uint64_t> _contextGeneration = 0;

    // On the context queue: reads, and barriers that change it.
    RequestContext _context ORX_GUARDED_BY(_contextAccessQueue);
};

}  // namespace orvex
