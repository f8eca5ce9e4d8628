#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "daemon/call_limit.h"
#include "platform/bus.h"
#include "platform/dispatch.h"

namespace orvex {

class Assembly;
class ClientConnection;
class Diagnostics;
class LaunchEvents;
class OrvexFlusherXPC;
struct DumpedConnection;

/// Takes every call that reaches the daemon's bus objects, refuses those of other users and those beyond a client's
/// limit, and brings the rest to whoever answers: a client's connection, the tool channel, the launch events, the
/// diagnostics.
///
/// A connection begins with the first call of a bus client to the client interface, and ends when that client leaves
/// the bus or its configuration is refused. Several connections of one process are reported, never refused. Threading:
/// `receive` on the bus thread. The list of connections is kept on the service's queue.
class OrvexService : public std::enable_shared_from_this<OrvexService> {
public:
    /// Completes the assembly with the managers that the service brings: the user GUID controller and the session
    /// manager.
    static std::shared_ptr<OrvexService> create(Assembly& assembly);
    ~OrvexService();

    /// Exports the daemon's objects; the name is taken afterwards, so that no first call is lost.
    [[nodiscard]] platform::Result<void> exportObjects();

    /// Gives the name back, answers what had reached it, then calls `gone` on the bus thread or on that of the last
    /// answer. Afterwards nobody waits for this process.
    void leave(std::move_only_function<void()> gone);

    /// A copy, taken on the queue; not to be called from it.
    [[nodiscard]] std::vector<std::shared_ptr<ClientConnection>> getClientConnections() const;

    [[nodiscard]] std::size_t callsInFlight() const { return _callLimit.inFlight(); }

    /// The client's process name: the file name of its executable; empty, with an error in the log, when it has none.
    static std::string clientIDForConnection(std::int32_t processIdentifier);

private:
    explicit OrvexService(Assembly& assembly);

    void _receive(platform::BusCall call);
    [[nodiscard]] std::shared_ptr<ClientConnection> _connectionOf(const platform::BusPeer& peer);
    [[nodiscard]] std::shared_ptr<ClientConnection> _accept(const platform::BusPeer& peer);
    void _list(const std::shared_ptr<ClientConnection>& connection) ORX_REQUIRES(_queue);
    void _forget(const std::string& uniqueName, const ClientConnection* connection);
    [[nodiscard]] std::size_t _connectedClients() const;
    [[nodiscard]] std::vector<DumpedConnection> _dumpedConnections() const;
    void _invalidated(const std::shared_ptr<ClientConnection>& connection);
    void _remove(const std::shared_ptr<ClientConnection>& connection) ORX_REQUIRES(_queue);

    // Constant after construction.
    Assembly& _assembly;
    std::unique_ptr<LaunchEvents> _launchEvents;
    std::unique_ptr<Diagnostics> _diagnostics;
    std::shared_ptr<OrvexFlusherXPC> _flusher;

    // Synchronised by themselves.
    mutable platform::SerialQueue _queue;
    CallLimit _callLimit;
    mutable platform::Mutex _mutex;
    std::map<std::string, std::shared_ptr<ClientConnection>> _clients ORX_GUARDED_BY(_mutex);  ///< by unique name

    // On the queue.
    std::vector<std::shared_ptr<ClientConnection>> _connections ORX_GUARDED_BY(_queue);  ///< in order of acceptance
};

}  // namespace orvex
