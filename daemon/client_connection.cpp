#include "daemon/client_connection.h"

#include "core/constants.h"
#include "core/notifications.h"
#include "core/orx_bag.h"
#include "daemon/assembly.h"
#include "daemon/bus_dictionaries.h"
#include "daemon/client_state_manager.h"
#include "daemon/orvex_logging.h"
#include "feedback/client_session_manager_protocol.h"
#include "network/orx_network_request_factory.h"
#include "platform/counters.h"
#include "platform/notification_center.h"
#include "platform/text.h"
#include "query/client_state.h"
#include "query/engaged_completion_cache.h"

// The life of a connection: its transaction, the binding of its state, and what it tells its client unasked. The
// methods that a client calls are in client_methods.cpp.

namespace orvex {
namespace {

const platform::Logger& connectionLog() { return OrvexLogForCategory(OrvexLoggingCategory::connection); }
const platform::Logger& sessionLog() { return OrvexLogForCategory(OrvexLoggingCategory::session); }
const platform::Logger& bagLog() { return OrvexLogForCategory(OrvexLoggingCategory::bag); }

std::string bagText(const std::shared_ptr<const ORXBag>& bag) { return bag ? bag->text() : std::string(); }

}  // namespace

std::shared_ptr<ClientConnection> ClientConnection::create(Assembly& assembly, Client client,
                                                           std::function<void()> refused) {
    std::shared_ptr<ClientConnection> connection(new ClientConnection(assembly, std::move(client), std::move(refused)));
    connection->_begin();
    return connection;
}

ClientConnection::ClientConnection(Assembly& assembly, Client client, std::function<void()> refused)
    : _assembly(assembly),
      _client(std::move(client)),
      _refused(std::move(refused)),
      _queue(assembly.dispatcher(), "com.kelvar.orvexd.connection"),
      _timer(assembly.dispatcher(), platform::Priority::background),
      _lastCall(assembly.dispatcher().now()) {}

void ClientConnection::_begin() {
    auto& center = _assembly.notificationCenter();
    center.observe<ORXFileDownloadCompletedNotification>(shared_from_this(), &ClientConnection::_fileDownloaded);
    center.observe<ORXFileDeletedNotification>(shared_from_this(), &ClientConnection::_fileDeleted);
    _openOrExtendTransaction();
}

ClientConnection::~ClientConnection() {
    _assembly.notificationCenter().removeObserver(this);
    _timer.cancel();
    _closeTransaction(Ending::delayed);
}

std::shared_ptr<ClientState> ClientConnection::state() const {
    const platform::MutexLock lock(_mutex);
    return _state;
}

void ClientConnection::receive(platform::BusCall call) {
    const Method method = _methodNamed(call.member);
    if (method == nullptr) return;  // the bus knows no other member; the reply's end answers
    _openOrExtendTransaction();
    _queue.async([self = shared_from_this(), method,
                  call = Call{std::move(call.arguments), call.size, _assembly.dispatcher().now(),
                              std::move(call.reply)}]() mutable {
        self->_queue.assertCurrent();
        if (self->_invalidated) {
            self->_assembly.counters().add("com.kelvar.orvexd.calls.dropped.clientgone");
            return;
        }
        ((*self).*method)(call);
    });
}

void ClientConnection::invalidate() {
    _invalidated = true;
    _assembly.notificationCenter().removeObserver(this);
}

void ClientConnection::flushSession(std::move_only_function<void()> done) {
    const auto bound = state();
    const auto manager = bound ? bound->sessionManager() : nullptr;
    if (!manager) return done();
    manager->flushSession(std::move(done));
}

void ClientConnection::flushSessionInvalidation(std::move_only_function<void(bool)> done) {
    const auto bound = state();
    const auto manager = bound ? bound->sessionManager() : nullptr;
    if (!manager) return done(false);
    manager->flushSessionInvalidation(bound->userAgent().value_or(""), std::move(done));
}

// The transaction. A call only notes its time; the timer, when it fires, looks whether sixty seconds have really passed
// without one, and else waits for the rest. So a busy client costs no timer work.

void ClientConnection::_openOrExtendTransaction() {
    _lastCall = _assembly.dispatcher().now();
    if (_transactionOpen.exchange(true)) return;
    auto transaction = _assembly.transactions().begin("client connection");
    {
        const platform::MutexLock lock(_mutex);
        if (_transactionOpen) std::swap(_transaction, transaction);  // else it was closed meanwhile
    }
    _timer.armAfter(
        idleTime,
        [weak = weak_from_this()] {
            if (const auto self = weak.lock()) self->_idleTimerFired();
        },
        idleTime);
}

void ClientConnection::_idleTimerFired() {
    const auto due = _lastCall.load() + idleTime;
    if (due > _assembly.dispatcher().now()) {
        _timer.armAt(
            due,
            [weak = weak_from_this()] {
                if (const auto self = weak.lock()) self->_idleTimerFired();
            },
            idleTime);
        return;
    }
    connectionLog().debug("timing out idle xpc transaction");
    _closeTransaction(Ending::immediately);
    // A call that came while this was under way took the transaction for open.
    if (_lastCall.load() + idleTime > _assembly.dispatcher().now()) _openOrExtendTransaction();
}

void ClientConnection::_closeTransaction(Ending ending) {
    if (!_transactionOpen.exchange(false)) return;
    if (const auto bound = state()) bound->emptyQueryCache();
    platform::Transaction transaction;
    {
        const platform::MutexLock lock(_mutex);
        transaction = std::move(_transaction);
    }
    if (ending == Ending::delayed) {
        platform::MainQueue(_assembly.dispatcher()).after(idleTime, [transaction = std::move(transaction)] {});
    }
}

// The state.

ClientConnection::Binding ClientConnection::_ensureState() {
    if (!_configuration) {
        sessionLog().fault("configuration must not be nil");
        return Binding::unbound;
    }
    if (_configuration->identifier.empty()) {
        sessionLog().fault("configuration requires identifier");
        return Binding::unbound;
    }
    if (const auto bound = state()) {
        if (bound->identifier() != _configuration->identifier) sessionLog().fault("session identifier must match");
        return Binding::bound;
    }
    const auto& manager = _assembly.clientStateManager();
    if (!manager) return Binding::unbound;
    auto found = manager->stateForClientIdentifier(_configuration->identifier);
    if (!found) {
        const bool tooMany = found.error() == ClientStateManager::Refusal::tooManyStates;
        return tooMany ? Binding::tooManyStates : Binding::unbound;
    }
    std::string userAgent;
    if (!_configuration->userAgent.empty()) {
        userAgent = ORXNetworkRequestFactory::createUserAgentString(_assembly.device(), _configuration->userAgent);
    }
    if (_configuration->identifier == "orvex_tool") (*found)->updateClient(userAgent);
    if (auto known = (*found)->configuration()) {
        _configuration = std::move(known);
    } else {
        (*found)->setConfiguration(*_configuration);
    }
    if (userAgent.empty()) {
        sessionLog().fault("configuration requires userAgent");
        return Binding::unbound;
    }
    _userAgent = std::move(userAgent);
    const platform::MutexLock lock(_mutex);
    _state = *std::move(found);
    return Binding::bound;
}

// What the client is told unasked.

void ClientConnection::_bagChanged(const ORXBagChangeNotification& notification) {
    bagLog().info("bag change notification: {}",
                  notification.bag ? platform::orNull(notification.bag->version()) : "(null)");
    if (!notification.bag) return;
    // Later: this comes from inside the bag's barrier.
    const platform::GlobalQueue background(_assembly.dispatcher(), platform::Priority::background);
    background.async([weak = weak_from_this(), bag = notification.bag] {
        const auto self = weak.lock();
        if (!self || self->_invalidated) return;
        self->_sendBagDidLoad(bag, std::nullopt);
        self->_setEngagedCompletionCacheValues(*bag);
    });
}

void ClientConnection::_setEngagedCompletionCacheValues(const ORXBag& bag) const {
    if (!bag.smartHistoryEnabled()) return;
    EngagedCompletionCache::sharedInstance(_assembly)->updateParameters({
        .broviaLast1hour = bag.broviaLast1hour(),
        .broviaLast1day = bag.broviaLast1day(),
        .broviaLast1week = bag.broviaLast1week(),
        .broviaLast1month = bag.broviaLast1month(),
        .broviaAll = bag.broviaAll(),
        .broviaMostRecent = bag.broviaMostRecent(),
        .minThresholdToSend = bag.minThresholdToSend(),
    });
}

void ClientConnection::_fileDownloaded(const ORXFileDownloadCompletedNotification& notification) {
    _signalLater("DidDownloadResource", notification.identifier);
}

void ClientConnection::_fileDeleted(const ORXFileDeletedNotification& notification) {
    _signalLater("DidDeleteResource", notification.identifier);
}

void ClientConnection::_signalLater(std::string name, std::string identifier) {
    if (identifier.empty()) return;
    const platform::GlobalQueue background(_assembly.dispatcher(), platform::Priority::background);
    background.async([weak = weak_from_this(), name = std::move(name), identifier = std::move(identifier)] {
        const auto self = weak.lock();
        if (!self || self->_invalidated) return;
        self->_assembly.bus().sendSignal(self->_client.peer.uniqueName, std::string(kORXObjectPath),
                                         std::string(kORXDaemonInterface), name, {identifier});
    });
}

void ClientConnection::_sendBagDidLoad(const std::shared_ptr<const ORXBag>& bag,
                                       const std::optional<ORXError>& error) const {
    _assembly.bus().sendSignal(_client.peer.uniqueName, std::string(kORXObjectPath), std::string(kORXDaemonInterface),
                               "BagDidLoad", {bagText(bag), busError(error)});
}

}  // namespace orvex
