#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/constants.h"
#include "feedback/flusher_listener.h"
#include "platform/bus.h"
#include "platform/dispatch.h"

namespace orvex {

class Assembly;

/// What a tool asks for with `InitiateConnectionWithIntent`; any other number is logged.
enum class FlusherIntent : std::uint64_t {
    listenToUploads = 0,
    listenToFeedback = 1,
    stopFlushing = 2,  ///< by the clock; survives a restart
    dump = 3,          ///< ends the open sessions, uploads all that waits, and lets the clock flush again
};

/// What a dump asks of a client's connection.
struct DumpedConnection {
    std::string userAgent;
    std::function<void(std::move_only_function<void()> done)> flushSession;  ///< `done` is called in any case
};

/// The tool channel: shows feedback and uploads to the tools that listen, and takes their orders.
///
/// A tool is a bus client, named by its unique name; it is forgotten when it leaves the bus. The last one that asked to
/// listen is the one that hears. Everything that a tool hears are signals to it alone. Threading: `create` and
/// `exportObject` at start; `receive` on the bus thread; all state is on the channel's queue.
class OrvexFlusherXPC final : public FlusherListener, public std::enable_shared_from_this<OrvexFlusherXPC> {
public:
    /// None in place of the function: there is no way to ask for connections.
    using ClientConnections = std::function<std::vector<DumpedConnection>()>;

    static std::shared_ptr<OrvexFlusherXPC> create(Assembly& assembly, ClientConnections getClientConnections);
    ~OrvexFlusherXPC() override;

    /// `calls` gets what is called on the channel's object, and hands on to `receive` what it lets pass.
    [[nodiscard]] platform::Result<void> exportObject(platform::BusCallHandler calls);
    void receive(platform::BusCall call);
    [[nodiscard]] static std::string endpoint() { return std::string(kORXFlusherPath); }

    [[nodiscard]] bool hasReceivingStreamListener() const override { return _receivingListens; }
    [[nodiscard]] bool hasSendingStreamListener() const override { return _sendingListens; }
    void sendDataToReceivingStreamListener(std::shared_ptr<const CXOrvexFeedback> record) override;
    void sendDataToSendingStreamListener(std::string bytes) override;

private:
    OrvexFlusherXPC(Assembly& assembly, ClientConnections getClientConnections);
    void _initiateConnectionWithIntent(const std::string& remote, std::uint64_t intent) ORX_REQUIRES(_queue);
    void _setSendingStreamListener(const std::string& remote) ORX_REQUIRES(_queue);
    void _setReceivingStreamListener(const std::string& remote) ORX_REQUIRES(_queue);
    void _stopFlushing(const std::string& remote) ORX_REQUIRES(_queue);
    void _dump(const std::string& remote) ORX_REQUIRES(_queue);
    void _flushNothing(const std::string& remote) ORX_REQUIRES(_queue);
    void _flush(DumpedConnection connection, std::shared_ptr<void> dump);
    void _removeDelegate(const std::string& remote) ORX_REQUIRES(_queue);
    void _letFlush() const;
    void _workDone(const std::string& remote) const ORX_REQUIRES(_queue);
    void _signal(const std::string& remote, std::string name, platform::BusArguments arguments) const;

    // Constant after construction.
    Assembly& _assembly;
    const ClientConnections _getClientConnections;

    // Synchronised by themselves.
    platform::SerialQueue _queue;
    std::atomic<bool> _receivingListens = false;
    std::atomic<bool> _sendingListens = false;

    // On the queue. Unique names; empty: none.
    std::vector<std::string> _remotes ORX_GUARDED_BY(_queue);  ///< those that are watched
    std::string _sendingStreamListener ORX_GUARDED_BY(_queue);
    std::string _receivingStreamListener ORX_GUARDED_BY(_queue);
};

}  // namespace orvex
