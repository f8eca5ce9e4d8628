// What one request on a kept connection costs through a session, against the floor: libcurl's multi interface alone,
// on one thread, with one handle that keeps its options. Medians of requests made in turn, 4 KiB each; the server is a
// process of its own, pinned to one core with this one. The time ends where the completion begins.

#include <fmt/core.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <semaphore>
#include <string>
#include <string_view>
#include <vector>

#include "benchmarks/http_floor.h"
#include "benchmarks/measuring.h"
#include "platform/linux/curl_session.h"

namespace {

using namespace orvex::platform;
using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr std::size_t bodyBytes = 4096;
constexpr int warmUpRounds = 500;
constexpr int rounds = 10'000;

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
    if (received != bodyBytes) orvex::fail("the session got no answer");
    return Microseconds(end - begin).count();
}

}  // namespace

int main() {
    orvex::pinToOneCore();

    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int port = orvex::listenOnLoopback(listener);
    const pid_t server = ::fork();
    if (server == 0) orvex::serve(listener, [](std::string_view) { return std::string(bodyBytes, 'x'); });

    const URLRequest request = searchRequest(port);
    CurlSessionFactory factory;
    const auto session = factory.makeSession({.label = "benchmark", .allowsFastOpen = true});
    orvex::HTTPFloor floor(request);
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
