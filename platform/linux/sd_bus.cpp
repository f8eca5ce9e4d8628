#include "platform/linux/sd_bus.h"

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <system_error>

#include "platform/linux/sd_bus_message.h"
#include "platform/log.h"
#include "platform/log_events.h"

namespace orvex::platform {
namespace {

std::string errorText(int code) { return std::generic_category().message(code); }

const char* orNone(const std::string& text) { return text.empty() ? nullptr : text.c_str(); }

/// As sd-bus takes it, where 0 would be its default.
std::uint64_t microseconds(std::chrono::nanoseconds timeout) {
    if (timeout == timeout.max()) return UINT64_MAX;
    return static_cast<std::uint64_t>(std::max<std::int64_t>(timeout.count() / 1000, 1));
}

int open(const SdBus::Options& options, sd_bus** bus) {
    if (options.address.empty()) {
        return options.kind == SdBus::Kind::user ? sd_bus_open_user(bus) : sd_bus_open_system(bus);
    }
    sd_bus* made = nullptr;
    if (const int r = sd_bus_new(&made); r < 0) return r;
    SdHandle<sd_bus> own(made);
    if (const int r = sd_bus_set_address(made, options.address.c_str()); r < 0) return r;
    if (const int r = sd_bus_set_bus_client(made, 1); r < 0) return r;
    if (const int r = sd_bus_start(made); r < 0) return r;
    *bus = own.release();
    return 0;
}

}  // namespace

struct SdBus::OutgoingCall {
    SdBus* bus;
    std::uint64_t number;
    std::chrono::nanoseconds timeout;
    BusCallCompletion completion;
    SdHandle<sd_bus_slot> slot;
};

struct SdBus::Subscription {
    BusSignalHandler handler;
    std::string rule;  ///< for the log
    SdHandle<sd_bus_slot> slot;
};

Result<std::unique_ptr<SdBus>> SdBus::create(const Options& options) {
    auto thread = EventThread::create("bus");
    if (!thread) return std::unexpected(thread.error());

    sd_bus* opened = nullptr;
    int r = open(options, &opened);
    SdHandle<sd_bus> bus(opened);
    const char* uniqueName = "";
    if (r >= 0 && options.waitsForWelcome) r = sd_bus_get_unique_name(opened, &uniqueName);
    if (r >= 0) r = sd_bus_attach_event(opened, (*thread)->event(), SD_EVENT_PRIORITY_NORMAL);
    if (r < 0) {
        const auto where = options.address.empty() ? std::string() : " at " + options.address;
        return failure(-r, "no message bus" + where + ": " + errorText(-r));
    }

    std::unique_ptr<SdBus> made(new SdBus(options.kind, std::move(*thread), std::move(bus), uniqueName));
    made->_thread.assertCurrent();  // ours until it starts
    if (auto watched = made->_watchConnection(); !watched) return std::unexpected(watched.error());
    made->_thread.start();
    return made;
}

SdBus::SdBus(Kind kind, std::unique_ptr<EventThread> thread, SdHandle<sd_bus> bus, std::string uniqueName)
    : _kind(kind),
      _ownThread(std::move(thread)),
      _uniqueName(std::move(uniqueName)),
      _thread(*_ownThread),
      _bus(std::move(bus)),
      _peers(_bus.get(), [this](const std::string& peer) {
          _thread.assertCurrent();
          std::erase_if(_pendingCalls, [&](const auto& call) { return call.second.sender == peer; });
      }) {}

SdBus::~SdBus() { _thread.stop(); }

Result<void> SdBus::_watchConnection() {
    const auto disconnected = [](sd_bus_message*, void* userdata, sd_bus_error*) {
        auto& self = *static_cast<SdBus*>(userdata);
        self._thread.assertCurrent();
        self._disconnected();
        return 0;
    };
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_match_signal(_bus.get(), &slot, "org.freedesktop.DBus.Local", nullptr, "org.freedesktop.DBus.Local",
                                "Disconnected", disconnected, this);
    _disconnection.reset(r < 0 ? nullptr : slot);

    const auto afterEach = [](sd_event_source*, void* userdata) {
        auto& self = *static_cast<SdBus*>(userdata);
        self._thread.assertCurrent();
        self._endFlushes();
        return 0;
    };
    sd_event_source* source = nullptr;
    if (r >= 0) r = sd_event_add_post(_thread.event(), &source, afterEach, this);
    _afterEach.reset(r < 0 ? nullptr : source);
    if (r >= 0) r = sd_event_source_set_enabled(source, SD_EVENT_OFF);
    if (r < 0) return failure(-r, "the bus cannot be watched: " + errorText(-r));
    return {};
}

// What comes in.

Result<void> SdBus::exportObject(std::string path, std::vector<BusInterface> interfaces, BusCallHandler handler) {
    return _thread.sync([&]() -> Result<void> {
        _thread.assertCurrent();
        if (_objects.contains(path)) return failure(EEXIST, "an object is exported at " + path + " already");
        auto object = std::make_shared<SdBusObject>(path, std::move(interfaces), std::move(handler),
                                                    [this](sd_bus_message* message, const auto& method) {
                                                        _thread.assertCurrent();
                                                        _called(message, method);
                                                    });
        if (auto exported = object->exportOn(_bus.get()); !exported) return exported;
        _objects.emplace(path, std::move(object));
        return {};
    });
}

void SdBus::removeObject(std::string path) {
    _thread.run([this, path = std::move(path)] {
        _thread.assertCurrent();
        const auto removed = _objects.extract(path);
        if (!removed.empty()) removed.mapped()->endExport();
    });
}

void SdBus::_called(sd_bus_message* message, const SdBusObject::Method& method) {
    const char* name = sd_bus_message_get_sender(message);
    const std::string sender = name ? name : "";
    if (const auto* known = _peers.known(sender)) return _deliver(message, method, *known);
    _peers.identify(sender, [this, kept = std::shared_ptr<sd_bus_message>(retain(message)),
                             object = method.object->shared_from_this(), &method](const BusPeer& peer) {
        _thread.assertCurrent();
        _deliver(kept.get(), method, peer);
    });
}

void SdBus::_deliver(sd_bus_message* message, const SdBusObject::Method& method, const BusPeer& sender) {
    auto object = method.object->shared_from_this();
    if (!object->isExported()) {
        return _sendError(message, {std::string(bus_error::unknownObject), "the object is gone"});
    }
    auto read = readArguments(message);
    if (!read) return _sendError(message, read.error());

    const auto number = ++_lastNumber;
    _pendingCalls.emplace(number, PendingCall{retain(message), sender.uniqueName, object, &method});
    BusReply reply([this, mailbox = _thread.mailbox(), number](Answer answer) {
        // The mailbox outlives the bus, and runs nothing after its end.
        mailbox->run([this, number, answer = std::move(answer)] {
            _thread.assertCurrent();
            _answer(number, answer);
        });
    });
    object->handle({.sender = sender,
                    .path = sd_bus_message_get_path(message),
                    .interface = sd_bus_message_get_interface(message),
                    .member = sd_bus_message_get_member(message),
                    .arguments = std::move(read->arguments),
                    .size = read->size,
                    .reply = std::move(reply)});
}

void SdBus::_answer(std::uint64_t number, const Answer& answer) {
    const auto call = _pendingCalls.extract(number);
    if (call.empty()) {
        defaultLogger().debug("a reply comes after its caller has gone");
        return;
    }
    auto* message = call.mapped().message.get();
    if (!answer) return _sendError(message, answer.error());
    if (const auto sent = _sendAnswer(call.mapped(), *answer); !sent && !_gone) {
        defaultLogger().error("the answer to {} cannot be sent: {}", sd_bus_message_get_member(message),
                              sent.error().text);
        _sendError(message, {std::string(bus_error::failed), "the answer cannot be sent"});
    }
}

Result<void> SdBus::_sendAnswer(const PendingCall& call, const BusArguments& arguments) {
    sd_bus_message* made = nullptr;
    int r = sd_bus_message_new_method_return(call.message.get(), &made);
    const SdHandle<sd_bus_message> reply(made);
    if (r >= 0) {
        if (auto appended = appendArguments(made, call.method->outSignature, arguments); !appended) return appended;
        r = sd_bus_send(_bus.get(), made, nullptr);
    }
    if (r < 0) return failure(-r, errorText(-r));
    return {};
}

void SdBus::_sendError(sd_bus_message* call, const BusError& error) {
    const sd_bus_error raised{.name = error.name.c_str(), .message = error.message.c_str(), ._need_free = 0};
    if (const int r = sd_bus_reply_method_error(call, &raised); r < 0) {
        defaultLogger().debug("the error {} cannot be sent: {}", error.name, errorText(-r));
    }
}

void SdBus::subscribe(std::string sender, std::string path, std::string interface, std::string member,
                      BusSignalHandler handler) {
    const auto came = [](sd_bus_message* message, void* userdata, sd_bus_error*) {
        auto& subscription = *static_cast<Subscription*>(userdata);
        const char* from = sd_bus_message_get_sender(message);
        const auto read = readArguments(message);
        if (read) {
            subscription.handler(from ? from : "", read->arguments);
        } else {
            defaultLogger().error("the signal {} is dropped: {}", subscription.rule, read.error().message);
        }
        return 0;
    };
    const auto installed = [](sd_bus_message* message, void* userdata, sd_bus_error*) {
        if (const auto* error = sd_bus_message_get_error(message)) {
            defaultLogger().error("the signal {} will not be heard: {}", static_cast<Subscription*>(userdata)->rule,
                                  error->name);
        }
        return 0;
    };
    _thread.run([=, this, handler = std::move(handler)]() mutable {
        _thread.assertCurrent();
        auto& made = _subscriptions.emplace_back(new Subscription{std::move(handler), interface + "." + member, {}});
        sd_bus_slot* slot = nullptr;
        const int r = sd_bus_match_signal_async(_bus.get(), &slot, orNone(sender), orNone(path), orNone(interface),
                                                orNone(member), came, installed, made.get());
        if (r < 0) defaultLogger().error("the signal {} will not be heard: {}", made->rule, errorText(-r));
        made->slot.reset(r < 0 ? nullptr : slot);
    });
}

void SdBus::watchPeer(std::string uniqueName, std::move_only_function<void()> vanished) {
    _thread.run([this, uniqueName = std::move(uniqueName), vanished = std::move(vanished)]() mutable {
        _thread.assertCurrent();
        _peers.watch(uniqueName, std::move(vanished));
    });
}

void SdBus::setDisconnectHandler(std::move_only_function<void()> handler) {
    _thread.run([this, handler = std::move(handler)]() mutable {
        _thread.assertCurrent();
        if (_gone) return handler();
        _onDisconnect = std::move(handler);
    });
}

void SdBus::_disconnected() {
    if (std::exchange(_gone, true)) return;
    if (_kind == Kind::user) {
        defaultLogger().as(LogEvent::busGone).error("the bus has gone away");
    } else {
        defaultLogger().log("the system bus has gone away");
    }
    _endFlushes();
    if (auto handler = std::exchange(_onDisconnect, nullptr)) handler();
}

// What goes out.

Result<void> SdBus::requestName(std::string name) {
    return _thread.sync([&]() -> Result<void> {
        _thread.assertCurrent();
        const int r = sd_bus_request_name(_bus.get(), name.c_str(), 0);
        if (r >= 0 || r == -EALREADY) return {};
        if (r == -EEXIST) return failure(EEXIST, "another program owns the bus name " + name);
        return failure(-r, "the bus name " + name + " cannot be had: " + errorText(-r));
    });
}

void SdBus::releaseName(std::string name) {
    const auto released = _thread.sync([&]() -> Result<void> {
        _thread.assertCurrent();
        const int r = sd_bus_release_name(_bus.get(), name.c_str());
        return r < 0 ? failure(-r, errorText(-r)) : Result<void>();
    });
    if (!released) defaultLogger().debug("the bus name {} cannot be released: {}", name, released.error().text);
}

void SdBus::sendSignal(std::string destination, std::string path, std::string interface, std::string member,
                       BusArguments arguments) {
    _thread.run([=, this, arguments = std::move(arguments)] {
        _thread.assertCurrent();
        _emit(destination.c_str(), path, interface, member, arguments);
    });
}

void SdBus::broadcastSignal(std::string path, std::string interface, std::string member, BusArguments arguments) {
    _thread.run([=, this, arguments = std::move(arguments)] {
        _thread.assertCurrent();
        _emit(nullptr, path, interface, member, arguments);
    });
}

void SdBus::_emit(const char* destination, const std::string& path, const std::string& interface,
                  const std::string& member, const BusArguments& arguments) {
    if (_gone) return;
    sd_bus_message* made = nullptr;
    int r = sd_bus_message_new_signal(_bus.get(), &made, path.c_str(), interface.c_str(), member.c_str());
    const SdHandle<sd_bus_message> signal(made);
    if (r >= 0 && destination) r = sd_bus_message_set_destination(made, destination);
    Result<void> sent;
    if (r >= 0) sent = appendArguments(made, signatureOf(arguments), arguments);
    if (r >= 0 && sent) r = sd_bus_send(_bus.get(), made, nullptr);
    if (r < 0) sent = failure(-r, errorText(-r));
    if (!sent) defaultLogger().error("the signal {} cannot be sent: {}", member, sent.error().text);
}

void SdBus::call(std::string destination, std::string path, std::string interface, std::string member,
                 std::string signature, BusArguments arguments, std::chrono::nanoseconds timeout,
                 BusCallCompletion completion) {
    _thread.run([=, this, arguments = std::move(arguments), completion = std::move(completion)]() mutable {
        _thread.assertCurrent();
        const auto number = ++_lastNumber;
        auto& outgoing =
            *_outgoingCalls.emplace(number, new OutgoingCall{this, number, timeout, std::move(completion), {}})
                 .first->second;
        if (auto started = _startCall(outgoing, destination, path, interface, member, signature, arguments); !started) {
            const auto name = started.error().code == EINVAL ? bus_error::invalidArgs : bus_error::disconnected;
            _endCall(number, std::unexpected(BusError{std::string(name), started.error().text}));
        }
    });
}

Result<void> SdBus::_startCall(OutgoingCall& call, const std::string& destination, const std::string& path,
                               const std::string& interface, const std::string& member, std::string_view signature,
                               const BusArguments& arguments) {
    const auto answered = [](sd_bus_message* message, void* userdata, sd_bus_error*) {
        auto& outgoing = *static_cast<OutgoingCall*>(userdata);
        outgoing.bus->_thread.assertCurrent();
        if (const auto* error = sd_bus_message_get_error(message)) {
            outgoing.bus->_endCall(outgoing.number,
                                   std::unexpected(BusError{error->name, error->message ? error->message : ""}));
        } else if (auto read = readArguments(message)) {
            outgoing.bus->_endCall(outgoing.number, std::move(read->arguments));
        } else {
            outgoing.bus->_endCall(outgoing.number, std::unexpected(read.error()));
        }
        return 0;
    };
    sd_bus_message* made = nullptr;
    int r = sd_bus_message_new_method_call(_bus.get(), &made, destination.c_str(), path.c_str(), orNone(interface),
                                           member.c_str());
    const SdHandle<sd_bus_message> message(made);
    if (r >= 0) {
        if (auto appended = appendArguments(made, signature, arguments); !appended) return appended;
        sd_bus_slot* slot = nullptr;
        r = sd_bus_call_async(_bus.get(), &slot, made, answered, &call, microseconds(call.timeout));
        call.slot.reset(r < 0 ? nullptr : slot);
    }
    if (r < 0) return failure(-r, member + " cannot be called: " + errorText(-r));
    return {};
}

void SdBus::_endCall(std::uint64_t number, Answer answer) {
    const auto ended = _outgoingCalls.extract(number);
    if (!ended.empty() && ended.mapped()->completion) ended.mapped()->completion(std::move(answer));
}

void SdBus::flush(std::chrono::nanoseconds limit) {
    if (_thread.mailbox()->isCurrent()) return;
    auto done = std::make_shared<std::promise<void>>();
    const auto left = done->get_future();
    _thread.run([this, done = std::move(done)] {
        _thread.assertCurrent();
        _flushes.push_back(done);
        _endFlushes();
    });
    left.wait_for(limit);
}

void SdBus::_endFlushes() {
    std::uint64_t queued = 0;
    const bool left = _gone || sd_bus_get_n_queued_write(_bus.get(), &queued) < 0 || queued == 0;
    if (left) {
        for (auto& done : std::exchange(_flushes, {})) done->set_value();
    }
    sd_event_source_set_enabled(_afterEach.get(), left ? SD_EVENT_OFF : SD_EVENT_ON);
}

}  // namespace orvex::platform
