#include "client/link.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "client/answers.h"

// A call goes to the well-known name, so that the bus starts a daemon where none is, and the daemon that leaves hands
// over to the next without a loss. Which daemon took it shows with the answer: its sender. One that we did not tell of
// us has done nothing with the call, so that it can be repeated once it has been told.

namespace orvex::client {
namespace {

constexpr unsigned maxAttempts = 3;     ///< of one call, and to configure
constexpr int maxMessagesAtOnce = 256;  ///< that `process` takes: a flood does not keep the program for ever
constexpr auto* daemonName = "com.kelvar.orvexd";
constexpr auto* daemonPath = "/com/kelvar/orvexd";
constexpr auto* daemonInterface = "com.kelvar.orvexd.Daemon";

std::string senderOf(sd_bus_message* message) {
    const char* sender = sd_bus_message_get_sender(message);
    return sender != nullptr ? sender : "";
}

Error::Kind kindOf(std::string_view busError) {
    constexpr std::string_view standard = "org.freedesktop.DBus.Error.";
    if (!busError.starts_with(standard)) return Error::Kind::refused;
    busError.remove_prefix(standard.size());
    if (busError == "ServiceUnknown" || busError == "NameHasNoOwner" || busError.starts_with("Spawn")) {
        return Error::Kind::noDaemon;
    }
    const bool silent =
        busError == "NoReply" || busError == "Timeout" || busError == "TimedOut" || busError == "Disconnected";
    return silent ? Error::Kind::noAnswer : Error::Kind::refused;
}

int open(const std::string& address, BusHandle& into) {
    sd_bus* bus = nullptr;
    int r = address.empty() ? sd_bus_open_user(&bus) : sd_bus_new(&bus);
    into.reset(r < 0 ? nullptr : bus);
    if (r < 0 || address.empty()) return r;
    r = sd_bus_set_address(bus, address.c_str());
    if (r >= 0) r = sd_bus_set_bus_client(bus, 1);
    return r < 0 ? r : sd_bus_start(bus);
}

}  // namespace

// The connection.

std::expected<std::unique_ptr<Client::Link>, Error> Client::Link::connect(Options options) {
    const std::string where = options.address.empty() ? "" : " at " + options.address;
    BusHandle bus;
    int r = open(options.address, bus);
    const char* uniqueName = "";
    if (r >= 0) r = sd_bus_get_unique_name(bus.get(), &uniqueName);  // waits until the bus has taken us in
    std::unique_ptr<Link> link(r < 0 ? nullptr : new Link(std::move(options), std::move(bus)));
    if (link) r = link->_watchOwner();
    if (r >= 0) return link;
    return std::unexpected(Error{.kind = Error::Kind::noBus,
                                 .reason = "no message bus" + where + ": " + std::generic_category().message(-r)});
}

/// Runs what sd-bus calls back; an exception must not pass through its frames.
template <class Run>
int Client::Link::_keepThrown(Run run) {
    try {
        run();
    } catch (...) {
        _thrown = std::current_exception();
    }
    return 0;
}

int Client::Link::_watchOwner() {
    const auto changed = [](sd_bus_message* signal, void* link, sd_bus_error*) {
        auto& self = *static_cast<Link*>(link);
        return self._keepThrown([&] { self._ownerChanged(signal); });
    };
    const std::string rule = std::string("type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',") +
                             "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" + daemonName + "'";
    sd_bus_slot* slot = nullptr;
    const int r = sd_bus_add_match_async(_bus.get(), &slot, rule.c_str(), changed, nullptr, this);
    _ownerSlot.reset(r < 0 ? nullptr : slot);
    return r;
}

std::optional<std::chrono::microseconds> Client::Link::timeout() const {
    using std::chrono::microseconds;
    if (!_failed.empty()) return microseconds(0);
    std::uint64_t until = UINT64_MAX;
    if (sd_bus_get_timeout(_bus.get(), &until) < 0 && !_isGone) return microseconds(0);  // `process` is to say so
    if (until == UINT64_MAX) return std::nullopt;
    const auto now = std::chrono::duration_cast<microseconds>(std::chrono::steady_clock::now().time_since_epoch());
    return std::max(microseconds(until) - now, microseconds(0));
}

std::expected<void, Error> Client::Link::process() {
    for (int messages = 0; messages < maxMessagesAtOnce || sd_bus_is_open(_bus.get()) <= 0; ++messages) {
        _runFailed();
        const int r = sd_bus_process(_bus.get(), nullptr);
        if (_thrown) std::rethrow_exception(std::exchange(_thrown, nullptr));
        if (r == 0) break;
        if (r == -EBUSY) return std::unexpected(_errorOf(r, "process is called in a callback"));
        if (r < 0) {
            _bringDown();
            return std::unexpected(Error{.kind = Error::Kind::noBus, .reason = "the bus has gone away"});
        }
    }
    _runFailed();
    return {};
}

std::expected<void, Error> Client::Link::wait() {
    const auto limit = timeout();
    if (limit == std::chrono::microseconds(0)) return {};
    const int r = sd_bus_wait(_bus.get(), limit ? static_cast<std::uint64_t>(limit->count()) : UINT64_MAX);
    if (r < 0 && r != -EINTR && r != -ENOTCONN) return std::unexpected(_errorOf(r, "the bus cannot be waited for"));
    return {};
}

/// All that is under way ends.
void Client::Link::_bringDown() {
    const Error error{.kind = Error::Kind::noBus, .reason = "the bus has gone away"};
    _isGone = true;
    _release(error);
    for (auto& [key, call] : std::exchange(_underWay, {})) {
        if (call->answered) _fail(std::move(call->answered), error);
    }
    _runFailed();
}

// Calls.

void Client::Link::callAsClient(OutgoingMessage message, Answered answered) {
    if (message.error() < 0) return _fail(std::move(answered), _errorOf(message.error(), "the call cannot be sent"));
    _add(OwnedCall(new Call{.link = this, .message = message.take(), .answered = std::move(answered)}));
}

void Client::Link::configure(Answered answered) {
    _add(OwnedCall(new Call{.link = this, .message = nullptr, .answered = std::move(answered)}));
}

void Client::Link::_add(OwnedCall call) {
    call->asClient = true;
    _isKnown = true;
    if (_state == State::configured) {
        if (call->message) return _send(std::move(call));
        _state = State::resting;  // whoever asks to be configured is
    }
    _waiting.push_back(std::move(call));
    if (_state == State::resting) _configure();
}

void Client::Link::call(OutgoingMessage message, Answered answered) {
    if (message.error() < 0) return _fail(std::move(answered), _errorOf(message.error(), "the call cannot be sent"));
    _send(OwnedCall(new Call{.link = this, .message = message.take(), .answered = std::move(answered)}));
}

void Client::Link::_send(OwnedCall call) {
    const auto answered = [](sd_bus_message* message, void* userdata, sd_bus_error*) {
        auto& ended = *static_cast<Call*>(userdata);
        auto& self = *ended.link;
        return self._keepThrown([&] { self._answer(ended, message); });
    };
    const auto patience = std::chrono::duration_cast<std::chrono::microseconds>(_options.patience).count();
    sd_bus_slot* slot = nullptr;
    call->owner = _owner;
    ++call->attempts;
    const int r = sd_bus_call_async(_bus.get(), &slot, call->message.get(), answered, call.get(),
                                    static_cast<std::uint64_t>(std::max<std::int64_t>(patience, 1)));
    if (r < 0) return _fail(std::move(call->answered), _errorOf(r, "the call cannot be sent"));
    call->slot.reset(slot);
    auto* const key = call.get();
    _underWay.emplace(key, std::move(call));
}

void Client::Link::_answer(Call& call, sd_bus_message* message) {
    const auto found = _underWay.extract(&call);
    OwnedCall ended = std::move(found.mapped());
    if (_reachedAStranger(*ended, message)) return _repeat(std::move(ended));
    if (!ended->answered) return;
    if (sd_bus_message_is_method_error(message, nullptr) > 0) {
        ended->answered(std::unexpected(_errorOf(message)));
    } else {
        ended->answered(message);
    }
}

bool Client::Link::_reachedAStranger(const Call& call, sd_bus_message* message) const {
    const std::string sender = senderOf(message);
    return call.asClient && sender.starts_with(':') && sender != call.owner && call.attempts < maxAttempts;
}

/// The same once more, behind the configuration.
void Client::Link::_repeat(OwnedCall call) {
    auto* const sent = call->message.get();
    OutgoingMessage again(_bus.get(), {.path = sd_bus_message_get_path(sent),
                                       .interface = sd_bus_message_get_interface(sent),
                                       .member = sd_bus_message_get_member(sent)});
    again.copy(sent);
    if (again.error() < 0) return _fail(std::move(call->answered), _errorOf(again.error(), "the call cannot be sent"));
    call->slot.reset();
    call->message = again.take();
    if (call->owner == _owner && _state == State::configured) _state = State::resting;
    _add(std::move(call));
}

void Client::Link::_fail(Answered answered, Error error) {
    if (answered) _failed.emplace_back(std::move(answered), std::move(error));
}

void Client::Link::_runFailed() {
    // What a callback adds waits for the next time, and what is behind one that throws does too.
    for (auto left = _failed.size(); left > 0 && !_failed.empty(); --left) {
        auto [answered, error] = std::move(_failed.front());
        _failed.pop_front();
        answered(std::unexpected(std::move(error)));
    }
}

// The configuration.

void Client::Link::_configure() {
    _state = State::configuring;
    _ownerMoved = false;
    ++_configurations;
    OutgoingMessage message(_bus.get(), {.path = daemonPath, .interface = daemonInterface, .member = "Configure"});
    message.beginDictionary();
    message.entry("identifier", _options.identifier).entry("user_agent", _options.userAgent).endDictionary();
    call(std::move(message), [this](auto answer) { _configured(std::move(answer)); });
}

void Client::Link::_configured(std::expected<sd_bus_message*, Error> answer) {
    const bool again = _ownerMoved && !_seenOwner.empty() && _configurations < maxAttempts;
    if (!answer) {
        if (again && answer.error().kind == Error::Kind::noAnswer) return _configure();
        return _release(answer.error());
    }
    _owner = senderOf(*answer);
    if (again && _owner != _seenOwner) return _configure();
    _release(std::nullopt);
}

/// What waited goes, or ends with that error.
void Client::Link::_release(const std::optional<Error>& error) {
    _state = error ? State::resting : State::configured;
    _configurations = 0;
    for (auto& call : std::exchange(_waiting, {})) {
        if (error) {
            _fail(std::move(call->answered), *error);
        } else if (call->message) {
            _send(std::move(call));
        } else if (call->answered) {
            _keepThrown([&] { call->answered(nullptr); });
        }
    }
}

void Client::Link::_ownerChanged(sd_bus_message* signal) {
    const char *name = "", *before = "", *now = "";
    if (sd_bus_message_read(signal, "sss", &name, &before, &now) < 0 || std::string_view(name) != daemonName) return;
    _seenOwner = now;
    _ownerMoved = true;
    if (_state == State::configured && _seenOwner != _owner) _state = State::resting;
    if (_state == State::resting && _isKnown && !_seenOwner.empty()) _configure();
    if (const auto handler = _daemonHandler) handler(_seenOwner.empty() ? Daemon::went : Daemon::came);
}

// Signals.

std::expected<void, Error> Client::Link::onSignal(const Method& signal, SignalHandler handler) {
    const auto came = [](sd_bus_message* message, void* userdata, sd_bus_error*) {
        const auto& subscription = *static_cast<Subscription*>(userdata);
        if (senderOf(message) != subscription.link->_owner) return 0;
        const auto own = subscription.handler;  // it may be replaced while it runs
        return subscription.link->_keepThrown([&] { own(message); });
    };
    auto& known = _subscriptions[{signal.path, signal.interface, signal.member}];
    if (known) {
        known->handler = std::move(handler);
        return {};
    }
    std::unique_ptr<Subscription> subscription(new Subscription{.link = this, .handler = std::move(handler)});
    sd_bus_slot* slot = nullptr;
    const int r =
        sd_bus_match_signal_async(_bus.get(), &slot, daemonName, signal.path.c_str(), signal.interface.c_str(),
                                  signal.member.c_str(), came, nullptr, subscription.get());
    if (r < 0) return std::unexpected(_errorOf(r, "the signal cannot be asked for"));
    subscription->slot.reset(slot);
    known = std::move(subscription);
    return {};
}

// Errors.

Error Client::Link::_errorOf(sd_bus_message* message) const {
    const auto* error = sd_bus_message_get_error(message);
    const std::string name = error != nullptr && error->name != nullptr ? error->name : "";
    const auto kind = sd_bus_is_open(_bus.get()) > 0 ? kindOf(name) : Error::Kind::noBus;
    const bool hasText = error != nullptr && error->message != nullptr;
    return {.kind = kind, .domain = name, .reason = hasText ? error->message : ""};
}

Error Client::Link::_errorOf(int code, const std::string& what) {
    const bool isGone = code == -ENOTCONN || code == -ECONNRESET;
    return {.kind = isGone ? Error::Kind::noBus : Error::Kind::badCall,
            .reason = what + ": " + std::generic_category().message(-code)};
}

}  // namespace orvex::client
