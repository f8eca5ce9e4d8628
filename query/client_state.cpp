#include "query/client_state.h"

#include <boost/json/object.hpp>

#include "core/client_name.h"
#include "core/notifications.h"
#include "core/orx_bag.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "feedback/client_session_manager_protocol.h"
#include "feedback/guid_controller.h"
#include "network/bag_controller.h"
#include "network/orx_network_request_factory.h"
#include "platform/counters.h"
#include "platform/dispatch.h"
#include "platform/notification_center.h"
#include "platform/user_defaults.h"
#include "query/query_cache.h"
#include "query/query_feedback.h"

// Waiting for a bag. Every waiting query has a semaphore of its own, listed while it waits: one bag change wakes them
// all, and a change that came too late for one wait cannot end the next. The list is joined, and the change observed,
// before the controller is asked for its bag; a bag that is installed in between therefore finds the waiter.

namespace orvex {
namespace {

const platform::Logger& sessionLog() { return OrvexLogForCategory(OrvexLoggingCategory::session); }
const platform::Logger& cachingLog() { return OrvexLogForCategory(OrvexLoggingCategory::caching); }
const platform::Logger& searchLog() { return OrvexLogForCategory(OrvexLoggingCategory::search); }

constexpr std::chrono::seconds connectionStaysWarm{30};
constexpr std::uint32_t warmEvent = 19;

}  // namespace

std::shared_ptr<ClientState> ClientState::create(std::string identifier, Assembly& assembly) {
    return std::shared_ptr<ClientState>(new ClientState(std::move(identifier), assembly));
}

ClientState::ClientState(std::string identifier, Assembly& assembly)
    : _identifier(std::move(identifier)),
      _assembly(assembly),
      _ownGUIDController(assembly.sharedSession() ? nullptr : makeUserGUIDController(assembly)),
      _feedback(assembly,
                _ownGUIDController ? makeClientSessionManager(assembly, _ownGUIDController, _identifier) : nullptr),
      _clientShortName(extractClientNameFromString(_identifier)) {
    if (assembly.userDefaults().boolean(setting::noQueryCache)) {
        cachingLog().log("query cache OFF for {}", _identifier);
    } else {
        cachingLog().log("query cache ON for {}", _identifier);
        _queryCache = QueryCache::create(assembly);
    }
    if (_ownGUIDController) {
        sessionLog().log("Orvex is using individual instance of guid controller {}", _identifier);
    } else {
        sessionLog().log("Orvex is using shared instance of guid controller");
    }
}

ClientState::~ClientState() { _assembly.notificationCenter().removeObserver(this); }

std::optional<std::string> ClientState::userAgent() const {
    const platform::MutexLock lock(_mutex);
    return _userAgent;
}

std::optional<std::string> ClientState::clientShortName() const {
    const platform::MutexLock lock(_mutex);
    return _clientShortName;
}

std::shared_ptr<const ORXBag> ClientState::bag() const {
    const platform::MutexLock lock(_mutex);
    return _bag;
}

std::optional<ORXSessionConfiguration> ClientState::configuration() const {
    const platform::MutexLock lock(_mutex);
    return _configuration;
}

void ClientState::setConfiguration(ORXSessionConfiguration configuration) {
    const platform::MutexLock lock(_mutex);
    _configuration = std::move(configuration);
}

void ClientState::setUserAgent(std::string userAgent) {
    const platform::MutexLock lock(_mutex);
    _userAgent = std::move(userAgent);
}

void ClientState::updateClient(std::string userAgent) {
    std::shared_ptr<const ORXBag> held;
    {
        const platform::MutexLock lock(_mutex);
        if (_userAgent == userAgent) return;
        _clientShortName = extractClientNameFromString(userAgent);
        _userAgent = userAgent;
        held = _bag;
    }
    if (held) _bind(held, held);
    sessionLog().error("userAgent changed to {}", userAgent);
}

void ClientState::bag(std::string_view userAgent, platform::MonotonicTime arrival, BagReply reply) {
    std::shared_ptr<const ORXBag> toRebind;
    bool changed = false;
    {
        const platform::MutexLock lock(_mutex);
        changed = !userAgent.empty() && _userAgent != userAgent;
        if (changed) {
            _userAgent = std::string(userAgent);
            toRebind = _bag;
        }
    }
    if (toRebind) _bind(toRebind, toRebind);
    if (changed) emptyQueryCache();
    if (!this->userAgent()) {
        reply(nullptr, ORXError(ORXErrorCode::timeout, "no UserAgent"));
    } else if (!_ensureBag(arrival)) {
        reply(bag(), ORXError(ORXErrorCode::timeout, "timeout"));
    } else {
        reply(bag(), std::nullopt);
    }
}

void ClientState::emptyQueryCache() {
    if (_queryCache) _queryCache->removeAllObjects();
}

void ClientState::_bind(const HeldBag& bag, const std::optional<HeldBag>& inPlaceOf) {
    for (;;) {
        const auto agent = userAgent();
        auto view = std::make_shared<const ORXBag>(bag->rawBag(), agent.value_or(""));
        const platform::MutexLock lock(_mutex);
        if (inPlaceOf && _bag != *inPlaceOf) return;
        if (_userAgent != agent) continue;  // it changed while the view was made
        _bag = std::move(view);
        return;
    }
}

std::optional<ClientState::BoundBag> ClientState::_boundBag() const {
    const platform::MutexLock lock(_mutex);
    if (!_bag || !_userAgent) return std::nullopt;
    return BoundBag{_bag, _bag->userAgent()};
}

bool ClientState::_ensureBag(platform::MonotonicTime arrival) {
    auto waiter = std::make_shared<platform::Semaphore>(_assembly.dispatcher(), 0);
    {
        const platform::MutexLock lock(_mutex);
        if (!_userAgent) return false;
        if (_bag) return true;
        if (!_observesBagChanges) {
            _observesBagChanges = true;
            _assembly.notificationCenter().observe<ORXBagChangeNotification>(shared_from_this(),
                                                                             &ClientState::_bagChanged);
        }
        _bagWaiters.push_back(waiter);
    }
    cachingLog().info("Warming bag cache for agent: {}", platform::orNull(userAgent()));
    if (const auto& controller = _assembly.bagController()) {
        if (const auto current = controller->currentBag()) _bind(current, HeldBag());
    }
    if (!bag()) {
        _markNetworkRequest();
        const auto limit = _isProbablyFirstLaunchEver() ? kORXFirstLaunchBagSemaphoreWait : kORXDefaultBagSemaphoreWait;
        (void)waiter->waitUntil(arrival + limit);  // whether a bag came is what counts, and is asked below
        platform::defaultLogger().debug("client {} finished waiting for bag", _identifier);
    }
    const platform::MutexLock lock(_mutex);
    std::erase(_bagWaiters, waiter);
    return _bag != nullptr;
}

bool ClientState::_isProbablyFirstLaunchEver() const {
    return !_assembly.userDefaults().object(setting::downloadResources).has_value();
}

void ClientState::_bagChanged(const ORXBagChangeNotification& notification) {
    if (notification.bag) _bind(notification.bag, std::nullopt);
    std::vector<std::shared_ptr<platform::Semaphore>> waiters;
    {
        const platform::MutexLock lock(_mutex);
        waiters = _bagWaiters;
    }
    for (const auto& waiter : waiters) waiter->signal();
}

void ClientState::_markNetworkRequest() {
    const auto now = _assembly.dispatcher().now();
    const platform::MutexLock lock(_mutex);
    _lastNetworkRequest = now;
}

std::string ClientState::_currentUserGUID() const {
    const auto& controller = _ownGUIDController ? _ownGUIDController : _assembly.guidController();
    return controller ? controller->currentUserGUID() : std::string();
}

RecordedQuery ClientState::_recordedWithUserGUID(std::uint64_t queryId) const {
    return {.queryId = queryId, .userAgent = userAgent(), .userGuid = _currentUserGUID()};
}

std::shared_ptr<NetworkSearch> ClientState::_startSearchEventForRequest(const platform::URLRequest& request,
                                                                        const NetworkSearchOccasion& occasion,
                                                                        std::optional<std::string> userAgent) const {
    return std::make_shared<NetworkSearch>(
        _feedback, request, occasion,
        RecordedQuery{.queryId = occasion.queryId, .userAgent = std::move(userAgent), .userGuid = {}});
}

std::optional<std::int32_t> ClientState::_cindoraStatus() const {
    const auto& factory = _assembly.requestFactory();
    return factory && _assembly.useCindora() ? std::optional(factory->cindoraStatus()) : std::nullopt;
}

std::optional<std::string> ClientState::_geoSessionEntity(const platform::URLRequest& request) const {
    if (auto told = platform::headerValue(request.headers, "X-Kelvar-GeoSession")) return told;
    const auto& factory = _assembly.requestFactory();
    return factory ? factory->getMapsUserSessionEntityAndReset(ResetMapsSession::no) : std::nullopt;
}

bool ClientState::_mayAskServer() const {
    if (!_assembly.userDefaults().boolean(setting::networkSearchDisabled)) return true;
    _assembly.counters().add("com.kelvar.orvexd.queries.dropped.networkdisabled");
    return false;
}

void ClientState::warm() {
    if (!_mayAskServer()) return;
    const auto& controller = _assembly.bagController();
    const auto url = controller ? controller->warmURL() : std::nullopt;
    if (!url) {
        searchLog().log("warm not required, bag fetch in process");
        return;
    }
    {
        const auto now = _assembly.dispatcher().now();
        const platform::MutexLock lock(_mutex);
        const bool warmed = _lastNetworkRequest && now - *_lastNetworkRequest < connectionStaysWarm;
        if (!warmed) _lastNetworkRequest = now;
        if (warmed) {
            searchLog().log("warm not required, connection still warm");
            return;
        }
    }
    const auto& factory = _assembly.requestFactory();
    auto request = factory ? factory->warmRequest(*url) : std::nullopt;
    if (!request) return;
    const auto agent = userAgent();
    const auto networkSearch = _startSearchEventForRequest(
        *request, {.triggerEvent = warmEvent, .endpoint = SearchEndpoint::warm, .cindoraStatus = _cindoraStatus()},
        agent);
    const auto task = _assembly.urlSession().dataTask(
        *std::move(request), [self = shared_from_this(), networkSearch, agent](
                                 const platform::Body& data, const std::optional<platform::URLResponse>& response,
                                 const std::optional<platform::TransportError>& error) {
            const auto statusCode = response ? response->statusCode : 0;
            searchLog().log("Status for warm request: ({}) error: ({})", statusCode, error ? error->reason : "(null)");
            networkSearch->endNetworkFeedback({.userAgent = agent},
                                              {.size = data ? data->size() : 0, .statusCode = statusCode}, nullptr);
        });
    task->setPreconnect();
    networkSearch->setTask(task, factory->enableCindora(*task));
    task->resume();
}

}  // namespace orvex
