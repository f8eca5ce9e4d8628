// The real daemon on a private bus, against floors of the same run: calls answered without network and an uncached
// search, in turn and on one core; the start until the name is owned; what it takes and does while it is idle.
// daemon_benchmark [SECONDS]: so long it watches the idle daemon, 60 unless given, once all timers of the measuring
// client have run out.

#include <fmt/core.h>
#include <systemd/sd-bus.h>

#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "benchmarks/daemon_process.h"
#include "benchmarks/http_floor.h"
#include "benchmarks/measuring.h"
#include "platform/fakes/private_bus.h"
#include "platform/linux/sd_bus.h"

namespace {

using namespace orvex;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto* name = "com.kelvar.orvexd";
constexpr auto* path = "/com/kelvar/orvexd";
constexpr auto* clientInterface = "com.kelvar.orvexd.Daemon";
constexpr std::size_t bodyBytes = 4096;
constexpr auto* remembered = "remembered";
constexpr int warmUpRounds = 300;
constexpr int rounds = 5000;
constexpr int starts = 60;
constexpr auto clientTimers = 70s;  ///< a client's last transaction ends 60 s after it has left

double microsecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
}

/// A bag of 4 KiB that names the server's search, and as much for each search. What is found for `remembered` may be
/// kept.
std::string bodyFor(std::string_view requestHead, int port) {
    if (requestHead.find(fmt::format("q={}&", remembered)) != std::string_view::npos) {
        std::string list = fmt::format(R"([{{"query":"{}","fill":")", remembered);
        list.append(bodyBytes - list.size() - 3, 'x');
        return list + R"("}])";
    }
    if (!requestHead.starts_with("GET /bag")) return std::string(bodyBytes, 'x');
    std::string bag = fmt::format(R"({{"version":1,"search_url":"http://127.0.0.1:{}/search","fill":")", port);
    bag.append(bodyBytes - bag.size() - 2, 'x');
    return bag + R"("})";
}

/// A client of the bus, and who waits for the name to be owned.
class Client {
public:
    explicit Client(const std::string& address) {
        if (sd_bus_new(&_bus) < 0 || sd_bus_set_address(_bus, address.c_str()) < 0 ||
            sd_bus_set_bus_client(_bus, 1) < 0 || sd_bus_start(_bus) < 0)
            fail("no bus");
        if (sd_bus_match_signal(_bus, nullptr, "org.freedesktop.DBus", nullptr, nullptr, "NameOwnerChanged",
                                &Client::_ownerChanged, this) < 0)
            fail("no match");
    }
    ~Client() { sd_bus_flush_close_unref(_bus); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    [[nodiscard]] sd_bus* bus() const { return _bus; }

    void waitForOwner(bool owned) {
        while (_owned != owned) {
            const int r = sd_bus_process(_bus, nullptr);
            if (r < 0 || (r == 0 && sd_bus_wait(_bus, 10'000'000) <= 0)) fail("the name does not change");
        }
    }

    /// Microseconds of one call. The answer's own arguments are not read.
    template <typename... Arguments>
    double time(const char* interface, const char* member, const char* signature, Arguments... arguments) {
        sd_bus_message* answer = nullptr;
        sd_bus_error error = SD_BUS_ERROR_NULL;
        const auto begin = Clock::now();
        const int r = sd_bus_call_method(_bus, name, path, interface, member, &error, &answer, signature, arguments...);
        const double took = microsecondsSince(begin);
        sd_bus_message_unref(answer);
        if (r < 0) fail(fmt::format("{} failed: {}", member, error.message != nullptr ? error.message : ""));
        return took;
    }

    double ping() { return time("org.freedesktop.DBus.Peer", "Ping", ""); }
    double bag() { return time(clientInterface, "Bag", ""); }
    double search(const std::string& text) {
        return time(clientInterface, "Request", "sa{sv}", "search", 3, "query_id", "t", std::uint64_t{1}, "scale", "d",
                    2.0, "query_string", "s", text.c_str());
    }
    void configure() {
        time(clientInterface, "Configure", "a{sv}", 2, "identifier", "s", "benchmark", "user_agent", "s",
             "benchmark/1");
    }
    /// The size of the bag that the daemon answers with.
    std::size_t bagSize() {
        sd_bus_message* answer = nullptr;
        const char* text = "";
        sd_bus_call_method(_bus, name, path, clientInterface, "Bag", nullptr, &answer, "");
        if (answer != nullptr) sd_bus_message_read_basic(answer, 's', &text);
        const std::size_t size = std::strlen(text);
        sd_bus_message_unref(answer);
        return size;
    }

private:
    static int _ownerChanged(sd_bus_message* signal, void* self, sd_bus_error*) {
        const char *changed = "", *before = "", *now = "";
        if (sd_bus_message_read(signal, "sss", &changed, &before, &now) >= 0 && std::string_view(changed) == name)
            static_cast<Client*>(self)->_owned = *now != '\0';
        return 0;
    }

    sd_bus* _bus = nullptr;
    bool _owned = false;
};

/// The floor of a start: this very program, with the daemon's libraries, takes the name and leaves.
int takeName(const char* address) {
    const auto bus = platform::SdBus::create({.address = address});
    return bus && (*bus)->requestName(name) ? 0 : 1;
}

void measureStart(const std::vector<std::string>& daemon, const std::string& address) {
    Client watcher(address);
    const auto start = [&](const std::vector<std::string>& arguments) {
        const auto begin = Clock::now();
        const pid_t child = spawn(arguments);
        watcher.waitForOwner(true);
        const double took = microsecondsSince(begin);
        end(child);
        watcher.waitForOwner(false);
        return took;
    };
    std::vector<double> floors, daemons;
    for (int i = 0; i < starts; ++i) {
        floors.push_back(start({"/proc/self/exe", "--take-name", address}));
        daemons.push_back(start(daemon));
    }
    const double floor = median(floors);
    fmt::print("a process that takes the name      {:8.1f} us\n", floor);
    fmt::print("cold start to name owned           {:8.1f} us  {:.2f} x\n", median(daemons), median(daemons) / floor);
}

void measureCalls(const std::string& address, int port) {
    Client client(address);
    client.configure();
    for (const auto give_up = Clock::now() + 10s; client.bagSize() < bodyBytes;)
        if (Clock::now() > give_up) fail("the daemon has no bag");
    HTTPFloor http({.url = fmt::format("http://127.0.0.1:{}/search?q=weather%20in%20berlin&key=0123456789ab&cc=DE&"
                                       "locale=de_DE&qtype=prefix&kb_ime=de&esl=de-DE&card=1",
                                       port),
                    .headers = {}});
    std::vector<double> pings, bags, requests, searches, cachedSearches;
    (void)client.search(remembered);
    for (int round = -warmUpRounds; round < rounds; ++round) {
        const double ping = client.ping(), bag = client.bag(), request = http.time();
        // None begins another, so that nothing is answered from memory.
        const double search = client.search(fmt::format("weather{:05}", round + warmUpRounds));
        const double cachedSearch = client.search(remembered);
        if (round < 0) continue;
        pings.push_back(ping);
        bags.push_back(bag);
        requests.push_back(request);
        searches.push_back(search);
        cachedSearches.push_back(cachedSearch);
    }
    const double ping = median(pings), bag = median(bags), request = median(requests), search = median(searches);
    const double cachedSearch = median(cachedSearches);
    fmt::print("Peer.Ping                          {:8.1f} us\n", ping);
    fmt::print("Bag, 4 KiB                         {:8.1f} us  {:.2f} x\n", bag, bag / ping);
    fmt::print("cached search, 4 KiB               {:8.1f} us  {:.2f} x\n", cachedSearch, cachedSearch / ping);
    fmt::print("libcurl multi alone + Peer.Ping    {:8.1f} us\n", request + ping);
    fmt::print("uncached search, 4 KiB             {:8.1f} us  {:.2f} x\n", search, search / (request + ping));
}

long wakeUps(pid_t process) {
    long sum = 0;
    for (const auto& task : std::filesystem::directory_iterator(fmt::format("/proc/{}/task", process)))
        sum += numberIn(task.path() / "status", "voluntary_ctxt_switches:");
    return sum;
}

void measureIdle(pid_t daemon, std::chrono::seconds watched) {
    std::this_thread::sleep_for(clientTimers);
    const long before = wakeUps(daemon);
    std::this_thread::sleep_for(watched);
    const long woken = wakeUps(daemon) - before;
    const auto resident = static_cast<double>(numberIn(fmt::format("/proc/{}/status", daemon), "VmRSS:")) / 1024;
    fmt::print("resident after the searches        {:8.1f} MiB\n", resident);
    fmt::print("wake-ups in {:3} s                  {:8}\n", watched.count(), woken);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string_view(argv[1]) == "--take-name") return takeName(argv[2]);
    pinToOneCore();
    const std::chrono::seconds watched(argc > 1 ? std::strtol(argv[1], nullptr, 10) : 60);

    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int port = listenOnLoopback(listener);
    const pid_t server = ::fork();
    if (server == 0) serve(listener, [port](std::string_view head) { return bodyFor(head, port); });

    const auto home = newHome();
    if (home.empty()) fail("no temporary directory");

    platform::PrivateBus bus;
    const std::vector<std::string> daemon = {ORVEXD, "--bus", bus.address(), "--default",
                                             fmt::format("ORXBagURL=http://127.0.0.1:{}/bag", port)};
    measureStart(daemon, bus.address());
    {
        Client watcher(bus.address());
        const pid_t process = spawn(daemon);
        watcher.waitForOwner(true);
        measureCalls(bus.address(), port);
        std::fflush(stdout);
        if (watched.count() > 0) measureIdle(process, watched);
        end(process);
    }
    end(server);
    std::filesystem::remove_all(home);
}
