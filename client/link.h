#pragma once

#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "client/message.h"
#include "client/orvex/client.h"

namespace orvex::client {

/// What is behind a `Client`: its bus, the calls that are under way, and whom it is known to. The states are the
/// client's.
class Client::Link {
public:
    /// What came, or why nothing did.
    using Answered = std::move_only_function<void(std::expected<sd_bus_message*, Error>)>;
    using SignalHandler = std::function<void(sd_bus_message* signal)>;

    [[nodiscard]] static std::expected<std::unique_ptr<Link>, Error> connect(Options options);
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    [[nodiscard]] sd_bus* bus() const { return _bus.get(); }
    [[nodiscard]] std::optional<std::chrono::microseconds> timeout() const;
    std::expected<void, Error> process();
    std::expected<void, Error> wait();

    /// Sent once the daemon knows us. A call without a message is answered then, with a null message.
    void callAsClient(OutgoingMessage message, Answered answered);
    void configure(Answered answered);
    /// Sent at once.
    void call(OutgoingMessage message, Answered answered);

    std::expected<void, Error> onSignal(const Method& signal, SignalHandler handler);
    void onDaemon(std::function<void(Daemon)> handler) { _daemonHandler = std::move(handler); }

private:
    enum class State : std::uint8_t { resting, configuring, configured };
    struct Call {
        Link* link;
        MessageHandle message;
        Answered answered;
        bool asClient = false;
        unsigned attempts = 0;
        std::string owner{};  ///< who it was meant for
        SlotHandle slot{};
    };
    using OwnedCall = std::unique_ptr<Call>;
    struct Subscription {
        Link* link;
        SignalHandler handler;
        SlotHandle slot{};
    };

    Link(Options options, BusHandle bus) : _options(std::move(options)), _bus(std::move(bus)) {}
    int _watchOwner();
    template <class Run>
    int _keepThrown(Run run);
    void _add(OwnedCall call);
    void _send(OwnedCall call);
    void _answer(Call& call, sd_bus_message* message);
    void _repeat(OwnedCall call);
    [[nodiscard]] bool _reachedAStranger(const Call& call, sd_bus_message* message) const;
    void _configure();
    void _configured(std::expected<sd_bus_message*, Error> answer);
    void _release(const std::optional<Error>& error);
    void _ownerChanged(sd_bus_message* signal);
    void _fail(Answered answered, Error error);
    void _runFailed();
    void _bringDown();
    [[nodiscard]] Error _errorOf(sd_bus_message* message) const;
    static Error _errorOf(int code, const std::string& what);

    const Options _options;

    // The bus comes first, since all that hangs on it must go before it.
    BusHandle _bus;
    SlotHandle _ownerSlot;

    std::exception_ptr _thrown;  ///< by a callback inside sd-bus; `process` throws it on
    bool _isGone = false;        ///< the bus, and `process` has said so
    State _state = State::resting;
    bool _isKnown = false;            ///< a call was made as a client
    std::string _owner;               ///< the daemon that was told of us last
    std::string _seenOwner;           ///< of the name, by the bus; empty: nobody, or nothing was heard yet
    bool _ownerMoved = false;         ///< since the configuration was sent
    unsigned _configurations = 0;     ///< sent one after the other without an end
    std::vector<OwnedCall> _waiting;  ///< for the configuration
    std::unordered_map<Call*, OwnedCall> _underWay;
    std::deque<std::pair<Answered, Error>> _failed;  ///< to be told by `process`

    std::map<std::tuple<std::string, std::string, std::string>, std::unique_ptr<Subscription>> _subscriptions;
    std::function<void(Daemon)> _daemonHandler;
};

}  // namespace orvex::client
