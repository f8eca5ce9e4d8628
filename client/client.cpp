#include "client/orvex/client.h"

#include <systemd/sd-bus.h>

#include <limits>
#include <utility>

#include "client/answers.h"
#include "client/link.h"
#include "client/message.h"

namespace orvex::client {
namespace {

constexpr auto* daemonPath = "/com/kelvar/orvexd";
constexpr auto* daemonInterface = "com.kelvar.orvexd.Daemon";
constexpr auto* diagnosticsInterface = "com.kelvar.orvexd.Diagnostics";

/// The caller's end of a call whose answer `read` reads.
template <class T>
auto into(Client::Callback<T> callback, std::expected<T, Error> (*read)(List&)) {
    return [callback = std::move(callback), read](std::expected<sd_bus_message*, Error> answer) mutable {
        if (!callback) return;
        if (!answer) return callback(std::unexpected(std::move(answer.error())));
        auto values = readValues(*answer);
        callback(values ? read(*values) : std::unexpected(values.error()));
    };
}

}  // namespace

std::expected<Client, Error> Client::connect(Options options) {
    auto link = Link::connect(std::move(options));
    if (!link) return std::unexpected(std::move(link.error()));
    return Client(*std::move(link));
}

Client::Client(std::unique_ptr<Link> link) : _link(std::move(link)) {}
Client::Client(Client&&) noexcept = default;
Client& Client::operator=(Client&&) noexcept = default;
Client::~Client() = default;

int Client::descriptor() const {
    const int descriptor = sd_bus_get_fd(_link->bus());
    return descriptor < 0 ? -1 : descriptor;
}

short Client::events() const {
    const int events = sd_bus_get_events(_link->bus());
    return events < 0 ? short{0} : static_cast<short>(events);
}

std::optional<std::chrono::milliseconds> Client::timeout() const {
    const auto limit = _link->timeout();
    if (!limit) return std::nullopt;
    const auto longest = std::chrono::milliseconds(std::numeric_limits<int>::max());  // what poll(2) takes
    return std::min(std::chrono::ceil<std::chrono::milliseconds>(*limit), longest);
}

std::expected<void, Error> Client::process() { return _link->process(); }

std::expected<void, Error> Client::runUntil(const std::function<bool()>& finished) {
    while (!finished()) {
        if (auto processed = _link->process(); !processed) return processed;
        if (finished()) break;
        if (auto waited = _link->wait(); !waited) return waited;
    }
    return {};
}

void Client::configure(Callback<void> callback) {
    _link->configure([callback = std::move(callback)](std::expected<sd_bus_message*, Error> answer) mutable {
        if (!callback) return;
        if (answer) return callback({});
        callback(std::unexpected(std::move(answer.error())));
    });
}

OutgoingMessage Client::_message(const char* member) const {
    return OutgoingMessage(_link->bus(), {.path = daemonPath, .interface = daemonInterface, .member = member});
}

void Client::request(const Request& request, Callback<Reply> callback) {
    auto message = _message("Request");
    message.request(request);
    _link->callAsClient(std::move(message), into(std::move(callback), replyIn));
}

void Client::reportFeedback(std::string_view payload, std::uint64_t queryId, Callback<void> callback) {
    auto message = _message("ReportFeedbackPayloadData");
    message.bytes(payload).number(queryId);
    _link->callAsClient(std::move(message), into(std::move(callback), nothingIn));
}

void Client::addCompletion(std::string_view completion, std::string_view input, Callback<void> callback) {
    auto message = _message("AddCompletion");
    message.text(completion).text(input);
    _link->callAsClient(std::move(message), into(std::move(callback), nothingIn));
}

void Client::clearEngagedCompletions(Date from, Date to, Callback<void> callback) {
    auto message = _message("ClearEngagedCompletions");
    message.number(from.count()).number(to.count());
    _link->callAsClient(std::move(message), into(std::move(callback), nothingIn));
}

void Client::bag(Callback<std::string> callback) {
    _link->callAsClient(_message("Bag"), into(std::move(callback), bagIn));
}

void Client::feedback(Callback<std::vector<std::string>> callback) {
    auto message = _message("Feedback");
    message.text("");
    _link->callAsClient(std::move(message), into(std::move(callback), recordsIn));
}

void Client::listSessions(Callback<std::vector<Session>> callback) {
    _link->callAsClient(_message("ListSessions"), into(std::move(callback), sessionsIn));
}

void Client::resource(std::string_view identifier, Callback<Resource> callback) {
    auto message = _message("FileHandleAndAttributesForResource");
    message.text(identifier);
    _link->callAsClient(std::move(message),
                        [callback = std::move(callback)](std::expected<sd_bus_message*, Error> answer) mutable {
                            if (!callback) return;
                            if (!answer) return callback(std::unexpected(std::move(answer.error())));
                            callback(readResource(*answer));
                        });
}

void Client::imageMap(Callback<std::map<std::string, std::string>> callback) {
    _link->callAsClient(_message("GetImageMap"), into(std::move(callback), imageMapIn));
}

void Client::updateParameters(const Parameters& parameters, Callback<void> callback) {
    auto message = _message("UpdateParameters");
    message.number(parameters.broviaLast1Hour).number(parameters.broviaLast1Day).number(parameters.broviaLast1Week);
    message.number(parameters.broviaLast1Month).number(parameters.broviaAll).number(parameters.broviaMostRecent);
    message.number(parameters.minThresholdToSend);
    _link->callAsClient(std::move(message), into(std::move(callback), nothingIn));
}

void Client::listenToFlusher(Callback<std::string> callback) {
    _link->callAsClient(_message("ListenToFlusher"), into(std::move(callback), textIn));
}

void Client::call(const Method& method, const List& arguments, Callback<List> callback) {
    OutgoingMessage message(
        _link->bus(),
        {.path = method.path.c_str(), .interface = method.interface.c_str(), .member = method.member.c_str()});
    for (const auto& argument : arguments) message.value(argument);
    if (!method.startsDaemon) message.neverStartDaemon();
    _link->call(std::move(message), into(std::move(callback), anythingIn));
}

void Client::explain(const Request& request, Callback<List> callback) {
    OutgoingMessage message(_link->bus(), {.path = daemonPath, .interface = diagnosticsInterface, .member = "Explain"});
    message.request(request);
    _link->call(std::move(message), into(std::move(callback), listIn));
}

// What these ask for has the name of a signal, so it is refused only once the bus has gone.

void Client::onBagDidLoad(std::function<void(std::expected<std::string, Error>)> handler) {
    const Method signal{.interface = daemonInterface, .member = "BagDidLoad"};
    (void)onSignal(signal, [handler = std::move(handler)](List arguments) {
        auto bag = bagIn(arguments);
        if (handler && (bag || bag.error().kind != Error::Kind::malformed)) handler(std::move(bag));
    });
}

void Client::_onIdentifier(const char* signal, std::function<void(const std::string&)> handler) {
    (void)onSignal({.interface = daemonInterface, .member = signal}, [handler = std::move(handler)](List arguments) {
        if (const auto identifier = textIn(arguments); identifier && handler) handler(*identifier);
    });
}

void Client::onDidDownloadResource(std::function<void(const std::string&)> handler) {
    _onIdentifier("DidDownloadResource", std::move(handler));
}

void Client::onDidDeleteResource(std::function<void(const std::string&)> handler) {
    _onIdentifier("DidDeleteResource", std::move(handler));
}

void Client::onDaemon(std::function<void(Daemon)> handler) { _link->onDaemon(std::move(handler)); }

std::expected<void, Error> Client::onSignal(const Method& signal, std::function<void(List)> handler) {
    return _link->onSignal(signal, [handler = std::move(handler)](sd_bus_message* message) {
        auto arguments = readValues(message);
        if (arguments && handler) handler(*std::move(arguments));
    });
}

}  // namespace orvex::client
