#include "platform/fakes/scripted_server.h"

#include <arpa/inet.h>
#include <fmt/core.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <optional>

namespace orvex::platform {
namespace {

void require(bool condition, const char* what) {
    if (condition) return;
    std::perror(what);
    std::abort();
}

/// The bytes of a connection, request by request.
class RequestReader {
public:
    explicit RequestReader(int socket) : _socket(socket) {}

    /// None: the client left, or greets with TLS.
    std::optional<ReceivedRequest> next() {
        std::size_t end = std::string::npos;
        while ((end = _buffer.find("\r\n\r\n")) == std::string::npos)
            if (!_more() || _buffer.starts_with('\x16')) return std::nullopt;
        ReceivedRequest request = _parseHead(std::string_view(_buffer).substr(0, end + 2));
        _buffer.erase(0, end + 4);
        const std::size_t length = std::stoul(headerValue(request.headers, "Content-Length").value_or("0"));
        while (_buffer.size() < length)
            if (!_more()) return std::nullopt;
        request.body = _buffer.substr(0, length);
        _buffer.erase(0, length);
        return request;
    }

private:
    bool _more() {
        std::array<char, 16384> bytes{};
        const ssize_t count = recv(_socket, bytes.data(), bytes.size(), 0);
        if (count > 0) _buffer.append(bytes.data(), static_cast<std::size_t>(count));
        return count > 0;
    }

    static ReceivedRequest _parseHead(std::string_view head) {
        ReceivedRequest request;
        const std::string_view start = head.substr(0, head.find("\r\n"));
        const std::size_t blank = start.find(' ');
        request.method = start.substr(0, blank);
        request.target = start.substr(blank + 1, start.rfind(' ') - blank - 1);
        head.remove_prefix(start.size() + 2);
        while (!head.empty()) {
            const std::string_view line = head.substr(0, head.find("\r\n"));
            const std::size_t colon = line.find(':');
            std::string_view value = line.substr(colon + 1);
            while (value.starts_with(' ')) value.remove_prefix(1);
            request.headers.emplace_back(line.substr(0, colon), value);
            head.remove_prefix(line.size() + 2);
        }
        return request;
    }

    const int _socket;
    std::string _buffer;
};

}  // namespace

ScriptedAnswer answerWith(int status, const HTTPHeaders& headers, std::string_view body) {
    ScriptedAnswer answer{fmt::format("HTTP/1.1 {} Status\r\n", status)};
    for (const auto& [name, value] : headers) answer.bytes += fmt::format("{}: {}\r\n", name, value);
    answer.bytes += fmt::format("Content-Length: {}\r\n\r\n{}", body.size(), body);
    return answer;
}

ScriptedServer::ScriptedServer(Script script, std::string address)
    : _address(std::move(address)),
      _script(std::move(script)) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    require(inet_pton(AF_INET, _address.c_str(), &name.sin_addr) == 1, "the server's address");
    _listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    require(bind(_listener, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0, "bind");
    require(listen(_listener, 512) == 0, "listen");
    socklen_t length = sizeof name;
    require(getsockname(_listener, reinterpret_cast<sockaddr*>(&name), &length) == 0, "getsockname");
    _port = ntohs(name.sin_port);
    _stop = eventfd(0, EFD_CLOEXEC);
    require(_stop >= 0, "eventfd");
    _acceptor = std::thread([this] { _accept(); });
}

ScriptedServer::~ScriptedServer() {
    const std::uint64_t one = 1;
    require(write(_stop, &one, sizeof one) == sizeof one, "eventfd");
    _acceptor.join();
    std::list<Connection> connections;
    {
        const MutexLock lock(_mutex);
        connections.swap(_connections);
    }
    for (auto& connection : connections) {
        shutdown(connection.socket, SHUT_RDWR);
        connection.thread.join();
        close(connection.socket);
    }
    close(_listener);
    close(_stop);
}

void ScriptedServer::setScript(Script script) {
    const MutexLock lock(_mutex);
    _script = std::move(script);
}

std::string ScriptedServer::url(std::string_view path) const {
    return fmt::format("http://{}:{}{}", _address, _port, path);
}

std::vector<ReceivedRequest> ScriptedServer::requests() const {
    const MutexLock lock(_mutex);
    return _requests;
}

std::size_t ScriptedServer::connections() const {
    const MutexLock lock(_mutex);
    return _connections.size();
}

bool ScriptedServer::waitForRequests(std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    const MutexLock lock(_mutex);
    while (_requests.size() < count)
        if (_received.wait_until(_mutex, deadline) == std::cv_status::timeout) return _requests.size() >= count;
    return true;
}

void ScriptedServer::_accept() {
    for (;;) {
        std::array<pollfd, 2> sources{{{_listener, POLLIN, 0}, {_stop, POLLIN, 0}}};
        if (poll(sources.data(), sources.size(), -1) < 0) continue;
        if (sources[1].revents != 0) return;
        const int socket = accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0) continue;
        const MutexLock lock(_mutex);
        _connections.push_back({socket, std::thread([this, socket] { _serve(socket); })});
    }
}

void ScriptedServer::_serve(int socket) {
    RequestReader reader(socket);
    while (auto request = reader.next()) {
        Script script;
        {
            const MutexLock lock(_mutex);
            _requests.push_back(*request);
            script = _script;
        }
        _received.notify_all();
        if (!_answer(socket, script(*request))) return;
    }
    shutdown(socket, SHUT_RDWR);
}

bool ScriptedServer::_answer(int socket, const ScriptedAnswer& answer) {
    for (std::string_view rest = answer.bytes; !rest.empty();) {
        const ssize_t sent = send(socket, rest.data(), rest.size(), MSG_NOSIGNAL);
        if (sent <= 0) return false;
        rest.remove_prefix(static_cast<std::size_t>(sent));
    }
    switch (answer.end) {
        case ScriptedAnswer::End::keep:
            return true;
        case ScriptedAnswer::End::close:
            shutdown(socket, SHUT_RDWR);
            return false;
        case ScriptedAnswer::End::reset: {
            // Connecting a connected socket to nothing is how Linux resets a connection and keeps the descriptor.
            const sockaddr nothing{.sa_family = AF_UNSPEC, .sa_data = {}};
            require(connect(socket, &nothing, sizeof nothing) == 0, "reset");
            return false;
        }
    }
    return false;
}

}  // namespace orvex::platform
