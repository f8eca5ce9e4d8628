#include "daemon/orvex_service.h"

#include <algorithm>
#include <filesystem>

#include "core/client_name.h"
#include "core/constants.h"
#include "daemon/assembly.h"
#include "daemon/bus_interfaces.h"
#include "daemon/client_connection.h"
#include "daemon/diagnostics.h"
#include "daemon/launch_events.h"
#include "daemon/orvex_logging.h"
#include "feedback/client_session_manager_protocol.h"
#include "feedback/guid_controller.h"
#include "feedback/orvex_flusher_xpc.h"
#include "platform/bus_name.h"
#include "platform/counters.h"
#include "platform/http_session.h"
#include "platform/process_identity.h"
#include "query/client_state.h"

namespace orvex {
namespace {

const platform::Logger& connectionLog() { return OrvexLogForCategory(OrvexLoggingCategory::connection); }

}  // namespace

std::shared_ptr<OrvexService> OrvexService::create(Assembly& assembly) {
    std::shared_ptr<OrvexService> service(new OrvexService(assembly));
    service->_flusher = OrvexFlusherXPC::create(assembly, [weak = std::weak_ptr(service)] {
        const auto self = weak.lock();
        return self ? self->_dumpedConnections() : std::vector<DumpedConnection>();
    });
    assembly.setFlusherListener(service->_flusher);
    return service;
}

OrvexService::OrvexService(Assembly& assembly)
    : _assembly(assembly),
      _queue(assembly.dispatcher(), "com.kelvar.orvex.serviceQueue") {
    assembly.setGuidController(makeUserGUIDController(assembly));
    assembly.setClientSessionManager(makeClientSessionManager(assembly, assembly.guidController(), "orvex"));
    _launchEvents = std::make_unique<LaunchEvents>(assembly);
    _diagnostics =
        std::make_unique<Diagnostics>(assembly, Status::Traffic{.connections = [this] { return _connectedClients(); },
                                                                .callsInFlight = [this] { return callsInFlight(); }});
}

OrvexService::~OrvexService() {
    _diagnostics.reset();  // what it still has to answer asks for the connections
    _launchEvents.reset();
    _queue.close();
}

platform::Result<void> OrvexService::exportObjects() {
    const auto calls = [weak = weak_from_this()](platform::BusCall call) {
        if (const auto self = weak.lock()) self->_receive(std::move(call));
    };
    if (auto exported = _flusher->exportObject(calls); !exported) return exported;
    return _assembly.bus().exportObject(std::string(kORXObjectPath), orvexdInterfaces(), calls);
}

void OrvexService::leave(std::move_only_function<void()> gone) {
    platform::giveBackName(_assembly.bus(), std::string(kORXBusName),
                           [self = shared_from_this(), gone = std::move(gone)]() mutable {
                               self->_callLimit.whenNoneInFlight(std::move(gone));
                           });
}

std::vector<std::shared_ptr<ClientConnection>> OrvexService::getClientConnections() const {
    return _queue.sync([this] {
        _queue.assertCurrent();
        return _connections;
    });
}

std::size_t OrvexService::_connectedClients() const {
    const platform::MutexLock lock(_mutex);
    return _clients.size();
}

std::vector<DumpedConnection> OrvexService::_dumpedConnections() const {
    std::vector<DumpedConnection> dumped;
    for (const auto& connection : getClientConnections()) {
        const auto state = connection->state();
        dumped.push_back({.userAgent = state ? state->userAgent().value_or("") : std::string(),
                          .flushSession = [connection](std::move_only_function<void()> done) {
                              connection->flushSession(std::move(done));
                          }});
    }
    return dumped;
}

std::string OrvexService::clientIDForConnection(std::int32_t processIdentifier) {
    const auto path = platform::executablePath(processIdentifier);
    if (path) return std::filesystem::path(*path).filename();
    connectionLog().error("error getting path for pid [{}] {}", processIdentifier, path.error().text);
    return {};
}

void OrvexService::_receive(platform::BusCall call) {
    if (call.sender.userIdentifier != platform::ownUserIdentifier()) {
        _assembly.counters().add("com.kelvar.orvexd.calls.denied");
        call.reply.fail(platform::bus_error::accessDenied, "only programs of the daemon's own user are served");
        return;
    }
    auto counted = _callLimit.admit(call.sender.uniqueName, call.reply);
    if (!counted) {
        _assembly.counters().add("com.kelvar.orvexd.calls.overlimit");
        call.reply.fail(platform::bus_error::limitsExceeded, "too many calls in flight");
        return;
    }
    call.reply = *std::move(counted);
    if (call.interface == kORXDaemonInterface) {
        _connectionOf(call.sender)->receive(std::move(call));
    } else if (call.interface == kORXFlusherInterface) {
        _flusher->receive(std::move(call));
    } else if (call.interface == kORXLaunchEventsInterface) {
        _launchEvents->receive(std::move(call));
    } else if (call.interface == kORXDiagnosticsInterface) {
        _diagnostics->receive(std::move(call));
    }
}

std::shared_ptr<ClientConnection> OrvexService::_connectionOf(const platform::BusPeer& peer) {
    {
        const platform::MutexLock lock(_mutex);
        if (const auto found = _clients.find(peer.uniqueName); found != _clients.end()) return found->second;
    }
    return _accept(peer);
}

std::shared_ptr<ClientConnection> OrvexService::_accept(const platform::BusPeer& peer) {
    const std::string clientID = clientIDForConnection(peer.processIdentifier);
    connectionLog().log("new connection from {} ({})", clientID, peer.processIdentifier);
    auto identity = std::make_shared<std::weak_ptr<ClientConnection>>();
    auto connection = ClientConnection::create(_assembly, {peer, clientID},
                                               [weak = weak_from_this(), identity, name = peer.uniqueName] {
                                                   const auto self = weak.lock();
                                                   const auto refused = identity->lock();
                                                   if (self && refused) self->_forget(name, refused.get());
                                               });
    *identity = connection;
    {
        const platform::MutexLock lock(_mutex);
        _clients.insert_or_assign(peer.uniqueName, connection);
    }
    _queue.async([this, connection] {
        _queue.assertCurrent();
        _list(connection);
    });
    _assembly.bus().watchPeer(peer.uniqueName,
                              [weak = weak_from_this(), name = peer.uniqueName, raw = connection.get()] {
                                  if (const auto self = weak.lock()) self->_forget(name, raw);
                              });
    _assembly.counters().add("com.kelvar.orvexd.clientconnection");
    return connection;
}

void OrvexService::_list(const std::shared_ptr<ClientConnection>& connection) {
    _connections.push_back(connection);
    const std::int32_t pid = connection->client().peer.processIdentifier;
    const auto ofProcess = std::ranges::count_if(
        _connections, [pid](const auto& other) { return other->client().peer.processIdentifier == pid; });
    if (ofProcess >= 2) connectionLog().error("too many connections {} from pid {}", ofProcess, pid);
}

// A client name is forgotten once for each connection: the bus may tell of the leaving of a client whose connection was
// refused before, and which has another one by now.
void OrvexService::_forget(const std::string& uniqueName, const ClientConnection* connection) {
    std::shared_ptr<ClientConnection> forgotten;
    {
        const platform::MutexLock lock(_mutex);
        const auto found = _clients.find(uniqueName);
        if (found == _clients.end() || found->second.get() != connection) return;
        forgotten = std::move(found->second);
        _clients.erase(found);
    }
    _invalidated(forgotten);
}

void OrvexService::_invalidated(const std::shared_ptr<ClientConnection>& connection) {
    const auto& client = connection->client();
    connectionLog().log("connection from {} ({}) invalidated", client.clientID, client.peer.processIdentifier);
    connection->invalidate();
    _queue.async([this, connection] {
        _queue.assertCurrent();
        connection->flushSessionInvalidation([this, connection](bool flushed) {
            OrvexLogForCategory(OrvexLoggingCategory::session)
                .log("session {} on invalidation", flushed ? "flushed" : "not flushed");
            // A hop of its own: the answer may come on this queue or on another.
            _queue.async([this, connection] {
                _queue.assertCurrent();
                _remove(connection);
            });
        });
    });
    const auto state = connection->state();
    if (const auto name = state ? state->clientShortName() : std::nullopt) {
        _assembly.counters().add(createAggdKey(*name, "xcpinvalidation"));
    }
}

void OrvexService::_remove(const std::shared_ptr<ClientConnection>& connection) {
    std::erase(_connections, connection);
    if (!_connections.empty()) return;
    platform::URLSession* session = _assembly.urlSessionIfMade();
    if (session != nullptr && session->purgeMemoryCache()) {
        OrvexLogForCategory(OrvexLoggingCategory::caching).log("purging url cache");
    }
}

}  // namespace orvex
