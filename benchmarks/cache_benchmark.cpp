// Keeping an answer: a body of some KiB decoded and put into the query cache, as a search does it, against Boost.JSON
// alone, which decodes it into a monotonic resource. Medians of runs in turn, on one core. Then, without a floor, a
// look-up in a full cache; and the memory that an entry takes against what it is charged.

#include <fmt/core.h>
#include <malloc.h>

#include <boost/json.hpp>
#include <chrono>

#include "benchmarks/measuring.h"
#include "core/json.h"
#include "core/orx_request.h"
#include "daemon/assembly.h"
#include "platform/fakes/fake_platform.h"
#include "platform/linux/thread_dispatcher.h"
#include "query/query_cache.h"

namespace {

using namespace orvex;
using Clock = std::chrono::steady_clock;

template <class Work>
double microseconds(Work work) {
    const auto begin = Clock::now();
    work();
    return std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
}

/// The cache on the real threads.
class World {
public:
    World() { _dispatcher.start(); }

    QueryCache& cache() { return *_cache; }
    platform::Dispatcher& dispatcher() { return _dispatcher; }

private:
    platform::ThreadDispatcher _dispatcher;
    platform::FakeUserDefaults _defaults;
    platform::FakeFileManager _files;
    platform::FakePlatform _platform{_dispatcher, _files, _defaults};
    Assembly _assembly{_platform.as<Assembly::Platform>()};
    const std::shared_ptr<QueryCache> _cache = QueryCache::create(_assembly);
};

/// An answer as servers give it: a few result sets, with a list of results in each.
std::string answerOf(std::size_t bytes) {
    boost::json::array answer;
    for (int i = 0; boost::json::serialize(answer).size() + 500 < bytes; ++i) {
        boost::json::array results;
        for (int n = 0; n < 4; ++n) {
            results.push_back({{"title", fmt::format("Result {} of set {}", n, i)},
                               {"url", fmt::format("https://www.example.com/articles/{}/{}", i, n)},
                               {"score", 0.25 * n},
                               {"is_top_hit", n == 0}});
        }
        answer.push_back({{"query", fmt::format("weather {}", i)},
                          {"status", "OK"},
                          {"max_age", 3600},
                          {"completion_score", 0.5},
                          {"results", std::move(results)}});
    }
    auto text = boost::json::serialize(answer);
    text.append(bytes - std::min(bytes, text.size()), ' ');
    return text;
}

platform::URLRequest searchRequest() {
    platform::URLRequest request;
    request.url =
        "https://search.example/search?card=1&cc=DE&calendar=gregorian&esl=de-DE&kb_ime=de&key=0123456789ab&"
        "locale=de_DE&q=weather&qtype=prefix&suggest_queries=withtop&temp=C&time_zone=Europe%2FBerlin&units=metric&24h="
        "1";
    request.headers = {{"User-Agent", "orvexd/1 (Linux) Lumisk/1"}, {"X-Kelvar-UI-Scale", "2.0"}};
    return request;
}

void keep(World& world, const platform::URLRequest& request, const platform::Body& body) {
    boost::json::monotonic_resource memory(body->size());
    const auto decoded = parseJSON(*body, kReplyJSONDepth, &memory);
    const auto response =
        std::make_shared<const CachedResponse>("weather", request, "UUID", body, world.dispatcher().now());
    for (auto& entry : resultSetsIn(*decoded, response)) world.cache().set(std::move(entry));
    (void)world.cache().count();  // it waits until all are there
}

void measureKeeping(World& world, std::size_t bytes) {
    const auto request = searchRequest();
    const auto body = std::make_shared<const std::string>(answerOf(bytes));
    std::vector<double> kept, decoded;
    for (int i = 0; i < 3000; ++i) {
        kept.push_back(microseconds([&] { keep(world, request, body); }));
        decoded.push_back(microseconds([&] {
            boost::json::monotonic_resource memory(body->size());
            boost::json::error_code error;
            const auto value = boost::json::parse(*body, error, &memory);
            if (error || value.get_array().empty()) std::abort();
        }));
    }
    const double ofKept = median(kept), ofDecoded = median(decoded);
    world.cache().removeAllObjects();
    keep(world, request, body);
    fmt::print("decode and keep {:3} KiB, {:3} answers  {:8.1f} us  Boost.JSON alone {:8.1f} us  {:.2f} x\n",
               bytes / 1024, world.cache().count(), ofKept, ofDecoded, ofKept / ofDecoded);
}

void measureLookUp(World& world) {
    const auto request = searchRequest();
    world.cache().removeAllObjects();
    const auto body = std::make_shared<const std::string>("[]");
    const auto response = std::make_shared<const CachedResponse>("we", request, "UUID", body, world.dispatcher().now());
    constexpr int entries = 2000;
    for (int i = 0; i < entries; ++i) {
        world.cache().set(std::make_shared<const CachedResultSet>(
            response, boost::json::object{{"query", fmt::format("weather {:04}", i)}}));
    }
    for (const auto* input : {"weather 1234", "weather 123", "weather 12", "weather 1", "we"}) {
        ORXSearchRequest search;
        search.queryString = input;
        std::vector<double> times;
        for (int i = 0; i < 3000; ++i) {
            times.push_back(microseconds([&] {
                if (!world.cache().getRequest(search, &request)) std::abort();
            }));
        }
        fmt::print("look-up of \"{}\" among {}       {:8.1f} us\n", input, entries, median(times));
    }
}

void measureMemory(World& world) {
    for (const std::size_t bytes : {std::size_t{64}, std::size_t{1024}, std::size_t{4096}}) {
        const auto request = searchRequest();
        world.cache().removeAllObjects();
        constexpr int entries = 300;
        const auto before = ::mallinfo2().uordblks;
        for (int i = 0; i < entries; ++i) {
            const auto response = std::make_shared<const CachedResponse>(
                "weather", request, "01234567-89AB-CDEF-0123-456789ABCDEF",
                std::make_shared<const std::string>(bytes, 'x'), world.dispatcher().now());
            world.cache().set(std::make_shared<const CachedResultSet>(
                response, boost::json::object{{"query", fmt::format("weather in the town {:04}", i)}}));
        }
        const auto usage = world.cache().usage();
        const auto taken = ::mallinfo2().uordblks - before;
        fmt::print("an entry with a body of its own of {:4} bytes takes {:5} bytes, is charged {:5}\n", bytes,
                   taken / usage.entries, usage.cost / usage.entries);
    }
}

}  // namespace

int main() {
    ::mallopt(M_ARENA_MAX, 1);  // what is taken is then seen in one place
    pinToOneCore();
    World world;
    for (const std::size_t bytes : {std::size_t{4096}, std::size_t{102'400}}) measureKeeping(world, bytes);
    measureLookUp(world);
    measureMemory(world);
    return 0;
}
