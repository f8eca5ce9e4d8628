// What building a search request costs whose context is full, in time and allocations, against Peer.Ping to another
// process on the same core. The platform is the real one, but for what is told of location, routine and applications.

#include <fmt/core.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <boost/json.hpp>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <new>

#include "benchmarks/measuring.h"
#include "core/json.h"
#include "core/notifications.h"
#include "core/orx_bag.h"
#include "core/orx_request.h"
#include "daemon/assembly.h"
#include "network/app_whitelist_signature.h"
#include "network/location_manager.h"
#include "network/orvex_subscription_manager.h"
#include "network/orx_network_request_factory.h"
#include "platform/fakes/fake_platform.h"
#include "platform/fakes/private_bus.h"
#include "platform/fakes/temporary_directory.h"
#include "platform/linux/file_manager.h"
#include "platform/linux/file_watcher.h"
#include "platform/linux/sd_bus.h"
#include "platform/linux/thread_dispatcher.h"
#include "platform/linux/user_defaults.h"

namespace {
std::size_t allocations = 0;  // of the one thread that builds; another's would only add to it
}

[[gnu::noinline]] void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

using namespace orvex;
using Clock = std::chrono::steady_clock;

constexpr int rounds = 2000;
constexpr int builds = 50;  ///< a round
constexpr auto* name = "com.kelvar.benchmark";

constexpr std::string_view bagText =
    R"({"search_url": "https://search.orvex.example/v2/search", "send_geo_environment_header": true,
        "supported_geo_location_sources": ["gps", "wifi"], "subscription_provider_domain_whitelist": ["tv.example"],
        "subscription_provider_bundle_identifier_whitelist": []})";

struct Signature final : AppWhitelistSignature {
    [[nodiscard]] std::optional<std::string> whitelistSignature() const override { return std::string(80, 'S'); }
};

/// A factory with all that a device can tell, and a search that carries all that a client can.
class World {
public:
    World() {
        _defaults.registerDefaults({{"ORXMapsEnvironment", "production"}, {"ORXMapsClientMetadata", "metadata"}});
        _dispatcher.start();
        _assembly.setLocationManager(LocationManager::create(_assembly));
        _assembly.setRequestFactory(ORXNetworkRequestFactory::create(_assembly));
        _assembly.setSubscriptionManager(OrvexSubscriptionManager::create(_assembly, _assembly.requestFactory()));
        _assembly.setAppWhitelistController(std::make_shared<Signature>());
        _platform.policy.write(R"({"managed_account": true})");
        _platform.dictionaries.install({"de", "en"});
        _platform.subscriptions.write(R"({"storefront": "143443", "weft": true})");
        factory().setSilhouetteTopics(R"({"sil": "weather,sports"})");
        auto raw = parseJSON(bagText, kBagJSONDepth).value().as_object();
        _bag = std::make_shared<const ORXBag>(std::make_shared<const boost::json::object>(std::move(raw)), "lumisk/1");
        _platform.notifications.post(ORXBagChangeNotification{_bag});
        (void)_assembly.subscriptionManager()->subscriptions();  // waits for its queue
        _platform.location.report({.latitude = 52.52, .longitude = 13.405, .horizontalAccuracy = 12, .type = 1});
        factory().flushContextAccessQueue();
        _search.queryString = "weather in berlin";
        _search.scale = 2;
        _search.triggerEvent = 22;
        _search.keyboardInputMode = "de";
        _search.l2Version = "12";
        _search.l3Version = "34";
        _search.topTopics = R"({"weather":0.5})";
        _search.completionCacheSuggestions = {{.suggestion = "weather tomorrow", .score = 0.75, .type = 7}};
        while (!build().url.contains("&dicts=de")) ::usleep(100);  // comes last, from the background
        if (build().headers.size() != 10) fmt::print(stderr, "request_benchmark: the context is not full\n");
    }

    platform::URLRequest build() { return factory().searchRequest(_search, *_bag, _userGUID).value(); }

private:
    ORXNetworkRequestFactory& factory() { return *_assembly.requestFactory(); }

    platform::TemporaryDirectory _home;
    platform::LinuxFileManager _files{platform::LinuxFileManager::Environment{.home = _home.path()}};
    platform::ThreadDispatcher _dispatcher;
    platform::FileWatcher _watcher;
    platform::LinuxUserDefaults _defaults{_files, _watcher};
    platform::FakePlatform _platform{_dispatcher, _files, _defaults};
    Assembly _assembly{_platform.as<Assembly::Platform>()};
    const std::string _userGUID = "0F8FAD5B-D9CB-469F-A165-70867728950E";
    std::shared_ptr<const ORXBag> _bag;
    ORXSearchRequest _search{};
};

[[noreturn]] void serve(const std::string& address) {
    const auto bus = platform::SdBus::create({.address = address});
    if (!bus || !(*bus)->requestName(name)) std::_Exit(1);
    for (;;) ::pause();
}

double nanosecondsOf(auto&& work) {
    const auto begin = Clock::now();
    work();
    return std::chrono::duration<double, std::nano>(Clock::now() - begin).count();
}

bool ping(sd_bus* bus) {
    return sd_bus_call_method(bus, name, "/", "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr, "") >= 0;
}

}  // namespace

int main() {
    pinToOneCore();
    const platform::PrivateBus daemon;
    const pid_t service = ::fork();
    if (service == 0) serve(daemon.address());
    sd_bus* bus = nullptr;
    const bool connected = sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, daemon.address().c_str()) >= 0 &&
                           sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0;
    const auto end = Clock::now() + std::chrono::seconds(10);
    while (connected && !ping(bus) && Clock::now() < end) continue;

    World world;
    std::vector<double> buildTimes, pingTimes;
    for (int round = 0; round < rounds; ++round) {
        buildTimes.push_back(nanosecondsOf([&] {
                                 for (int i = 0; i < builds; ++i) (void)world.build();
                             }) /
                             builds);
        pingTimes.push_back(nanosecondsOf([&] { (void)ping(bus); }));
    }
    const std::size_t before = allocations;
    const auto request = world.build();
    const std::size_t made = allocations - before;
    const double building = median(buildTimes), floor = median(pingTimes);
    fmt::print("Peer.Ping                                {:8.0f} ns\n", floor);
    fmt::print("a search request with a full context     {:8.0f} ns  {:.3f} x  {} allocations, {} bytes of URL\n",
               building, building / floor, made, request.url.size());
    sd_bus_flush_close_unref(bus);
    ::kill(service, SIGKILL);
    ::waitpid(service, nullptr, 0);
}
