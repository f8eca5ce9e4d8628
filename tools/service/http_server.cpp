#include "tools/service/http_server.h"

#include <arpa/inet.h>
#include <fmt/core.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/thread_annotations.h"
#include "tools/service/http_connection.h"

// The HTTP library reads requests and writes answers here, no more. It would also route, decode bodies, compress
// answers, and poll idle connections a hundred times a second; and what is left of a connection when an answer is to be
// cut short or replaced by a reset, its handlers cannot see. So the sockets and the threads are ours, and the library's
// `process_request` works on our stream.

namespace orvex {
namespace {

using platform::failure;

// The library acts on these by itself (it inflates, parses forms, compresses): they are taken out of its sight once
// they are noted.
constexpr std::array<const char*, 3> keptFromLibrary = {"Accept-Encoding", "Content-Encoding", "Content-Type"};

// Not the client's: the library files both addresses among the headers.
constexpr std::array<std::string_view, 4> addedByLibrary = {"LOCAL_ADDR", "LOCAL_PORT", "REMOTE_ADDR", "REMOTE_PORT"};

struct SSLContextRelease {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using SSLContext = std::unique_ptr<SSL_CTX, SSLContextRelease>;

class Descriptor {
public:
    explicit Descriptor(int number) : _number(number) {}
    Descriptor(Descriptor&& other) noexcept : _number(std::exchange(other._number, -1)) {}
    ~Descriptor() {
        if (_number >= 0) ::close(_number);
    }
    [[nodiscard]] int number() const { return _number; }
    [[nodiscard]] int release() { return std::exchange(_number, -1); }

private:
    int _number;
};

platform::Result<SSLContext> loadCertificate(const HTTPServer::Options& options) {
    if (options.certificate.empty()) return SSLContext();
    SSLContext context(SSL_CTX_new(TLS_server_method()));
    if (SSL_CTX_use_certificate_chain_file(context.get(), options.certificate.c_str()) != 1)
        return failure(0, fmt::format("cannot use the certificate {}", options.certificate));
    if (SSL_CTX_use_PrivateKey_file(context.get(), options.key.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(context.get()) != 1)
        return failure(0, fmt::format("cannot use the key {}", options.key));
    return context;
}

platform::Result<Descriptor> listenOn(std::uint16_t port) {
    Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    ::setsockopt(socket.number(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(socket.number(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(socket.number(), SOMAXCONN) != 0)
        return failure(errno,
                       fmt::format("cannot listen on 127.0.0.1:{}: {}", port, std::generic_category().message(errno)));
    return socket;
}

std::uint16_t portOf(int socket) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

std::optional<std::string_view> find(const std::vector<platform::QueryItem>& pairs, auto isName) {
    const auto found = std::ranges::find_if(pairs, isName, &platform::QueryItem::first);
    return found == pairs.end() ? std::nullopt : std::optional<std::string_view>(found->second);
}

}  // namespace

std::optional<std::string_view> ServerRequest::item(std::string_view name) const {
    return find(items, [name](const std::string& other) { return other == name; });
}

std::optional<std::string_view> ServerRequest::header(std::string_view name) const {
    return find(headers, [name](const std::string& other) {
        return other.size() == name.size() && ::strncasecmp(other.data(), name.data(), name.size()) == 0;
    });
}

class HTTPServer::Implementation : private httplib::Server {
public:
    struct Callbacks {
        AnswerFor answer;
        CutFor cut;
    };
    Implementation(const HTTPServer::Options& options, Callbacks callbacks, Descriptor listener, SSLContext tls);

    [[nodiscard]] std::uint16_t port() const { return portOf(_listener.number()); }
    [[nodiscard]] std::uint64_t accepted() const { return _accepted; }
    void run();
    void stop();

private:
    // One request on its way: what the library's callbacks, which know no connection, and the connection's loop share.
    struct Exchange {
        HTTPConnection& connection;
        ServerRequest request;
        std::optional<ServerAnswer> answer;
    };
    static thread_local Exchange* current;

    void _start(Descriptor socket);
    void _serve(HTTPConnection& connection);
    [[nodiscard]] bool _serveRequest(HTTPConnection& connection);
    static void _noteHead(httplib::Request& request);
    [[nodiscard]] HandlerResponse _answerBeforeBody(const httplib::Request& request, httplib::Response& response);
    void _answer(httplib::Response& response);
    void _closeAllAndWait();

    const HTTPServer::Options _options;
    const Callbacks _callbacks;
    const Descriptor _listener;
    const Descriptor _wake;
    const SSLContext _tls;

    std::atomic<std::uint64_t> _accepted = 0;
    std::atomic<bool> _isStopping = false;

    platform::Mutex _mutex;
    std::condition_variable_any _connectionEnded;
    std::set<HTTPConnection*> _connections ORX_GUARDED_BY(_mutex);
};

thread_local HTTPServer::Implementation::Exchange* HTTPServer::Implementation::current = nullptr;

HTTPServer::Implementation::Implementation(const HTTPServer::Options& options, Callbacks callbacks, Descriptor listener,
                                           SSLContext tls)
    : _options(options),
      _callbacks(std::move(callbacks)),
      _listener(std::move(listener)),
      _wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      _tls(std::move(tls)) {
    set_payload_max_length(_options.maxBodyBytes);
    set_keep_alive_timeout(_options.keepAlive.count());
    set_keep_alive_max_count(1'000'000);
    set_pre_routing_handler(
        [this](const auto& request, auto& response) { return _answerBeforeBody(request, response); });
    // The library's own refusals: they end the connection, since the request may not have been read to its end.
    set_error_handler(HandlerWithResponse([](const httplib::Request&, httplib::Response& response) {
        if (!current->answer) response.set_header("Connection", "close");
        return HandlerResponse::Unhandled;
    }));
    Post(".*", [this](const httplib::Request& request, httplib::Response& response) {
        current->request.body = request.body;
        _answer(response);
    });
}

void HTTPServer::Implementation::run() {
    std::array<pollfd, 2> wanted{pollfd{_listener.number(), POLLIN, 0}, pollfd{_wake.number(), POLLIN, 0}};
    while (!_isStopping) {
        if (::poll(wanted.data(), wanted.size(), -1) < 0 || (wanted[0].revents & POLLIN) == 0) continue;
        Descriptor socket(::accept4(_listener.number(), nullptr, nullptr, SOCK_CLOEXEC));
        if (socket.number() >= 0) _start(std::move(socket));
    }
    _closeAllAndWait();
}

void HTTPServer::Implementation::stop() {
    _isStopping = true;
    const std::uint64_t one = 1;
    if (::write(_wake.number(), &one, sizeof one) < 0) return;  // it is full: `run` has been woken already
}

void HTTPServer::Implementation::_start(Descriptor socket) {
    ++_accepted;
    const int on = 1;
    ::setsockopt(socket.number(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    auto connection = std::make_unique<HTTPConnection>(socket.release(), _tls.get());
    const platform::MutexLock lock(_mutex);
    if (_connections.size() >= _options.maxConnections) return;
    _connections.insert(connection.get());
    std::thread([this, connection = std::move(connection)]() mutable {
        _serve(*connection);
        const platform::MutexLock ended(_mutex);
        _connections.erase(connection.get());
        connection.reset();
        _connectionEnded.notify_all();  // under the lock: nothing of this object is touched after it
    }).detach();
}

void HTTPServer::Implementation::_closeAllAndWait() {
    const platform::MutexLock lock(_mutex);
    for (HTTPConnection* connection : _connections) connection->close();
    while (!_connections.empty()) _connectionEnded.wait(_mutex);
}

void HTTPServer::Implementation::_serve(HTTPConnection& connection) {
    if (connection.isSecure() && !connection.handshake()) return;
    while (!_isStopping && connection.awaitRequest(_options.keepAlive)) {
        if (!_serveRequest(connection)) return;
    }
}

// False: the connection is to end.
bool HTTPServer::Implementation::_serveRequest(HTTPConnection& connection) {
    Exchange exchange{.connection = connection};
    current = &exchange;
    bool isLast = false;
    const bool isGood = process_request(connection, false, isLast, &_noteHead);
    current = nullptr;
    if (!exchange.answer) {  // the library refused it by itself
        connection.flush();
        return false;
    }
    const WireFault& fault = exchange.answer->fault;
    if (fault.holdFor.count() > 0) connection.hold(fault.holdFor);
    if (fault.reset) {
        connection.reset();
        return false;
    }
    const std::size_t bodyBytes = exchange.answer->body.size();
    if (fault.bodyBytes) {
        connection.flushAllBut(bodyBytes - std::min(bodyBytes, *fault.bodyBytes));
        return false;
    }
    connection.flush();
    return isGood && !isLast;
}

// Called by the library between the head and the body of a request.
void HTTPServer::Implementation::_noteHead(httplib::Request& request) {
    current->connection.headIsRead();
    ServerRequest& noted = current->request;
    noted.method = request.method;
    const std::size_t mark = request.target.find('?');
    noted.path = request.target.substr(0, mark);
    if (mark != std::string::npos) noted.rawQuery = request.target.substr(mark + 1);
    noted.items = platform::decodeQuery(noted.rawQuery);
    for (const auto& [name, value] : request.headers)
        if (std::ranges::find(addedByLibrary, name) == addedByLibrary.end()) noted.headers.emplace_back(name, value);
    noted.isSecure = current->connection.isSecure();
    for (const char* name : keptFromLibrary) request.headers.erase(name);
    const bool hasBody = request.has_header("Content-Length") || request.has_header("Transfer-Encoding");
    if (hasBody && request.method != "POST") request.set_header("Connection", "close");  // it stays unread
}

httplib::Server::HandlerResponse HTTPServer::Implementation::_answerBeforeBody(const httplib::Request& request,
                                                                               httplib::Response& response) {
    if (request.method == "POST") {
        if (const auto bytes = _callbacks.cut(current->request)) current->connection.resetAfter(*bytes);
        return HandlerResponse::Unhandled;
    }
    _answer(response);
    return HandlerResponse::Handled;
}

void HTTPServer::Implementation::_answer(httplib::Response& response) {
    current->answer = _callbacks.answer(current->request);
    const ServerAnswer& answer = *current->answer;
    if (answer.status != 200) response.status = answer.status;  // the library says 206 where a range was asked for
    for (const auto& [name, value] : answer.headers) response.set_header(name, value);
    if (!answer.body.empty()) response.set_content(answer.body, answer.contentType);
}

platform::Result<std::unique_ptr<HTTPServer>> HTTPServer::listen(const Options& options, AnswerFor answer, CutFor cut) {
    auto tls = loadCertificate(options);
    if (!tls) return std::unexpected(tls.error());
    auto listener = listenOn(options.port);
    if (!listener) return std::unexpected(listener.error());
    return std::unique_ptr<HTTPServer>(new HTTPServer(std::make_unique<Implementation>(
        options, Implementation::Callbacks{std::move(answer), std::move(cut)}, std::move(*listener), std::move(*tls))));
}

HTTPServer::HTTPServer(std::unique_ptr<Implementation> implementation) : _implementation(std::move(implementation)) {}
HTTPServer::~HTTPServer() = default;
std::uint16_t HTTPServer::port() const { return _implementation->port(); }
std::uint64_t HTTPServer::connectionsAccepted() const { return _implementation->accepted(); }
void HTTPServer::run() { _implementation->run(); }
void HTTPServer::stop() { _implementation->stop(); }

}  // namespace orvex
