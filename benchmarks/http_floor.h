#pragma once

#include <arpa/inet.h>
#include <curl/curl.h>
#include <fmt/core.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>

#include "platform/http_session.h"

/// A server that costs next to nothing, and the least that a request to it can cost.
namespace orvex {

using BodyFor = std::function<std::string(std::string_view requestHead)>;

[[noreturn]] inline void fail(std::string_view what) {
    fmt::print(stderr, "{}\n", what);
    std::_Exit(1);
}

/// Answers the requests of one connection, one after the other.
inline void serveConnection(int connection, const BodyFor& bodyFor) {
    std::string received;
    char piece[4096];
    for (ssize_t got = 0; (got = ::recv(connection, piece, sizeof piece, 0)) > 0;) {
        received.append(piece, static_cast<std::size_t>(got));
        if (!received.ends_with("\r\n\r\n")) continue;
        const std::string body = bodyFor(received);
        received.clear();
        const std::string answer = fmt::format(
            "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: {}\r\n"
            "\r\n{}",
            body.size(), body);
        if (::send(connection, answer.data(), answer.size(), MSG_NOSIGNAL) < 0) return;
    }
}

/// Serves the listening socket, a process a connection.
[[noreturn]] inline void serve(int listener, const BodyFor& bodyFor) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::signal(SIGCHLD, SIG_IGN);
    for (;;) {
        const int connection = ::accept(listener, nullptr, nullptr);
        const int on = 1;
        ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (::fork() != 0) {
            ::close(connection);
            continue;
        }
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        serveConnection(connection, bodyFor);
        std::_Exit(0);
    }
}

/// The port that the listening socket has got.
inline int listenOnLoopback(int listener) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (::bind(listener, generic, length) != 0 || ::listen(listener, 8) != 0 ||
        ::getsockname(listener, generic, &length) != 0)
        fail("cannot listen");
    return ntohs(address.sin_port);
}

/// libcurl's multi interface alone, on one thread, with one handle that keeps its options.
class HTTPFloor {
public:
    explicit HTTPFloor(const platform::URLRequest& request) : _url(request.url) {
        for (const auto& [name, value] : request.headers)
            _headers = curl_slist_append(_headers, fmt::format("{}: {}", name, value).c_str());
        curl_easy_setopt(_easy, CURLOPT_HTTPHEADER, _headers);
        curl_easy_setopt(_easy, CURLOPT_WRITEFUNCTION, &_onBody);
        curl_easy_setopt(_easy, CURLOPT_WRITEDATA, &_body);
        curl_easy_setopt(_easy, CURLOPT_ACCEPT_ENCODING, "gzip, deflate");
    }
    ~HTTPFloor() {
        curl_easy_cleanup(_easy);
        curl_multi_cleanup(_multi);
        curl_slist_free_all(_headers);
    }
    HTTPFloor(const HTTPFloor&) = delete;
    HTTPFloor& operator=(const HTTPFloor&) = delete;

    /// Microseconds of one request on the kept connection.
    double time() {
        const auto begin = std::chrono::steady_clock::now();
        _body.clear();
        curl_easy_setopt(_easy, CURLOPT_URL, _url.c_str());
        curl_multi_add_handle(_multi, _easy);
        for (int running = 1; curl_multi_perform(_multi, &running) == CURLM_OK && running > 0;)
            curl_multi_poll(_multi, nullptr, 0, 1000, nullptr);
        curl_multi_remove_handle(_multi, _easy);
        const auto end = std::chrono::steady_clock::now();
        if (_body.empty()) fail("the floor got no answer");
        return std::chrono::duration<double, std::micro>(end - begin).count();
    }

private:
    static std::size_t _onBody(char* bytes, std::size_t size, std::size_t count, void* body) {
        static_cast<std::string*>(body)->append(bytes, size * count);
        return size * count;
    }

    const std::string _url;
    CURLM* const _multi = curl_multi_init();
    CURL* const _easy = curl_easy_init();
    curl_slist* _headers = nullptr;
    std::string _body;
};

}  // namespace orvex
