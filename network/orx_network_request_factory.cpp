#include "network/orx_network_request_factory.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

#include "core/constants.h"
#include "core/orx_bag.h"
#include "core/orx_request.h"
#include "daemon/assembly.h"
#include "network/orvex_bag_controller.h"
#include "network/orvex_url_request_builder.h"
#include "platform/counters.h"
#include "platform/device_information.h"

namespace orvex {
namespace {

/// None for 0: a request without a time of its own has the session's.
std::optional<std::chrono::nanoseconds> timeoutFromSeconds(double seconds) {
    constexpr double limit = 1e9;  // some thirty years; the nanoseconds of it fit
    if (!(seconds > 0)) return std::nullopt;
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::duration<double>(std::min(seconds, limit)));
}

bool carriesLocation(const platform::URL& endpoint) {
    const auto items = platform::decodeQuery(endpoint.query.value_or(""));
    return std::ranges::any_of(items, [](const auto& item) { return item.first == "latlng"; });
}

std::string_view orEmpty(const std::optional<std::string>& text) { return text ? *text : std::string_view(); }

}  // namespace

std::optional<platform::URLRequest> ORXNetworkRequestFactory::bagFetchRequest(
    const OrvexBagController& controller, std::string_view userAgent, const std::optional<std::string>& version) const {
    return _bagRequest(controller,
                       {.kind = RequestKind::bagFetch, .userAgent = userAgent, .version = orEmpty(version)});
}

std::optional<platform::URLRequest> ORXNetworkRequestFactory::bagCacheRequest(
    const OrvexBagController& controller, std::string_view userAgent, const std::optional<std::string>& version) const {
    return _bagRequest(controller,
                       {.kind = RequestKind::bagCache, .userAgent = userAgent, .version = orEmpty(version)});
}

std::optional<platform::URLRequest> ORXNetworkRequestFactory::_bagRequest(const OrvexBagController& controller,
                                                                          const RequestInputs& inputs) const {
    auto request = _contextAccessQueue.sync([&] {
        _contextAccessQueue.assertCurrent();
        auto builder = OrvexURLRequestBuilder::requestBuilderWithURL(
            controller.bagFetchURLWithCountry(_context.geoDeviceCountryCode));
        return builder ? std::optional(_build(inputs, *std::move(builder))) : std::nullopt;
    });
    if (request) request->cachePolicy = platform::CachePolicy::reloadIgnoringLocalCache;
    return request;
}

std::optional<platform::URLRequest> ORXNetworkRequestFactory::warmRequest(std::string_view url) const {
    auto request = _read({.kind = RequestKind::warm}, OrvexURLRequestBuilder::requestBuilderWithURL(url));
    if (request) request->cachePolicy = platform::CachePolicy::reloadIgnoringLocalCache;
    return request;
}

std::optional<platform::URLRequest> ORXNetworkRequestFactory::searchRequest(const ORXSearchRequest& request,
                                                                            const ORXBag& bag,
                                                                            std::string_view userGuid,
                                                                            FieldMask fieldMask) {
    return _queryRequest(bag.searchURL(), {.kind = RequestKind::search,
                                           .bag = &bag,
                                           .request = &request,
                                           .search = &request,
                                           .queryString = request.queryString,
                                           .temperatureUnit = request.temperatureUnit,
                                           .userAgent = bag.userAgent(),
                                           .userGuid = userGuid,
                                           .fieldMask = fieldMask});
}

std::optional<platform::URLRequest> ORXNetworkRequestFactory::zeroKeywordRequest(const ORXZeroKeywordRequest& request,
                                                                                 const ORXBag& bag,
                                                                                 std::string_view userGuid,
                                                                                 FieldMask fieldMask) {
    return _queryRequest(bag.searchURL(), {.kind = RequestKind::zeroKeyword,
                                           .bag = &bag,
                                           .request = &request,
                                           .temperatureUnit = request.temperatureUnit,
                                           .userAgent = bag.userAgent(),
                                           .userGuid = userGuid,
                                           .fieldMask = fieldMask});
}

std::optional<platform::URLRequest> ORXNetworkRequestFactory::moreResultsRequest(const ORXMoreResultsRequest& request,
                                                                                 const ORXBag& bag,
                                                                                 std::string_view userGuid,
                                                                                 FieldMask fieldMask) {
    return _queryRequest(bag.moreResultsURL(), {.kind = RequestKind::moreResults,
                                                .bag = &bag,
                                                .request = &request,
                                                .userAgent = bag.userAgent(),
                                                .userGuid = userGuid,
                                                .fieldMask = fieldMask});
}

std::optional<platform::URLRequest> ORXNetworkRequestFactory::lookupRequest(const ORXLookupRequest& request,
                                                                            const ORXBag& bag,
                                                                            std::string_view userGuid) {
    return _queryRequest(bag.searchURL(), {.kind = RequestKind::lookup,
                                           .bag = &bag,
                                           .request = &request,
                                           .lookup = &request,
                                           .queryString = request.queryString,
                                           .clientContext = request.clientContext,
                                           .userAgent = bag.userAgent(),
                                           .userGuid = userGuid});
}

std::optional<platform::URLRequest> ORXNetworkRequestFactory::flightSearchRequest(const ORXFlightSearchRequest& request,
                                                                                  const ORXBag& bag,
                                                                                  std::string_view userGuid) {
    return _queryRequest(bag.flightURL(), {.kind = RequestKind::flight,
                                           .bag = &bag,
                                           .request = &request,
                                           .flight = &request,
                                           .queryString = request.flightQuery,
                                           .clientContext = request.clientContext,
                                           .userAgent = bag.userAgent(),
                                           .userGuid = userGuid});
}

std::optional<platform::URLRequest> ORXNetworkRequestFactory::cardRequest(const ORXCardRequest& request,
                                                                          const ORXBag& bag,
                                                                          std::string_view userGuid) const {
    return _read({.kind = RequestKind::card,
                  .bag = &bag,
                  .request = &request,
                  .userAgent = bag.userAgent(),
                  .userGuid = userGuid},
                 OrvexURLRequestBuilder::requestBuilderWithURL(request.cardURL));
}

std::optional<platform::URLRequest> ORXNetworkRequestFactory::fileDownloadRequest(const FileDownload& download) const {
    const auto userAgent = createUserAgentString(_assembly.device(), "Lumisk/1");
    return _read({.kind = RequestKind::fileDownload,
                  .userAgent = userAgent,
                  .version = download.version,
                  .includeLatLong = download.includeLatLong},
                 OrvexURLRequestBuilder::requestBuilderWithURL(download.url));
}

std::optional<platform::URLRequest> ORXNetworkRequestFactory::flusherUploadRequest(const FlusherUpload& upload) const {
    const auto userAgent = createUserAgentString(_assembly.device(), "");
    auto request = _read({.kind = RequestKind::feedbackUpload, .userAgent = userAgent, .digest = upload.digest},
                         OrvexURLRequestBuilder::requestBuilderWithURL(upload.url));
    if (!request) return std::nullopt;
    request->method = "POST";
    request->cachePolicy = platform::CachePolicy::reloadIgnoringLocalCache;
    request->timeout = upload.timeout;
    request->headers.emplace_back("Content-Encoding", "deflate");
    return request;
}

std::optional<platform::URLRequest> ORXNetworkRequestFactory::_queryRequest(const std::optional<std::string>& endpoint,
                                                                            const RequestInputs& inputs) {
    if (!endpoint) return std::nullopt;
    const auto url = _queryEndpoint(*endpoint);
    if (!url) return std::nullopt;
    if (inputs.kind != RequestKind::moreResults || !carriesLocation(*url)) _startUpdatingLocation();
    _startUpdatingMotion();
    auto request = _read(inputs, OrvexURLRequestBuilder(url));
    if (request) request->timeout = timeoutFromSeconds(inputs.bag->timeoutIntervalForRequest());
    return request;
}

std::optional<platform::URLRequest> ORXNetworkRequestFactory::_read(
    const RequestInputs& inputs, std::optional<OrvexURLRequestBuilder> builder) const {
    if (!builder) return std::nullopt;
    return _contextAccessQueue.sync([&] {
        _contextAccessQueue.assertCurrent();
        return _build(inputs, *std::move(builder));
    });
}

platform::URLRequest ORXNetworkRequestFactory::_build(RequestInputs inputs, OrvexURLRequestBuilder builder) const {
    inputs.context = &_context;
    inputs.assembly = &_assembly;
    addVocabulary(std::move(inputs), builder);
    if (const auto refused = builder.refusedHeaders(); refused > 0)
        _assembly.counters().add("com.kelvar.orvexd.request.refusedheaders", static_cast<std::int64_t>(refused));
    return std::move(builder).createMutableUrlRequest();
}

std::shared_ptr<const platform::URL> ORXNetworkRequestFactory::_queryEndpoint(const std::string& endpoint) const {
    {
        const platform::MutexLock lock(_endpointMutex);
        if (_parsedEndpoint && _endpoint == endpoint) return _parsedEndpoint;
    }
    auto parsed = OrvexURLRequestBuilder::parsedEndpoint(endpoint);
    const platform::MutexLock lock(_endpointMutex);
    _endpoint = endpoint;
    _parsedEndpoint = parsed;
    return parsed;
}

std::string ORXNetworkRequestFactory::createUserAgentString(const platform::DeviceInformation& device,
                                                            std::string_view name) {
    const std::string& daemon = kORXOrvexdNameVersion();
    return fmt::format("{} ({}) {}", daemon, platform::deviceDescription(device), name.empty() ? daemon : name);
}

}  // namespace orvex
