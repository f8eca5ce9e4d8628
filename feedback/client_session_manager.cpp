#include "feedback/client_session_manager.h"

#include <algorithm>
#include <array>
#include <boost/json/object.hpp>
#include <utility>

#include "core/feedback_record.h"
#include "core/feedback_records.pb.h"
#include "core/network_search_record.h"
#include "core/notifications.h"
#include "core/orx_bag.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "feedback/client_session.h"
#include "feedback/client_session_shared.h"
#include "feedback/daemon_record.h"
#include "feedback/flusher_listener.h"
#include "feedback/guid_controller.h"
#include "feedback/session_dictionary.h"
#include "network/bag_controller.h"
#include "platform/counters.h"
#include "platform/log_events.h"
#include "platform/notification_center.h"
#include "platform/transactions.h"
#include "platform/user_defaults.h"

namespace orvex {
namespace {

using std::chrono::seconds;

constexpr seconds guidLifetime{900};
constexpr seconds longestIdleTime = std::chrono::hours(24 * 365);  // what a moment in nanoseconds can be moved by
constexpr std::size_t mostAgentsRemembered = 1024;
constexpr std::array suggestSessionEnd = {FeedbackType::visibleResults, FeedbackType::cardEngagement};

const platform::Logger& sessionLog() { return OrvexLogForCategory(OrvexLoggingCategory::session); }

platform::EventLogger refused(std::string_view key) {
    return sessionLog().as(platform::LogEvent::settingRefused, {{"ORVEX_KEY", key}});
}

seconds softLimitFrom(const platform::UserDefaults& userDefaults) {
    const seconds standard = ClientSessionManager::Limits().softLimitTime;
    const auto value = userDefaults.integer(setting::sessionSoftLimit);
    if (value < 1) {
        refused(setting::sessionSoftLimit)
            .error("Soft limit override value must be greater than 0 : {} defaulting to {}", value, standard.count());
        return standard;
    }
    if (value >= guidLifetime.count()) {
        refused(setting::sessionSoftLimit)
            .error("Soft limit override value must be less than guid expiration {} : {} defaulting to {}",
                   guidLifetime.count(), value, standard.count());
        return standard;
    }
    return seconds(value);
}

seconds idleTimeFrom(const platform::UserDefaults& userDefaults) {
    const seconds standard = ClientSessionManager::Limits().idleTime;
    const auto value = userDefaults.integer(setting::sessionIdleTime);
    if (value >= 1) return seconds(value);
    refused(setting::sessionIdleTime)
        .error("Idle limit override value must be greater than 0 : {} defaulting to {}", value, standard.count());
    return standard;
}

}  // namespace

std::shared_ptr<ClientSessionManagerProtocol> makeClientSessionManager(Assembly& assembly,
                                                                       std::shared_ptr<GUIDController> guidController,
                                                                       std::string identifier) {
    return ClientSessionManager::create(assembly, std::move(guidController), std::move(identifier));
}

void reportErrorAsOrvexdFeedback(const ORXError& error, Assembly& assembly) {
    const auto& manager = assembly.clientSessionManager();
    if (manager) manager->addOrvexFeedback(daemonErrorRecord(assembly, errorFeedback(error)));
}

void ClientSessionManagerProtocol::addOrvexFeedback(std::unique_ptr<CXOrvexFeedback> record) {
    addOrvexFeedback(std::move(record), RecordReceipt());
}

ClientSessionManager::Limits ClientSessionManager::limitsFrom(const platform::UserDefaults& userDefaults) {
    Limits limits{.softLimitTime = softLimitFrom(userDefaults), .idleTime = idleTimeFrom(userDefaults)};
    limits.maxTime = guidLifetime - limits.softLimitTime;
    return limits;
}

std::shared_ptr<ClientSessionManager> ClientSessionManager::create(Assembly& assembly,
                                                                   std::shared_ptr<GUIDController> guidController,
                                                                   std::string identifier) {
    return std::shared_ptr<ClientSessionManager>(
        new ClientSessionManager(assembly, std::move(guidController), std::move(identifier)));
}

ClientSessionManager::ClientSessionManager(Assembly& assembly, std::shared_ptr<GUIDController> guidController,
                                           std::string identifier)
    : _assembly(assembly),
      _guidController(std::move(guidController)),
      _identifier(std::move(identifier)),
      _limits(limitsFrom(assembly.userDefaults())),
      _shared(assembly.sharedSession()),
      _sessionQueue(assembly.dispatcher(), "com.kelvar.orvexd.clientSessionManagerQueue") {
    if (_shared) {
        sessionLog().info("Orvex is using shared session for all clients {}", _identifier);
    } else {
        sessionLog().info("Orvex is using individual session for clients {}", _identifier);
    }
    sessionLog().debug("Idle Time {} Soft Limit Time {} Max Time {}", _limits.idleTime.count(),
                       _limits.softLimitTime.count(), _limits.maxTime.count());
}

ClientSessionManager::~ClientSessionManager() = default;

// The entrances

void ClientSessionManager::addOrvexFeedback(std::unique_ptr<CXOrvexFeedback> record, RecordReceipt receipt) {
    receipt.hold(_assembly.transactions().begin("addFeedback"));
    _sessionQueue.async(
        [self = shared_from_this(), record = std::move(record), receipt = std::move(receipt)]() mutable {
            self->_sessionQueue.assertCurrent();
            self->_accept(std::move(record), std::move(receipt));
        });
}

void ClientSessionManager::flushSession(std::move_only_function<void()> done) {
    _sessionQueue.async([self = shared_from_this(), done = std::move(done)]() mutable {
        self->_sessionQueue.assertCurrent();
        self->_updateState(SessionEvent::flushRequest, {.flushed = std::move(done)});
    });
}

void ClientSessionManager::flushSessionInvalidation(const std::string& agent, Flushed done) {
    if (!_shared) return flushSession([done = std::move(done)]() mutable { done(true); });
    addOrvexFeedback(daemonRecord(_assembly, CXConnectionInvalidatedFeedback(), {.userAgent = agent}));
    done(false);
}

std::shared_ptr<FeedbackSession> ClientSessionManager::session() const {
    return _sessionQueue.sync([this] {
        _sessionQueue.assertCurrent();
        return _session;
    });
}

std::vector<CXOrvexFeedback> ClientSessionManager::currentSessionRecords() {
    const auto open = session();
    if (!open) return {};
    auto records = open->getSessionFeedbacks();
    sortByTime(records);
    return records;
}

// A record

void ClientSessionManager::_accept(std::unique_ptr<CXOrvexFeedback> record, RecordReceipt receipt) {
    _showToListener(*record);
    if (!_isFeedbackEnabled(record->user_agent())) {
        _assembly.counters().add("com.kelvar.orvexd.feedbackdropped.disabled");
        return;
    }
    record->set_user_guid(_guidController->currentUserGUID());
    const auto event = _eventOf(*record);
    _updateState(event, {.record = std::move(record), .receipt = std::move(receipt)});
    _expirationTime = _sessionQueue.dispatcher().now() + std::min(_limits.idleTime, longestIdleTime);
}

SessionEvent ClientSessionManager::_eventOf(const CXOrvexFeedback& record) const {
    if (_session && _session->userGuid() != record.user_guid()) return SessionEvent::guidChanged;
    if (_currentState != SessionState::afterSoftLimit) return SessionEvent::ordinaryRecord;
    if (std::ranges::count(suggestSessionEnd, FeedbackType(feedbackType(record))) > 0)
        return SessionEvent::sessionEndingRecord;
    const bool idle = !_expirationTime || *_expirationTime <= _sessionQueue.dispatcher().now();
    return idle ? SessionEvent::recordAfterIdle : SessionEvent::ordinaryRecord;
}

void ClientSessionManager::_showToListener(const CXOrvexFeedback& record) const {
    const auto& listener = _assembly.flusherListener();
    if (!listener || !listener->hasReceivingStreamListener()) return;
    listener->sendDataToReceivingStreamListener(std::make_shared<const CXOrvexFeedback>(record));
}

bool ClientSessionManager::_isFeedbackEnabled(const std::string& userAgent) {
    if (_assembly.userDefaults().boolean(setting::feedbackDisabled)) return false;
    const auto& controller = _assembly.bagController();
    const auto bag = controller ? controller->currentBag() : nullptr;
    if (!bag) return true;
    if (bag->rawBag() != _rawBag || _feedbackEnabled.size() >= mostAgentsRemembered) {
        _rawBag = bag->rawBag();
        _feedbackEnabled.clear();
    }
    const auto found = _feedbackEnabled.find(userAgent);
    if (found != _feedbackEnabled.end()) return found->second;
    const bool enabled = ORXBag(_rawBag, userAgent).feedbackEnabled();
    _feedbackEnabled.emplace(userAgent, enabled);
    return enabled;
}

// The state

void ClientSessionManager::_updateState(SessionEvent event, Occasion occasion) {
    const SessionTransition transition = sessionTransition(event, _currentState);
    if (transition.addsRecord) {
        ++_openRecords;
        _session->addFeedback(std::move(occasion.record), std::move(occasion.receipt));
    }
    if (transition.flush) _flushSessionWithReason(*transition.flush);
    if (transition.resetsGUID) {
        _guidController->reset();
        if (occasion.record) occasion.record->set_user_guid(_guidController->currentUserGUID());
    }
    if (transition.startsSession) _setNewSession(std::move(occasion.record), std::move(occasion.receipt));
    _enter(transition.next);
    if (occasion.flushed) occasion.flushed();
}

void ClientSessionManager::_enter(SessionState state) {
    const auto before = _currentState.exchange(state);
    if (before == state) return;
    sessionLog().debug("session state {} after {} {}", static_cast<std::uint32_t>(state),
                       static_cast<std::uint32_t>(before), _identifier);
}

void ClientSessionManager::_setNewSession(std::unique_ptr<CXOrvexFeedback> first, RecordReceipt receipt) {
    ++_sessionCounter;
    _openRecords = first ? 1 : 0;
    if (_shared) {
        _session = std::make_shared<ClientSessionShared>(_assembly, std::move(first), std::move(receipt), _flushReason);
    } else {
        _session = std::make_shared<ClientSession>(_assembly, std::move(first), std::move(receipt), _flushReason);
    }
    sessionLog().debug("new session id {} {}", _sessionCounter, _identifier);
    _schedule(softLimitDelay, &ClientSessionManager::_softLimitTimerFired);
}

void ClientSessionManager::_flushSessionWithReason(SessionEndReason reason) {
    const auto session = std::exchange(_session, nullptr);
    _openRecords = 0;
    if (!session) return;
    _logFlush(reason);
    _flushReason = reason;
    CXSessionEndFeedback end;
    end.set_reason(static_cast<std::int32_t>(reason));
    session->enumerateSessionsUsingBlock([&](ClientSession& ended) {
        ended.addFeedback(daemonRecord(_assembly, end, {.userGuid = ended.userGuid(), .userAgent = ended.agent()}),
                          RecordReceipt());
        ended.sessionComplete();
    });
}

void ClientSessionManager::_logFlush(SessionEndReason reason) const {
    const auto& log = sessionLog();
    switch (reason) {
        case SessionEndReason::maxSessionTimePassed:
            return log.debug("session flushed because max timer expired {}", _identifier);
        case SessionEndReason::sessionIdle:
            return log.debug("session flushed because soft limit reached and idle time was beyond {} {}",
                             _limits.idleTime.count(), _identifier);
        case SessionEndReason::guidChanged:
            return log.debug("session flushed because guid changed {}", _identifier);
        case SessionEndReason::engagementReceived:
            return log.debug("session flushed because soft limit reached and sentinel feedback received");
        default:
            return;
    }
}

// The timers. One that was set for an earlier session is not taken back: it finds that its session is not the present
// one.

void ClientSessionManager::_schedule(seconds delay, void (ClientSessionManager::*fired)(std::uint64_t)) {
    _sessionQueue.after(delay, [weak = weak_from_this(), fired, session = _sessionCounter] {
        const auto self = weak.lock();
        if (!self) return;
        self->_sessionQueue.assertCurrent();
        ((*self).*fired)(session);
    });
}

void ClientSessionManager::_softLimitTimerFired(std::uint64_t session) {
    sessionLog().debug("soft limit reached expected {} current {} {}", session, _sessionCounter, _identifier);
    if (session == _sessionCounter) _onUserGuidSoftLimitReached();
}

void ClientSessionManager::_onUserGuidSoftLimitReached() {
    if (!_session) return;
    _updateState(SessionEvent::softLimit, {});
    sessionLog().debug("soft limit reached, maxtimer session id {} {}", _sessionCounter, _identifier);
    _sessionQueue.async([self = shared_from_this()] {
        self->_sessionQueue.assertCurrent();
        self->_assembly.notificationCenter().post(ORXSessionSoftLimitNotification{});
    });
    _schedule(_limits.maxTime, &ClientSessionManager::_maxTimerFired);
}

void ClientSessionManager::_maxTimerFired(std::uint64_t session) {
    sessionLog().debug("max timer expired expected {} current {}", session, _sessionCounter);
    if (session == _sessionCounter) {
        if (!_session) return;
        _updateState(SessionEvent::maximumTime, {});
    }
    _assembly.notificationCenter().post(ORXSessionMaxLimitNotification{});
}

}  // namespace orvex
