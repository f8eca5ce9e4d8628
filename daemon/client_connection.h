#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "core/orx_request.h"
#include "platform/bus.h"
#include "platform/dispatch.h"
#include "platform/transactions.h"

namespace orvex {

class Assembly;
class ClientState;
class ORXBag;
struct ORXBagChangeNotification;
struct ORXFileDeletedNotification;
struct ORXFileDownloadCompletedNotification;

/// One bus client that calls the daemon, from its first call until it has gone.
///
///     made ──Configure──▶ bound to a ClientState ──▶ serving ──the client leaves──▶ ended
///     made ──Configure that binds nothing──▶ refused: answered with an error, and forgotten
///
/// While the client is active the connection holds a transaction, so that the daemon does not leave. Sixty seconds
/// without a call end it, and empty the client's query cache; the next call begins another.
///
/// Threading: `receive` is called on the bus thread and returns at once. Calls run in order on the connection's own
/// queue, which alone waits (for a bag). Answers and signals go out from any thread. The destructor may run on any
/// thread, in the idle timer too, and joins nothing: the transaction's delayed end owns the token, not the object.
class ClientConnection : public std::enable_shared_from_this<ClientConnection> {
public:
    struct Client {
        platform::BusPeer peer;
        std::string clientID;  ///< the executable's file name; empty when it cannot be read
    };
    static constexpr std::chrono::seconds idleTime{60};
    static constexpr std::size_t maxIdentifierBytes = 256;
    static constexpr std::size_t maxUserAgentBytes = 1024;
    static constexpr int maxBagRegistrations = 16;

    /// `refused` is called once, on the connection's queue, when a configuration leaves it without a state.
    static std::shared_ptr<ClientConnection> create(Assembly& assembly, Client client, std::function<void()> refused);
    ~ClientConnection();

    void receive(platform::BusCall call);

    /// The client has gone: what it asked and is not yet on its way is dropped, counted.
    void invalidate();

    /// Ends the session that takes the client's records; `done` comes on its manager's queue, at once without one.
    void flushSession(std::move_only_function<void()> done);

    /// Ends the client's session as its arrangement wants it; `flushed` tells whether there was one to end. At once and
    /// false without a session manager.
    void flushSessionInvalidation(std::move_only_function<void(bool flushed)> done);

    [[nodiscard]] const Client& client() const { return _client; }
    [[nodiscard]] std::shared_ptr<ClientState> state() const;

private:
    /// One call, taken over from the bus.
    struct Call {
        platform::BusArguments arguments;
        std::size_t size;
        platform::MonotonicTime arrival;  ///< what waits count from
        platform::BusReply reply;
    };
    using Method = void (ClientConnection::*)(Call&);

    ClientConnection(Assembly& assembly, Client client, std::function<void()> refused);
    void _begin();
    [[nodiscard]] static Method _methodNamed(const std::string& member);

    // The methods of the bus interface.
    void _configure(Call& call) ORX_REQUIRES(_queue);
    void _bag(Call& call) ORX_REQUIRES(_queue);
    void _request(Call& call) ORX_REQUIRES(_queue);
    void _reportFeedbackPayloadData(Call& call) ORX_REQUIRES(_queue);
    void _feedback(Call& call) ORX_REQUIRES(_queue);
    void _listenToFlusher(Call& call) ORX_REQUIRES(_queue);
    void _listSessions(Call& call) ORX_REQUIRES(_queue);
    void _fileHandleAndAttributesForResource(Call& call) ORX_REQUIRES(_queue);
    void _clearEngagedCompletions(Call& call) ORX_REQUIRES(_queue);
    void _addCompletion(Call& call) ORX_REQUIRES(_queue);
    void _updateParameters(Call& call) ORX_REQUIRES(_queue);
    void _getImageMap(Call& call) ORX_REQUIRES(_queue);

    enum class Binding { bound, unbound, tooManyStates };
    Binding _ensureState() ORX_REQUIRES(_queue);
    [[nodiscard]] bool _isAcceptable(const ORXSessionConfiguration& configuration) const;
    void _refuseConfiguration(platform::BusReply& reply, Binding binding) ORX_REQUIRES(_queue);
    void _sendFirstBag(platform::MonotonicTime arrival) ORX_REQUIRES(_queue);
    [[nodiscard]] static ORXReplyCallback _answering(Call& call, std::optional<std::uint32_t> endTrace);
    void _ask(ORXSearchRequest request, Call& call);
    void _ask(const ORXMoreResultsRequest& request, Call& call);
    void _ask(const ORXCardRequest& request, Call& call);
    void _ask(const ORXZeroKeywordRequest& request, Call& call);
    void _ask(const ORXLookupRequest& request, Call& call);
    void _ask(const ORXFlightSearchRequest& request, Call& call);

    void _openOrExtendTransaction();
    void _idleTimerFired();
    enum class Ending { immediately, delayed };
    void _closeTransaction(Ending ending);

    void _bagChanged(const ORXBagChangeNotification& notification);
    void _fileDownloaded(const ORXFileDownloadCompletedNotification& notification);
    void _fileDeleted(const ORXFileDeletedNotification& notification);
    void _setEngagedCompletionCacheValues(const ORXBag& bag) const;
    void _signalLater(std::string name, std::string identifier);
    void _sendBagDidLoad(const std::shared_ptr<const ORXBag>& bag, const std::optional<ORXError>& error) const;

    // Constant after construction.
    Assembly& _assembly;
    const Client _client;
    const std::function<void()> _refused;

    // Synchronised by themselves.
    platform::SerialQueue _queue;
    platform::Timer _timer;
    std::atomic<platform::MonotonicTime> _lastCall;
    std::atomic<bool> _transactionOpen = false;
    std::atomic<bool> _invalidated = false;
    mutable platform::Mutex _mutex;
    std::shared_ptr<ClientState> _state ORX_GUARDED_BY(_mutex);  ///< bound once
    platform::Transaction _transaction ORX_GUARDED_BY(_mutex);

    // On the queue.
    std::optional<ORXSessionConfiguration> _configuration ORX_GUARDED_BY(_queue);
    std::string _userAgent ORX_GUARDED_BY(_queue);  ///< the full one; empty until a state is bound
    int _bagRegistrations ORX_GUARDED_BY(_queue) = 0;
};

}  // namespace orvex
