#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/bus.h"

namespace orvex::platform {

/// A bus inside the test, with the component under test as its one real client; the others are pretended by the
/// operations of the first group. Everything is delivered at once, on the calling thread, before the call returns; one
/// thread at a time.
///
/// It aborts, with a message, on what the real bus could only log: an answer or a signal that does not fit its declared
/// signature, an object without a handler, the removal of one that is not exported.
class FakeBus final : public Bus {
public:
    /// What came of a call that a pretended client made.
    struct Outcome {
        std::optional<BusArguments> arguments;
        std::optional<BusError> error;

        [[nodiscard]] bool arrived() const { return arguments || error; }
        [[nodiscard]] std::string errorName() const { return error ? error->name : std::string(); }
    };
    struct Signal {
        std::string destination;  ///< empty: to whoever listens
        std::string path;
        std::string interface;
        std::string member;
        BusArguments arguments;
    };
    struct Credentials {
        std::int32_t processIdentifier = 0;
        std::optional<std::uint32_t> userIdentifier;
    };

    FakeBus();  ///< every client has this process's uid unless told otherwise

    // The rest of the bus.

    /// Calls an exported object as the client `sender` would; an empty `path` means the only object with `interface`.
    std::shared_ptr<const Outcome> call(std::string sender, std::string interface, std::string member,
                                        BusArguments arguments, const std::string& path = {});
    void setCredentials(std::string sender, Credentials credentials);
    void vanish(const std::string& client);
    /// The signals that `client` got since the last time, in order; "" for those to whoever listens.
    std::vector<Signal> takeSignals(const std::string& client);

    /// A service for the component to call; any name without one answers ServiceUnknown.
    void addService(std::string name, BusCallHandler handler);
    void emitSignal(const std::string& sender, const std::string& path, const std::string& interface,
                    const std::string& member, const BusArguments& arguments);
    void takeName(std::string name);  ///< another client has it from now on
    [[nodiscard]] bool owns(const std::string& name) const { return _names.contains(name); }
    void disconnect();  ///< the bus goes away

    // The component's side.

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
    void flush(std::chrono::nanoseconds limit) override;

private:
    struct Object {
        std::string path;
        std::vector<BusInterface> interfaces;
        BusCallHandler handler;

        [[nodiscard]] const BusInterface* find(const std::string& name) const;
    };
    struct Subscription {
        std::string sender, path, interface, member;
        BusSignalHandler handler;
    };

    std::shared_ptr<Object> _objectWith(const std::string& path, const std::string& interface) const;
    void _record(Signal signal);

    std::map<std::string, Credentials> _credentials;
    std::map<std::string, std::shared_ptr<Object>> _objects;
    std::map<std::string, std::shared_ptr<BusCallHandler>> _services;
    std::vector<std::shared_ptr<Subscription>> _subscriptions;
    std::multimap<std::string, std::move_only_function<void()>> _watchers;
    std::set<std::string> _vanished;
    std::set<std::string> _names;
    std::set<std::string> _takenNames;
    std::vector<Signal> _signals;
    std::move_only_function<void()> _onDisconnect;
    bool _gone = false;
};

}  // namespace orvex::platform
