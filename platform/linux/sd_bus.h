#pragma once

#include <cstdint>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/bus.h"
#include "platform/linux/event_thread.h"
#include "platform/linux/sd_bus_handles.h"
#include "platform/linux/sd_bus_object.h"
#include "platform/linux/sd_bus_peers.h"

namespace orvex::platform {

/// The bus through sd-bus, with a thread of its own: the only one that touches sd-bus objects. What other threads send
/// is left in that thread's mailbox and leaves in the order of posting; what the bus thread sends leaves at once, after
/// what was posted before.
///
///     create ──▶ connected ──the bus goes away──▶ disconnected: what is sent is dropped, calls end with an error
///
/// A call travels: sd-bus checks its signature ▸ it waits until the driver has told who the sender is (once a sender,
/// in order) ▸ its arguments are read ▸ handler ▸ `BusReply`, under a number by which the thread finds the message.
/// When the sender goes, its calls are forgotten, and a late reply with them.
///
/// The destructor ends the thread. It drops what has not left (see `flush`) and every handler and completion unrun; a
/// reply that comes later does nothing.
class SdBus final : public Bus {
public:
    enum class Kind { user, system };
    struct Options {
        std::string address;     ///< as in DBUS_SESSION_BUS_ADDRESS; empty: the one that `kind` names
        Kind kind = Kind::user;  ///< user: DBUS_SESSION_BUS_ADDRESS, else the bus in XDG_RUNTIME_DIR
        /// Whether to wait until the bus has taken us in. Otherwise what is sent meanwhile leaves when it has, and a
        /// bus that never does is one that has gone away.
        bool waitsForWelcome = true;
    };

    /// Fails when there is nothing to connect to, or the bus that is waited for does not take us in.
    [[nodiscard]] static Result<std::unique_ptr<SdBus>> create(const Options& options);
    ~SdBus() override;
    SdBus(const SdBus&) = delete;
    SdBus& operator=(const SdBus&) = delete;

    /// Empty when the welcome was not waited for.
    [[nodiscard]] const std::string& uniqueName() const { return _uniqueName; }

    Result<void> exportObject(std::string path, std::vector<BusInterface> interfaces, BusCallHandler handler) override;
    void removeObject(std::string path) override;
    Result<void> requestName(std::string name) override;
    void releaseName(std::string name) override;
    void sendSignal(std::string destination, std::string path, std::string interface, std::string member,
                    BusArguments arguments) override;
    void broadcastSignal(std::string path, std::string interface, std::string member, BusArguments arguments) override;
    void call(std::string destination, std::string path, std::string interface, std::string member,
              std::string signature, BusArguments arguments, std::chrono::nanoseconds timeout,
              BusCallCompletion completion) override;
    void subscribe(std::string sender, std::string path, std::string interface, std::string member,
                   BusSignalHandler handler) override;
    void watchPeer(std::string uniqueName, std::move_only_function<void()> vanished) override;
    void setDisconnectHandler(std::move_only_function<void()> handler) override;
    /// On the bus thread it returns at once.
    void flush(std::chrono::nanoseconds limit) override;

private:
    using Answer = std::expected<BusArguments, BusError>;
    struct PendingCall {
        SdHandle<sd_bus_message> message;
        std::string sender;
        std::shared_ptr<SdBusObject> object;  ///< keeps `method`
        const SdBusObject::Method* method;
    };
    struct OutgoingCall;
    struct Subscription;

    SdBus(Kind kind, std::unique_ptr<EventThread> thread, SdHandle<sd_bus> bus, std::string uniqueName);
    Result<void> _watchConnection() ORX_REQUIRES(_thread);

    void _called(sd_bus_message* message, const SdBusObject::Method& method) ORX_REQUIRES(_thread);
    void _deliver(sd_bus_message* message, const SdBusObject::Method& method, const BusPeer& sender)
        ORX_REQUIRES(_thread);
    void _answer(std::uint64_t number, const Answer& answer) ORX_REQUIRES(_thread);
    Result<void> _sendAnswer(const PendingCall& call, const BusArguments& arguments) ORX_REQUIRES(_thread);
    static void _sendError(sd_bus_message* call, const BusError& error);
    Result<void> _startCall(OutgoingCall& call, const std::string& destination, const std::string& path,
                            const std::string& interface, const std::string& member, std::string_view signature,
                            const BusArguments& arguments) ORX_REQUIRES(_thread);
    void _endCall(std::uint64_t number, Answer answer) ORX_REQUIRES(_thread);
    void _emit(const char* destination, const std::string& path, const std::string& interface,
               const std::string& member, const BusArguments& arguments) ORX_REQUIRES(_thread);
    void _disconnected() ORX_REQUIRES(_thread);
    void _endFlushes() ORX_REQUIRES(_thread);

    // Constant after construction.
    const Kind _kind;
    const std::unique_ptr<EventThread> _ownThread;
    const std::string _uniqueName;

    // Synchronised by itself.
    EventThread& _thread;

    // On the thread. The bus comes first, since all that hangs on it must go before it.
    const SdHandle<sd_bus> _bus ORX_PT_GUARDED_BY(_thread);
    SdHandle<sd_bus_slot> _disconnection ORX_GUARDED_BY(_thread);
    SdHandle<sd_event_source> _afterEach ORX_GUARDED_BY(_thread);  ///< on while someone waits in `flush`
    SdBusPeers _peers ORX_GUARDED_BY(_thread);
    std::map<std::string, std::shared_ptr<SdBusObject>> _objects ORX_GUARDED_BY(_thread);
    std::unordered_map<std::uint64_t, PendingCall> _pendingCalls ORX_GUARDED_BY(_thread);
    std::unordered_map<std::uint64_t, std::unique_ptr<OutgoingCall>> _outgoingCalls ORX_GUARDED_BY(_thread);
    std::vector<std::unique_ptr<Subscription>> _subscriptions ORX_GUARDED_BY(_thread);
    std::uint64_t _lastNumber ORX_GUARDED_BY(_thread) = 0;
    std::vector<std::shared_ptr<std::promise<void>>> _flushes ORX_GUARDED_BY(_thread);
    std::move_only_function<void()> _onDisconnect ORX_GUARDED_BY(_thread);
    bool _gone ORX_GUARDED_BY(_thread) = false;
};

}  // namespace orvex::platform
