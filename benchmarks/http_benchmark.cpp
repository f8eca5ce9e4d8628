// What one request on a kept connection costs through a session, against the floor: libcurl's multi interface alone,
// on one thread, with one handle that keeps its options. Medians of requests made in turn, 4 KiB each; the server is a
// process of its own, pinned to one core with this one. The time ends where the completion begins.

#include <arpa/inet.h>
#include <curl/curl.h>
#include <fmt/core.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <semaphore>
#include <string>
#include <string_view>
#include <vector>

#include "benchmarks/measuring.h"
#include "platform/linux/curl_session.h"

namespace {

using namespace orvex::platform;
using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr std::size_t bodyBytes = 4096;
constexpr int warmUpRounds = 500;
constexpr int rounds = 10'000;

[[noreturn]] void fail(std::string_view what) {
    fmt::print(stderr, "{}\n", what);
    std::_Exit(1);
}

/// Answers every request of one connection after the other with the same bytes.
void serveConnection(int connection) {
    const std::string answer = fmt::format(
        "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: {}\r\n"
        "\r\n{}",
        bodyBytes, std::string(bodyBytes, 'x'));
    std::string received;
    char piece[4096];
    for (ssize_t got = 0; (got = ::recv(connection, piece, sizeof piece, 0)) > 0;) {
        received.append(piece, static_cast<std::size_t>(got));
        if (!received.ends_with("\r\n\r\n")) continue;
        received.clear();
        if (::send(connection, answer.data(), answer.size(), MSG_NOSIGNAL) < 0) return;
    }
}

[[noreturn]] void serve(int listener) {
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
        serveConnection(connection);
        std::_Exit(0);
    }
}

/// The port that the listening socket has got.
int listenOnLoopback(int listener) {
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

/// A search as the daemon sends it, in size and number of parts.
URLRequest searchRequest(int port) {
    return {.url = fmt::format("http://127.0.0.1:{}/search?24h=1&alwaysSendTophit=off&calendar=gregorian&card=1&cc=DE&"
                               "esl=de-DE&kb_ime=de&key=0123456789ab&locale=de_DE&q=weather%20in%20berlin&"
                               "qtype=suggested&temp=C&time_zone=Europe%2FBerlin&units=SI",
                               port),
            .headers = {{"X-Kelvar-Languages", R"(["de-DE","en"])"},
                        {"X-Kelvar-UserGuid", "01234567-89AB-CDEF-0123-456789ABCDEF"},
                        {"User-Agent", "benchmark/1 (PC; Linux 12 x)"},
                        {"X-Kelvar-UI-Scale", "2.0"}}};
}

class Floor {
public:
    explicit Floor(const URLRequest& request) : _url(request.url) {
        for (const auto& [name, value] : request.headers)
            _headers = curl_slist_append(_headers, fmt::format("{}: {}", name, value).c_str());
        curl_easy_setopt(_easy, CURLOPT_HTTPHEADER, _headers);
        curl_easy_setopt(_easy, CURLOPT_WRITEFUNCTION, &_onBody);
        curl_easy_setopt(_easy, CURLOPT_WRITEDATA, &_body);
        curl_easy_setopt(_easy, CURLOPT_ACCEPT_ENCODING, "gzip, deflate");
    }
    ~Floor() {
        curl_easy_cleanup(_easy);
        curl_multi_cleanup(_multi);
        curl_slist_free_all(_headers);
    }
    Floor(const Floor&) = delete;
    Floor& operator=(const Floor&) = delete;

    double time() {
        const auto begin = Clock::now();
        _body.clear();
        curl_easy_setopt(_easy, CURLOPT_URL, _url.c_str());
        curl_multi_add_handle(_multi, _easy);
        for (int running = 1; curl_multi_perform(_multi, &running) == CURLM_OK && running > 0;)
            curl_multi_poll(_multi, nullptr, 0, 1000, nullptr);
        curl_multi_remove_handle(_multi, _easy);
        const auto end = Clock::now();
        if (_body.size() != bodyBytes) fail("the floor got no answer");
        return Microseconds(end - begin).count();
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

double timeSession(URLSession& session, const URLRequest& request) {
    std::binary_semaphore completed(0);
    Clock::time_point end;
    std::size_t received = 0;
    const auto begin = Clock::now();
    const auto task = session.dataTask(request, [&](const Body& data, const auto&, const auto&) {
        end = Clock::now();
        received = data ? data->size() : 0;
        completed.release();
    });
    task->resume();
    completed.acquire();
    if (received != bodyBytes) fail("the session got no answer");
    return Microseconds(end - begin).count();
}

}  // namespace

int main() {
    orvex::pinToOneCore();

    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int port = listenOnLoopback(listener);
    const pid_t server = ::fork();
    if (server == 0) serve(listener);

    const URLRequest request = searchRequest(port);
    CurlSessionFactory factory;
    const auto session = factory.makeSession({.label = "benchmark", .allowsFastOpen = true});
    Floor floor(request);
    std::vector<double> floors, sessions;
    for (int round = -warmUpRounds; round < rounds; ++round) {
        const double alone = floor.time();
        const double through = timeSession(*session, request);
        if (round < 0) continue;
        floors.push_back(alone);
        sessions.push_back(through);
    }
    const double least = orvex::median(floors);
    fmt::print("libcurl multi alone          {:8.1f} us\n", least);
    fmt::print("the same through a session   {:8.1f} us  {:.2f} x\n", orvex::median(sessions),
               orvex::median(sessions) / least);
    ::kill(server, SIGKILL);
    ::waitpid(server, nullptr, 0);
}
