#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/bus_value.h"
#include "platform/result.h"

/// The message bus (D-Bus). Messages come on the bus thread, which never waits: a handler takes what it needs and goes
/// on elsewhere. Everything that sends is callable from any thread, and does not block on the peer.
namespace orvex::platform {

struct BusError {
    std::string name;
    std::string message;
};

namespace bus_error {
inline constexpr std::string_view accessDenied = "org.freedesktop.DBus.Error.AccessDenied";
inline constexpr std::string_view invalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
inline constexpr std::string_view limitsExceeded = "org.freedesktop.DBus.Error.LimitsExceeded";
inline constexpr std::string_view noReply = "com.kelvar.orvexd.Error.NoReply";
inline constexpr std::string_view unknownObject = "org.freedesktop.DBus.Error.UnknownObject";
inline constexpr std::string_view failed = "org.freedesktop.DBus.Error.Failed";
inline constexpr std::string_view disconnected = "org.freedesktop.DBus.Error.Disconnected";
}  // namespace bus_error

/// What a method, signal or interface looks like on the bus; introspection is made of it.
struct BusMember {
    std::string name;
    std::string inSignature;  ///< of a signal: its arguments
    std::vector<std::string> inNames;
    std::string outSignature;
    std::vector<std::string> outNames;
};
struct BusInterface {
    std::string name;
    std::vector<BusMember> methods;
    std::vector<BusMember> signals;
};

/// The answer to one call. Moves; whoever holds it last answers, from any thread. One that is destroyed unanswered
/// sends `bus_error::noReply`, so no caller ever waits for ever.
class BusReply {
public:
    /// Puts an answer on the bus; called at most once, from any thread.
    using Send = std::move_only_function<void(std::expected<BusArguments, BusError>)>;

    BusReply() = default;
    explicit BusReply(Send send) : _send(std::move(send)) {}
    BusReply(BusReply&& other) noexcept : _send(std::exchange(other._send, nullptr)) {}
    BusReply& operator=(BusReply&& other) noexcept;
    ~BusReply();

    /// `arguments` fit the declared signature; else an error is sent and logged. Nothing happens once answered.
    void answer(BusArguments arguments);
    void fail(std::string_view errorName, std::string_view message);
    [[nodiscard]] bool pending() const { return static_cast<bool>(_send); }

private:
    Send _send;
};

/// Who called.
struct BusPeer {
    std::string uniqueName;
    std::int32_t processIdentifier = 0;  ///< 0 when the bus does not tell
    std::optional<std::uint32_t> userIdentifier;
};

struct BusCall {
    BusPeer sender;
    std::string path;
    std::string interface;
    std::string member;
    BusArguments arguments;  ///< of the declared signature
    std::size_t size = 0;    ///< bytes of the arguments, roughly as on the wire
    BusReply reply;
};

/// Called on the bus thread, in the order of arrival.
using BusCallHandler = std::move_only_function<void(BusCall call)>;
using BusCallCompletion = std::move_only_function<void(std::expected<BusArguments, BusError>)>;
/// On the bus thread.
using BusSignalHandler = std::move_only_function<void(const std::string& sender, const BusArguments& arguments)>;

class Bus {
public:
    virtual ~Bus() = default;

    /// Exports an object. Calls that do not fit the declared signature are answered by the bus itself (InvalidArgs), so
    /// are introspection and unknown members. Before `requestName`, so that no first call is lost.
    [[nodiscard]] virtual Result<void> exportObject(std::string path, std::vector<BusInterface> interfaces,
                                                    BusCallHandler handler) = 0;
    virtual void removeObject(std::string path) = 0;

    /// Without replacement and without waiting in line. Code EEXIST when another has it.
    [[nodiscard]] virtual Result<void> requestName(std::string name) = 0;
    /// When it returns, no further call is sent our way by that name; those that were are still handed out.
    virtual void releaseName(std::string name) = 0;

    /// To one peer only.
    virtual void sendSignal(std::string destination, std::string path, std::string interface, std::string member,
                            BusArguments arguments) = 0;
    /// To whoever listens; only for the system-wide names.
    virtual void broadcastSignal(std::string path, std::string interface, std::string member,
                                 BusArguments arguments) = 0;

    /// `completion` comes once, on the bus thread; -1001-like time-outs are the error
    /// `org.freedesktop.DBus.Error.NoReply`. `signature` is that of `arguments`.
    virtual void call(std::string destination, std::string path, std::string interface, std::string member,
                      std::string signature, BusArguments arguments, std::chrono::nanoseconds timeout,
                      BusCallCompletion completion) = 0;

    /// Calls `handler` on the bus thread for every such signal until the bus is closed. An empty `sender` means any.
    virtual void subscribe(std::string sender, std::string path, std::string interface, std::string member,
                           BusSignalHandler handler) = 0;

    /// Calls `vanished` once, on the bus thread, when the peer of that unique name is gone; at once when it is already.
    virtual void watchPeer(std::string uniqueName, std::move_only_function<void()> vanished) = 0;

    /// Called once, on the bus thread, when the bus itself has gone away.
    virtual void setDisconnectHandler(std::move_only_function<void()> handler) = 0;

    /// Sends what is queued; returns when it has left, or after `limit`.
    virtual void flush(std::chrono::nanoseconds limit) = 0;
};

}  // namespace orvex::platform
