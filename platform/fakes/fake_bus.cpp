#include "platform/fakes/fake_bus.h"

#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace orvex::platform {
namespace {

[[noreturn]] void police(const std::string& what) {
    fmt::print(stderr, "misuse of the bus: {}\n", what);
    std::abort();
}

BusError error(std::string name, std::string message) { return {std::move(name), std::move(message)}; }

std::size_t wireSize(std::string_view type, const BusValue& value);

std::size_t wireSize(std::string_view signature, const BusArguments& values) {
    std::size_t size = 0;
    for (const auto& value : values) {
        const auto type = firstCompleteType(signature);
        size += wireSize(type, value);
        signature.remove_prefix(type.size());
    }
    return size;
}

/// Bytes of a value that fits `type`, without padding.
std::size_t wireSize(std::string_view type, const BusValue& value) {
    if (type == "v") return value.signature().size() + 2 + wireSize(value.signature(), value);
    if (const auto* text = value.as<std::string>()) return text->size() + 5;
    if (const auto* path = value.as<BusObjectPath>()) return path->path.size() + 5;
    if (const auto* signature = value.as<BusSignature>()) return signature->signature.size() + 5;
    if (const auto* bytes = value.as<BusBytes>()) return bytes->view().size() + 4;
    if (const auto* value_ = value.as<BusStruct>()) {
        return 4 + wireSize(type.substr(1, type.size() - 2), value_->members);
    }
    std::size_t size = 4;
    if (const auto* array = value.as<BusArray>()) {
        for (const auto& item : array->items) size += wireSize(type.substr(1), item);
        return size;
    }
    if (const auto* dictionary = value.as<BusDictionary>()) {
        for (const auto& [key, entry] : dictionary->entries) {
            size += 4 + key.size() + 5 + wireSize(dictionary->valueSignature, entry);
        }
        return size;
    }
    switch (type.front()) {
        case 'y':
            return 1;
        case 'n':
        case 'q':
            return 2;
        case 'x':
        case 't':
        case 'd':
            return 8;
        default:
            return 4;
    }
}

const BusMember* findMember(const std::vector<BusMember>& members, const std::string& name) {
    const auto found = std::ranges::find(members, name, &BusMember::name);
    return found == members.end() ? nullptr : &*found;
}

bool matches(const std::string& wanted, const std::string& got) { return wanted.empty() || wanted == got; }

}  // namespace

FakeBus::FakeBus() = default;

const BusInterface* FakeBus::Object::find(const std::string& name) const {
    const auto found = std::ranges::find(interfaces, name, &BusInterface::name);
    return found == interfaces.end() ? nullptr : &*found;
}

std::shared_ptr<FakeBus::Object> FakeBus::_objectWith(const std::string& path, const std::string& interface) const {
    if (!path.empty()) {
        const auto found = _objects.find(path);
        return found == _objects.end() ? nullptr : found->second;
    }
    std::shared_ptr<Object> only;
    for (const auto& [at, object] : _objects) {
        if (!object->find(interface)) continue;
        if (only) police(interface + " is exported at several paths: name the one to call");
        only = object;
    }
    return only;
}

std::shared_ptr<const FakeBus::Outcome> FakeBus::call(std::string sender, std::string interface, std::string member,
                                                      BusArguments arguments, const std::string& path) {
    if (_vanished.contains(sender)) police("the client " + sender + " calls, though it has vanished");
    auto outcome = std::make_shared<Outcome>();
    const auto object = _objectWith(path, interface);
    const auto* declared = object ? object->find(interface) : nullptr;
    const auto* method = declared ? findMember(declared->methods, member) : nullptr;
    if (!object || !method) {
        outcome->error = object ? error("org.freedesktop.DBus.Error.UnknownMethod", "no such method")
                                : error(std::string(bus_error::unknownObject), "no such object");
        return outcome;
    }
    if (!fits(method->inSignature, arguments)) {
        outcome->error = error(std::string(bus_error::invalidArgs), "expecting '" + method->inSignature + "'");
        return outcome;
    }

    BusReply reply([this, sender, outcome, what = interface + "." + member,
                    signature = method->outSignature](std::expected<BusArguments, BusError> answer) {
        if (answer && !fits(signature, *answer)) {
            police(what + " is answered '" + signatureOf(*answer) + "' where '" + signature + "' is declared");
        }
        if (_vanished.contains(sender)) return;
        if (answer) {
            outcome->arguments = std::move(*answer);
        } else {
            outcome->error = std::move(answer.error());
        }
    });
    const auto known = _credentials.find(sender);
    const auto who = known == _credentials.end() ? Credentials{::getpid(), ::getuid()} : known->second;
    const auto size = wireSize(method->inSignature, arguments);
    object->handler({.sender = {sender, who.processIdentifier, who.userIdentifier},
                     .path = object->path,
                     .interface = std::move(interface),
                     .member = std::move(member),
                     .arguments = std::move(arguments),
                     .size = size,
                     .reply = std::move(reply)});
    return outcome;
}

void FakeBus::setCredentials(std::string sender, Credentials credentials) {
    _credentials.insert_or_assign(std::move(sender), credentials);
}

void FakeBus::vanish(const std::string& client) {
    _vanished.insert(client);
    std::erase_if(_signals, [&](const Signal& signal) { return signal.destination == client; });
    while (!_watchers.empty()) {
        auto watcher = _watchers.extract(client);
        if (watcher.empty()) break;
        watcher.mapped()();
    }
}

std::vector<FakeBus::Signal> FakeBus::takeSignals(const std::string& client) {
    std::vector<Signal> taken;
    std::erase_if(_signals, [&](Signal& signal) {
        if (signal.destination != client) return false;
        taken.push_back(std::move(signal));
        return true;
    });
    return taken;
}

void FakeBus::addService(std::string name, BusCallHandler handler) {
    _services.insert_or_assign(std::move(name), std::make_shared<BusCallHandler>(std::move(handler)));
}

void FakeBus::emitSignal(const std::string& sender, const std::string& path, const std::string& interface,
                         const std::string& member, const BusArguments& arguments) {
    const auto subscriptions = _subscriptions;  // a handler may subscribe
    for (const auto& subscription : subscriptions) {
        if (matches(subscription->sender, sender) && matches(subscription->path, path) &&
            matches(subscription->interface, interface) && matches(subscription->member, member)) {
            subscription->handler(sender, arguments);
        }
    }
}

void FakeBus::takeName(std::string name) { _takenNames.insert(std::move(name)); }

void FakeBus::disconnect() {
    _gone = true;
    if (auto handler = std::exchange(_onDisconnect, nullptr)) handler();
}

Result<void> FakeBus::exportObject(std::string path, std::vector<BusInterface> interfaces, BusCallHandler handler) {
    if (!handler) police("the object at " + path + " has no handler");
    if (_objects.contains(path)) return failure(EEXIST, "an object is exported at " + path + " already");
    _objects.emplace(path, std::make_shared<Object>(path, std::move(interfaces), std::move(handler)));
    return {};
}

void FakeBus::removeObject(std::string path) {
    if (_objects.erase(path) == 0) police("no object to remove is exported at " + path);
}

Result<void> FakeBus::requestName(std::string name) {
    if (_takenNames.contains(name)) return failure(EEXIST, "the bus name " + name + " has another owner");
    _names.insert(std::move(name));
    return {};
}

void FakeBus::releaseName(std::string name) { _names.erase(name); }

void FakeBus::sendSignal(std::string destination, std::string path, std::string interface, std::string member,
                         BusArguments arguments) {
    if (destination.empty()) police("the signal " + member + " has no destination");
    _record({std::move(destination), std::move(path), std::move(interface), std::move(member), std::move(arguments)});
}

void FakeBus::broadcastSignal(std::string path, std::string interface, std::string member, BusArguments arguments) {
    _record({{}, std::move(path), std::move(interface), std::move(member), std::move(arguments)});
}

void FakeBus::_record(Signal signal) {
    const auto object = _objects.find(signal.path);
    if (const auto* declared = object == _objects.end() ? nullptr : object->second->find(signal.interface)) {
        const auto* member = findMember(declared->signals, signal.member);
        if (!member) police("the signal " + signal.member + " is not declared in " + signal.interface);
        if (!fits(member->inSignature, signal.arguments)) {
            police("the signal " + signal.member + " carries '" + signatureOf(signal.arguments) + "' where '" +
                   member->inSignature + "' is declared");
        }
    }
    if (!_gone && !_vanished.contains(signal.destination)) _signals.push_back(std::move(signal));
}

void FakeBus::call(std::string destination, std::string path, std::string interface, std::string member,
                   std::string signature, BusArguments arguments, std::chrono::nanoseconds,
                   BusCallCompletion completion) {
    if (_gone) return completion(std::unexpected(error(std::string(bus_error::disconnected), "the bus is gone")));
    if (!fits(signature, arguments)) {
        return completion(std::unexpected(error(std::string(bus_error::invalidArgs), "not '" + signature + "'")));
    }
    const auto service = _services.find(destination);
    if (service == _services.end()) {
        return completion(std::unexpected(error("org.freedesktop.DBus.Error.ServiceUnknown", "no " + destination)));
    }
    const auto handler = service->second;
    const auto size = wireSize(signature, arguments);
    (*handler)({.sender = {":1.0", ::getpid(), ::getuid()},
                .path = std::move(path),
                .interface = std::move(interface),
                .member = std::move(member),
                .arguments = std::move(arguments),
                .size = size,
                .reply = BusReply(std::move(completion))});
}

void FakeBus::subscribe(std::string sender, std::string path, std::string interface, std::string member,
                        BusSignalHandler handler) {
    _subscriptions.push_back(std::make_shared<Subscription>(std::move(sender), std::move(path), std::move(interface),
                                                            std::move(member), std::move(handler)));
}

void FakeBus::watchPeer(std::string uniqueName, std::move_only_function<void()> vanished) {
    if (_vanished.contains(uniqueName)) return vanished();
    _watchers.emplace(std::move(uniqueName), std::move(vanished));
}

void FakeBus::setDisconnectHandler(std::move_only_function<void()> handler) {
    if (_gone) return handler();
    _onDisconnect = std::move(handler);
}

void FakeBus::flush(std::chrono::nanoseconds) {}

}  // namespace orvex::platform
