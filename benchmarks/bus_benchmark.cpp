// What a call with a reply of 4 KiB costs on the bus, against Peer.Ping to the same process: the floor, which sd-bus
// answers by itself. Medians of calls made in turn; the service is a process of its own, pinned with this one.

#include <fmt/core.h>
#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <mutex>
#include <semaphore>
#include <thread>
#include <vector>

#include "benchmarks/measuring.h"
#include "platform/fakes/private_bus.h"
#include "platform/linux/sd_bus.h"

namespace {

using namespace orvex::platform;
using Clock = std::chrono::steady_clock;

constexpr auto* name = "com.kelvar.benchmark";
constexpr auto* path = "/com/kelvar/benchmark";
constexpr auto* interface = "com.kelvar.benchmark.Service";
constexpr int rounds = 5000;

/// Answers `Inline` on the bus thread and `Handed` on another one, as a connection's queue would.
[[noreturn]] void serve(const std::string& address) {
    auto bus = SdBus::create({.address = address});
    if (!bus) std::_Exit(1);
    const auto body = BusBytes::of(std::string(4096, 'x'));
    const auto answer = [body](BusCall& call) {
        call.reply.answer({*call.arguments[1].as<BusDictionary>()->find("query_id")->as<std::uint64_t>(),
                           BusDictionary{}.set("scale", 2.0).set("data", body), BusDictionary{}});
    };
    std::mutex mutex;
    std::vector<BusCall> handed;
    std::counting_semaphore<> came(0);
    const std::jthread other([&] {
        for (;;) {
            came.acquire();
            std::vector<BusCall> calls;
            {
                const std::lock_guard lock(mutex);
                calls.swap(handed);
            }
            for (auto& call : calls) answer(call);
        }
    });
    const auto method = [](const char* member) {
        return BusMember{member, "sa{sv}", {"kind", "request"}, "ta{sv}a{sv}", {"query_id", "reply", "error"}};
    };
    const auto exported =
        (*bus)->exportObject(path, {{interface, {method("Inline"), method("Handed")}, {}}}, [&](BusCall call) {
            if (call.member == "Inline") return answer(call);
            {
                const std::lock_guard lock(mutex);
                handed.push_back(std::move(call));
            }
            came.release();
        });
    if (!exported || !(*bus)->requestName(name)) std::_Exit(1);
    for (;;) ::pause();
}

/// Microseconds of one call; ends the program when it fails.
double timeCall(sd_bus* bus, const char* member) {
    const auto begin = Clock::now();
    sd_bus_message* answer = nullptr;
    const bool ping = std::string_view(member) == "Ping";
    const int r =
        ping ? sd_bus_call_method(bus, name, path, "org.freedesktop.DBus.Peer", member, nullptr, &answer, "")
             : sd_bus_call_method(bus, name, path, interface, member, nullptr, &answer, "sa{sv}", "search", 3,
                                  "query_id", "t", std::uint64_t{1}, "scale", "d", 2.0, "query_string", "s", "weather");
    const std::chrono::duration<double, std::micro> took = Clock::now() - begin;
    sd_bus_message_unref(answer);
    if (r < 0) {
        fmt::print(stderr, "{} failed: {}\n", member, r);
        std::_Exit(1);
    }
    return took.count();
}

bool waitForService(sd_bus* bus) {
    for (const auto end = Clock::now() + std::chrono::seconds(10); Clock::now() < end;) {
        sd_bus_message* answer = nullptr;
        const int r = sd_bus_call_method(bus, name, path, "org.freedesktop.DBus.Peer", "Ping", nullptr, &answer, "");
        sd_bus_message_unref(answer);
        if (r >= 0) return true;
    }
    return false;
}

}  // namespace

int main() {
    orvex::pinToOneCore();

    PrivateBus daemon;
    const pid_t service = ::fork();
    if (service == 0) serve(daemon.address());

    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, daemon.address().c_str()) < 0 ||
        sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0 || !waitForService(bus)) {
        fmt::print(stderr, "the service does not come up\n");
        return 1;
    }
    std::vector<double> pings, inlines, handed;
    for (int i = 0; i < rounds; ++i) {
        pings.push_back(timeCall(bus, "Ping"));
        inlines.push_back(timeCall(bus, "Inline"));
        handed.push_back(timeCall(bus, "Handed"));
    }
    const double floor = orvex::median(pings);
    fmt::print("Peer.Ping                                {:8.1f} us\n", floor);
    for (auto& [what, times] : {std::pair("4 KiB reply, answered on the bus thread ", &inlines),
                                std::pair("4 KiB reply, answered on another thread ", &handed)}) {
        fmt::print("{} {:8.1f} us  {:.2f} x\n", what, orvex::median(*times), orvex::median(*times) / floor);
    }
    sd_bus_flush_close_unref(bus);
    ::kill(service, SIGKILL);
    ::waitpid(service, nullptr, 0);
}
