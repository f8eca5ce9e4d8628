#include "network/orvex_bag_controller.h"

#include <fmt/format.h>

#include <boost/json.hpp>
#include <chrono>
#include <utility>

#include "core/constants.h"
#include "core/http_description.h"
#include "core/json.h"
#include "core/notifications.h"
#include "core/orx_bag.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "network/bag_disk_cache.h"
#include "network/bag_fetch_session.h"
#include "network/orx_network_request_factory.h"
#include "network/orx_retryable_network_request.h"
#include "platform/bus.h"
#include "platform/counters.h"
#include "platform/log_events.h"
#include "platform/notification_center.h"
#include "platform/text.h"
#include "platform/transactions.h"
#include "platform/url.h"
#include "platform/user_defaults.h"

// Three keys of the raw dictionary are this file's: "__expiration" and "__bagurl" are stamped onto every fetched bag,
// and a bag or a file may carry "__refresh_disabled". "__bagurl" is the URL that a fetch at that moment would have had,
// without its key: it differs now exactly when locale, country, version or agent do.
//
// Order: the test of staleness asks the request factory, which reads its context queue. So it never runs on the access
// queue, where the bag change is posted to observers that may wait for anything.

namespace orvex {

using namespace std::chrono_literals;

namespace {

constexpr auto refreshAhead = 600.0;  // seconds before the end of it
constexpr std::uint32_t fetchRetries = 5;
constexpr std::string_view expirationKey = "__expiration";
constexpr std::string_view bagURLKey = "__bagurl";
constexpr std::string_view refreshDisabledKey = "__refresh_disabled";
constexpr std::string_view gazelAgent = "gazel/1.0";

const platform::Logger& bagLog() { return OrvexLogForCategory(OrvexLoggingCategory::bag); }

/// Whether the service is on for gazel: 1 or 0, and 2 while there is no bag to tell.
std::uint64_t gazelAvailability(const std::shared_ptr<const ORXBag>& bag) {
    if (!bag) return 2;
    return ORXBag(bag->rawBag(), std::string(gazelAgent)).isEnabled() ? 1 : 0;
}

std::string upperCaseASCII(std::string_view text) {
    std::string upper(text);
    for (char& letter : upper)
        if (letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter - 'a' + 'A');
    return upper;
}

std::string describedBag(const boost::json::object& dictionary) {
    return platform::logsPrivateArguments() ? boost::json::serialize(dictionary) : std::string();
}

using BagDictionary = std::expected<boost::json::object, ORXError>;

std::unexpected<ORXError> bagFetchError(std::string reason) {
    return std::unexpected(ORXError(ORXErrorCode::bagFetch, std::move(reason)));
}

BagDictionary parseBag(const std::string& data) {
    auto parsed = parseJSON(data, kBagJSONDepth);
    if (!parsed) bagLog().log("error parsing bag json {}", parsed.error().text);
    if (parsed && parsed->is_object()) return std::move(parsed->get_object());
    bagLog().log("Error fetching bag: returned data was not of the expected type.");
    return bagFetchError("not JSON object");
}

/// The dictionary that a fetch brought, or why there is none.
BagDictionary bagFromAnswer(const platform::Body& data, const std::optional<platform::URLResponse>& response,
                            const std::optional<platform::TransportError>& error) {
    if (error) {
        const ORXError transport(kORXURLErrorDomain, error->code, error->reason);
        bagLog().log("Error fetching bag: {}", transport.description());
        return std::unexpected(transport);
    }
    if (!data || data->empty()) {
        bagLog().log("Error fetching bag: returned data was not of the expected type.");
        return bagFetchError("no data");
    }
    const auto statusCode = response ? response->statusCode : 0;
    if (statusCode != 200) {
        bagLog().log("Error fetching bag status code: {}", statusCode);
        return bagFetchError(fmt::format("statusCode {}", statusCode));
    }
    return parseBag(*data);
}

}  // namespace

/// What the cache-identity URL was made from, and the URL.
struct OrvexBagController::Identity {
    std::uint64_t localeGeneration = 0;
    std::optional<std::string> bagURLDefault;
    bool useCindora = false;
    std::string url;
};

// Making and ending

std::shared_ptr<OrvexBagController> OrvexBagController::create(Assembly& assembly) {
    std::shared_ptr<OrvexBagController> controller(new OrvexBagController(assembly));
    controller->_loadBagFromDisk();
    assembly.notificationCenter().observe<ORXBagRefreshRequiredNotification>(
        controller, [](OrvexBagController& self, const ORXBagRefreshRequiredNotification& notification) {
            self._handleRefreshNotification(notification);
        });
    return controller;
}

std::shared_ptr<BagController> makeBagController(Assembly& assembly) { return OrvexBagController::create(assembly); }

OrvexBagController::OrvexBagController(Assembly& assembly)
    : _assembly(assembly),
      _userAgent(ORXNetworkRequestFactory::createUserAgentString(assembly.device(), {})),
      _fetchInProgress(std::make_shared<std::atomic<bool>>(false)),
      _inMemoryBagCacheAccessQueue(assembly.dispatcher(), "com.kelvar.orvexd.bagcontroller.cacheaccess") {}

OrvexBagController::~OrvexBagController() { _assembly.notificationCenter().removeObserver(this); }

void OrvexBagController::_loadBagFromDisk() {
    auto dictionary = diskCachedBagDictionary(_assembly);
    if (!dictionary) return;
    const bool isStale = _isRefreshRequiredForCachedBag(*dictionary);
    const auto rawBag = std::make_shared<const boost::json::object>(std::move(*dictionary));
    const auto bag = std::make_shared<const ORXBag>(rawBag, _userAgent);
    _cacheBagState(bag, Origin::disk);
    if (isStale) _fetchSoon(bag);
}

std::string OrvexBagController::bagFetchURLWithCountry(std::string_view countryCode) const {
    const auto url = _assembly.userDefaults().string(setting::bagURL).value_or("");
    if (!url.empty()) {
        if (platform::parseAcceptableURL(url)) return url;
        bagLog()
            .as(platform::LogEvent::settingRefused, {{"ORVEX_KEY", setting::bagURL}})
            .error("Malformed orvex bag URL in user defaults key {}", setting::bagURL);
    }
    return fmt::format("https://{}/bag", upperCaseASCII(countryCode) == "CN" ? orvexBagHostChina() : orvexBagHost());
}

// The bag in memory

std::shared_ptr<const ORXBag> OrvexBagController::inMemoryBag() const {
    return _inMemoryBagCacheAccessQueue.sync([this] {
        _inMemoryBagCacheAccessQueue.assertCurrent();
        return _inMemoryBag;
    });
}

std::shared_ptr<const ORXBag> OrvexBagController::currentBag() {
    auto bag = _cachedBagState();
    if (!bag) _fetchBagStateWithVersion(std::nullopt, bag);
    return bag;
}

std::optional<std::string> OrvexBagController::warmURL() {
    const auto bag = currentBag();
    return bag ? bag->warmURL() : std::nullopt;
}

std::shared_ptr<const ORXBag> OrvexBagController::_cachedBagState() {
    auto bag = inMemoryBag();
    if (bag && _isRefreshRequiredForCachedBag(*bag->rawBag())) _fetchSoon(bag);
    return bag;
}

void OrvexBagController::_cacheBagState(std::shared_ptr<const ORXBag> bag, Origin origin) {
    for (const auto& problem : bag->problems())
        bagLog().as(platform::LogEvent::bagEntryRefused, {{"ORVEX_REASON", problem}}).error("bag: {}", problem);
    _inMemoryBagCacheAccessQueue.barrierSync([&] {
        _inMemoryBagCacheAccessQueue.assertBarrier();
        const auto oldAvailability = gazelAvailability(_inMemoryBag);
        const auto newAvailability = gazelAvailability(bag);
        _inMemoryBag = bag;
        _assembly.notificationCenter().post(ORXBagChangeNotification{bag});
        if (oldAvailability != newAvailability && origin == Origin::network) _postAvailability(newAvailability);
    });
}

void OrvexBagController::_postAvailability(std::uint64_t availability) {
    bagLog().log("setting Orvex Gazel Available status to {}", availability);
    const auto name = availability == 1 ? kORXNotifyEnabled : kORXNotifyDisabled;
    _assembly.bus().broadcastSignal(std::string(kORXNotifyPath), std::string(kORXNotifyInterface),
                                    std::string(kORXNotifySignal), {name});
}

// Staleness

bool OrvexBagController::_isRefreshRequiredForCachedBag(const boost::json::object& rawBag) {
    if (rawBag.contains(refreshDisabledKey)) {
        bagLog().log("Bag refresh is disabled.");
        return false;
    }
    const auto* expiration = rawBag.if_contains(expirationKey);
    const double expires = expiration ? numberFromJSON(*expiration).value_or(0) : 0;
    const double secondsLeft = expires - platform::secondsSince1970(_assembly.dispatcher().wallNow());
    if (secondsLeft < refreshAhead) {
        bagLog().log("bag expired: {:f}", secondsLeft);
        _assembly.counters().add("com.kelvar.orvexd.bag.expired");
        return true;
    }
    const auto cachedURL = stringMember(rawBag, bagURLKey);
    if (!cachedURL) {
        bagLog().log("no bag URL found in cache");
        return true;
    }
    const std::string url = _cacheIdentityURL();
    if (url == *cachedURL) return false;
    bagLog().log("bag url changed from: {} to {}", describedURL(*cachedURL), describedURL(url));
    return true;
}

std::string OrvexBagController::_cacheIdentityURL() {
    const auto factory = _assembly.requestFactory();
    // Read before the URL is made: a locale that changes meanwhile makes it anew the next time.
    Identity now{.localeGeneration = factory->localeGeneration(),
                 .bagURLDefault = _assembly.userDefaults().string(setting::bagURL),
                 .useCindora = _assembly.useCindora(),
                 .url = {}};
    {
        const platform::MutexLock lock(_identityMutex);
        if (_identity && _identity->localeGeneration == now.localeGeneration &&
            _identity->bagURLDefault == now.bagURLDefault && _identity->useCindora == now.useCindora)
            return _identity->url;
    }
    if (auto request = factory->bagCacheRequest(*this, _userAgent, std::nullopt)) now.url = std::move(request->url);
    const platform::MutexLock lock(_identityMutex);
    _identity = std::make_unique<Identity>(now);
    return now.url;
}

void OrvexBagController::_handleRefreshNotification(const ORXBagRefreshRequiredNotification&) {
    bagLog().log("something significant changed (locale, geo). checking to see if bag needs update");
    const auto bag = inMemoryBag();
    if (_isRefreshRequiredForCachedBag(bag ? *bag->rawBag() : boost::json::object()))
        _fetchBagStateWithVersion(std::nullopt, bag);
}

// Fetching

void OrvexBagController::forceFetchBag(const boost::json::object& hints) {
    const auto bag = inMemoryBag();
    const auto* hint = hints.if_contains("bag");
    const auto announced = hint ? decimalFromJSON(*hint) : std::nullopt;
    if (!announced || !bag || !bag->version()) return;
    if (platform::compareNumerically(*bag->version(), *announced) < 0) _fetchBagStateWithVersion(announced, bag);
}

void OrvexBagController::_fetchSoon(std::shared_ptr<const ORXBag> stale) {
    // On the pool: the one who asked waits for no network, and at start-up nothing runs before everything is made.
    platform::GlobalQueue(_assembly.dispatcher(), platform::Priority::standard)
        .async([weak = weak_from_this(), stale = std::move(stale)] {
            if (const auto self = weak.lock()) self->_fetchBagStateWithVersion(std::nullopt, stale);
        });
}

void OrvexBagController::_fetchBagStateWithVersion(const std::optional<std::string>& version,
                                                   const std::shared_ptr<const ORXBag>& stale) {
    if (_fetchInProgress->exchange(true)) return;
    // Ends the flight wherever the last of it is let go: answered, unanswered, or without a request to begin with.
    FetchTurn turn(_fetchInProgress.get(), [flag = _fetchInProgress](void*) { flag->store(false); });
    if (inMemoryBag() != stale) return;
    auto request = _assembly.requestFactory()->bagFetchRequest(*this, _userAgent, version);
    if (!request) return _countFailure(ORXError(ORXErrorCode::bagFetch, "no request"));
    const auto session = std::make_shared<BagFetchSession>(_assembly, *request, _userAgent);
    bagLog().log("Initiating bag fetch attempt with request {} header {}", describedURL(request->url),
                 describedHeaders(request->headers));
    // Without an expiry the first failure is final; the next trigger fetches again.
    const auto task = dataTaskWithRetryableRequest(
        _assembly.bagSession(), _assembly.dispatcher(),
        {.httpRequest = std::move(*request), .expire = std::nullopt, .delayOnFail = true},
        {.attempt = 1, .retriesLeft = fetchRetries},
        [weak = weak_from_this(), session, turn = std::move(turn),
         transaction = _assembly.transactions().begin("bagFetch")](platform::Body data, const auto& response,
                                                                   const auto& error) {
            bagLog().log("resp: {}", describedResponse(response));
            if (const auto self = weak.lock()) {
                session->ended(data, response);
                self->_fetchEnded(*session, data, response, error);
                return session->complete();
            }
            bagLog().error("Error fetching bag, bag fetch task completed after BagFetchController was cleaned up");
        });
    session->setTask(task->task());
    task->resume();
}

void OrvexBagController::_fetchEnded(BagFetchSession& session, const platform::Body& data,
                                     const std::optional<platform::URLResponse>& response,
                                     const std::optional<platform::TransportError>& error) {
    auto dictionary = bagFromAnswer(data, response, error);
    if (!dictionary) {
        session.failed(dictionary.error());
        return _countFailure(dictionary.error());
    }
    bagLog().as(platform::LogEvent::bagFetched).log("Got bag: {}", platform::privately(describedBag(*dictionary)));
    const auto rawBag = std::make_shared<const boost::json::object>(_cacheBagDictionary(std::move(*dictionary)));
    _cacheBagState(std::make_shared<const ORXBag>(rawBag, _userAgent), Origin::network);
    _assembly.counters().add("com.kelvar.orvexd.bag.fetches");
}

void OrvexBagController::_countFailure(const ORXError& error) {
    const std::string why = error.description();
    bagLog().as(platform::LogEvent::bagFetchFailed, {{"ORVEX_REASON", why}}).error("bag fetch failed: {}", why);
    _assembly.counters().add("com.kelvar.orvexd.bag.fetchesfailed");
}

boost::json::object OrvexBagController::_cacheBagDictionary(boost::json::object dictionary) {
    dictionary[expirationKey] = platform::secondsSince1970(_assembly.dispatcher().wallNow() + lifetime);
    dictionary[bagURLKey] = _cacheIdentityURL();
    writeBagDictionary(_assembly, dictionary);
    return dictionary;
}

}  // namespace orvex
