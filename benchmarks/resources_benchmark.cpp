// The real daemon with a bag that lists 200 resources of 64 KiB: how long it takes from the first request until all are
// installed, over how many connections, and what memory that takes. The minute before the first request is not counted.

#include <fmt/format.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "benchmarks/daemon_process.h"
#include "platform/fakes/private_bus.h"
#include "platform/fakes/scripted_server.h"

namespace {

using namespace orvex;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::size_t resources = 200;
constexpr std::size_t resourceBytes = std::size_t{64} << 10;
constexpr auto patience = 300s;

std::string identifier(std::size_t number) { return fmt::format("resource_{}", number); }

std::string bag(const platform::ScriptedServer& server) {
    std::string list, urls;
    for (std::size_t number = 0; number < resources; ++number) {
        list += fmt::format(R"({}"{}")", number == 0 ? "" : ",", identifier(number));
        urls += fmt::format(R"(,"{}":"{}?version=1")", identifier(number), server.url("/" + identifier(number)));
    }
    return fmt::format(R"({{"version":"1","download_resources_list":[{}]{}}})", list, urls);
}

std::size_t installed(const std::filesystem::path& caches) {
    std::size_t count = 0;
    for (std::size_t number = 0; number < resources; ++number)
        count += std::filesystem::exists(caches / identifier(number));
    return count;
}

}  // namespace

int main() {
    const auto home = newHome();
    std::atomic<Clock::time_point> first{Clock::time_point()};
    platform::ScriptedServer server([](const auto&) { return platform::answerWith(404); });
    server.setScript([&](const platform::ReceivedRequest& request) {
        if (request.target.starts_with("/bag")) return platform::answerWith(200, {}, bag(server));
        auto none = Clock::time_point();
        first.compare_exchange_strong(none, Clock::now());
        return platform::answerWith(200, {}, std::string(resourceBytes, 'x'));
    });
    const platform::PrivateBus bus;
    const pid_t daemon = spawn({ORVEXD, "--bus", bus.address(), "--default", "ORXBagURL=" + server.url("/bag")});

    const std::filesystem::path caches = std::filesystem::path(home) / "com.kelvar.orvexd";
    const auto begin = Clock::now();
    while (installed(caches) < resources && Clock::now() - begin < patience) std::this_thread::sleep_for(2ms);
    const std::chrono::duration<double> took = Clock::now() - first.load();
    const auto inMiB = [&](std::string_view key) {
        return static_cast<double>(numberIn(fmt::format("/proc/{}/status", daemon), key)) / 1024;
    };
    fmt::print("installed       {:8} of {}\n", installed(caches), resources);
    fmt::print("first to last   {:8.2f} s\n", took.count());
    fmt::print("connections     {:8} (one of them for the bag)\n", server.connections());
    fmt::print("resident        {:8.1f} MiB, at most {:.1f}\n", inMiB("VmRSS:"), inMiB("VmHWM:"));
    end(daemon);
    std::filesystem::remove_all(home);
}
