#include "tools/service/http_connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace orvex {
namespace {

using namespace std::chrono_literals;

constexpr auto transferLimit = 30s;  // for one wait in the middle of a request or an answer

SSL* newTLS(SSL_CTX* context, int socket) {
    SSL* tls = context != nullptr ? SSL_new(context) : nullptr;
    if (tls != nullptr) SSL_set_fd(tls, socket);
    return tls;
}

using AddressOf = int (*)(int, sockaddr*, socklen_t*);

void readAddress(AddressOf addressOf, int socket, std::string& ip, int& port) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (addressOf(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return;
    std::array<char, INET_ADDRSTRLEN> text{};
    if (inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size()) != nullptr) ip = text.data();
    port = ntohs(address.sin_port);
}

}  // namespace

HTTPConnection::HTTPConnection(int socket, SSL_CTX* tls) : _socket(socket), _tls(newTLS(tls, socket)) {}

HTTPConnection::~HTTPConnection() {
    if (_tls != nullptr && !_isBroken) SSL_shutdown(_tls.get());
    ::close(_socket);
}

bool HTTPConnection::handshake() { return _waitFor(POLLIN, transferLimit) && SSL_accept(_tls.get()) == 1; }

bool HTTPConnection::awaitRequest(std::chrono::milliseconds idle) {
    _headBytesLeft = maxHeadBytes;
    if (_isBroken) return false;
    return _inputRead < _input.size() || is_readable() || _waitFor(POLLIN, idle);
}

bool HTTPConnection::_waitFor(short events, std::chrono::milliseconds limit) const {
    pollfd wanted{_socket, events, 0};
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        const int ready = ::poll(&wanted, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
        if (ready >= 0 || errno != EINTR) return ready > 0 && (wanted.revents & events) != 0;
    }
}

bool HTTPConnection::is_readable() const { return _tls != nullptr && SSL_pending(_tls.get()) > 0; }

bool HTTPConnection::is_writable() const { return !_isBroken; }

std::size_t HTTPConnection::_receive() {
    if (!is_readable() && !_waitFor(POLLIN, transferLimit)) return 0;
    _input.resize(16384);
    _inputRead = 0;
    const auto count = _tls != nullptr ? SSL_read(_tls.get(), _input.data(), static_cast<int>(_input.size()))
                                       : ::recv(_socket, _input.data(), _input.size(), 0);
    _input.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return _input.size();
}

ssize_t HTTPConnection::read(char* bytes, std::size_t size) {
    if (!_output.empty()) flush();  // "100 Continue"
    if (_bytesUntilReset == 0) reset();
    if (_isBroken) return -1;
    if (_headBytesLeft == 0 || (_inputRead == _input.size() && _receive() == 0)) {
        _isBroken = true;
        return -1;
    }
    const std::size_t count = std::min({size, _input.size() - _inputRead, _headBytesLeft, _bytesUntilReset});
    _input.copy(bytes, count, _inputRead);
    _inputRead += count;
    if (_headBytesLeft != SIZE_MAX) _headBytesLeft -= count;
    if (_bytesUntilReset != SIZE_MAX) _bytesUntilReset -= count;
    return static_cast<ssize_t>(count);
}

ssize_t HTTPConnection::write(const char* bytes, std::size_t size) {
    _output.append(bytes, size);
    return _isBroken ? -1 : static_cast<ssize_t>(size);
}

bool HTTPConnection::_send(std::string_view bytes) {
    while (!bytes.empty()) {
        if (!_waitFor(POLLOUT, transferLimit)) return false;
        const auto count = _tls != nullptr ? SSL_write(_tls.get(), bytes.data(), static_cast<int>(bytes.size()))
                                           : ::send(_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

void HTTPConnection::flush() {
    if (!_isBroken && !_send(_output)) _isBroken = true;
    _output.clear();
}

void HTTPConnection::flushAllBut(std::size_t bytes) {
    _output.resize(_output.size() - std::min(bytes, _output.size()));
    flush();
    _isBroken = true;
}

void HTTPConnection::hold(std::chrono::milliseconds duration) {
    pollfd wanted{_socket, POLLRDHUP, 0};
    while (::poll(&wanted, 1, static_cast<int>(duration.count())) < 0 && errno == EINTR) continue;
    if (wanted.revents != 0) _isBroken = true;
}

// Connecting to no address is how Linux dissolves a TCP connection: the peer gets a reset, not an end.
void HTTPConnection::reset() {
    sockaddr nowhere{};
    nowhere.sa_family = AF_UNSPEC;
    if (::connect(_socket, &nowhere, sizeof nowhere) != 0) ::shutdown(_socket, SHUT_RDWR);
    _output.clear();
    _isBroken = true;
}

void HTTPConnection::close() { ::shutdown(_socket, SHUT_RDWR); }

void HTTPConnection::get_remote_ip_and_port(std::string& ip, int& port) const {
    readAddress(&getpeername, _socket, ip, port);
}

void HTTPConnection::get_local_ip_and_port(std::string& ip, int& port) const {
    readAddress(&getsockname, _socket, ip, port);
}

}  // namespace orvex
