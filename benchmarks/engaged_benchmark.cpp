// What the engaged completions cost with 10,000 rows: a search against the same statement, prepared once, on a bare
// connection; an insert against a bare one in WAL mode. Medians of runs made in turn, this process pinned to one core.
// A search is handed to another thread and back, which the last column takes off: with it the ratio is that of the
// search itself. Then, without a floor: inserts that purge, the first answer after the start, and how late a search
// comes back that exceeds its time-out.

#include <fmt/core.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <random>
#include <semaphore>

#include "benchmarks/measuring.h"
#include "platform/counters.h"
#include "platform/fakes/fake_user_defaults.h"
#include "platform/fakes/temporary_directory.h"
#include "platform/linux/thread_dispatcher.h"
#include "platform/transactions.h"
#include "query/engaged_completion_cache.h"
#include "query/engaged_text.h"

namespace {

using namespace orvex;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int rows = 10'000;
constexpr std::chrono::seconds patience = 60s;

constexpr char searchSQL[] =
    "SELECT completion, origin, SUM(CASE WHEN engagement_date > ?1 THEN ?12 WHEN engagement_date > ?2 THEN ?13 "
    "WHEN engagement_date > ?3 THEN ?14 WHEN engagement_date > ?4 THEN ?15 WHEN engagement_date > ?5 THEN ?16 "
    "ELSE 0 END) + (?17 * MAX(engagement_date) / ?6) AS score FROM completion_cache_engagement "
    "WHERE (input BETWEEN ?7 AND ?8 OR transformed BETWEEN ?9 AND ?10) AND client == ?11 "
    "GROUP BY completion ORDER BY score DESC LIMIT ?18";
constexpr char insertSQL[] = "INSERT INTO completion_cache_engagement VALUES (?1, ?2, ?3, ?4, ?5, ?6)";

double microseconds(const std::function<void()>& work) {
    const auto begin = Clock::now();
    work();
    return std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
}

/// Medians of work and floor, in turn.
std::pair<double, double> inTurn(int rounds, const std::function<void()>& work, const std::function<void()>& floor) {
    std::vector<double> ofWork, ofFloor;
    for (int i = 0; i < rounds; ++i) {
        ofWork.push_back(microseconds(work));
        ofFloor.push_back(microseconds(floor));
    }
    return {median(ofWork), median(ofFloor)};
}

void check(bool good, const char* what) {
    if (good) return;
    fmt::print(stderr, "engaged_benchmark: {}\n", what);
    std::exit(1);
}

std::string word(std::mt19937& random) {
    std::string text;
    for (int i = 0; i < 8; ++i) text += static_cast<char>('a' + random() % 26);
    return text;
}

/// The platform and the cache on it; a new one is a new start.
class World {
public:
    explicit World(const std::string& home) : _files(platform::fileManagerBelow(home)) { _dispatcher.start(); }

    EngagedCompletionCache& cache() { return *_cache; }
    platform::ThreadDispatcher& dispatcher() { return _dispatcher; }

    void add(const std::string& completion, std::uint64_t maxRows = 2 * rows + 100'000) {
        std::binary_semaphore answered(0);
        _cache->addCompletion(
            {.completion = completion, .input = completion, .origin = 3, .client = 2, .maxRows = maxRows},
            [&](const platform::Result<void>& added) {
                check(added.has_value(), "an insert failed");
                answered.release();
            });
        answered.acquire();
    }
    std::size_t find(const std::string& input, std::chrono::nanoseconds timeout = patience) {
        return _cache->completionsForInput(input, 2, 3, timeout).size();
    }

private:
    const std::unique_ptr<platform::FileManager> _files;
    platform::FakeUserDefaults _defaults;
    platform::Counters _counters;
    platform::ThreadDispatcher _dispatcher;
    std::shared_ptr<platform::Transactions> _transactions = std::make_shared<platform::Transactions>(_dispatcher);
    const std::shared_ptr<EngagedCompletionCache> _cache =
        EngagedCompletionCache::create({.dispatcher = _dispatcher,
                                        .userDefaults = _defaults,
                                        .fileManager = *_files,
                                        .counters = _counters,
                                        .transactions = *_transactions});
};

std::int64_t today() {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

/// Rows of the last 30 days but one, put in by SQL.
void fill(platform::SQLiteDatabase& database, int count, std::int64_t age = 0) {
    std::mt19937 random(3);
    check(database.execute("BEGIN") == SQLITE_OK, "no rows can be put in");
    for (int i = 0; i < count; ++i) {
        const auto text = word(random);
        auto run = database.run(insertSQL);
        run.bind(1, text).bind(2, text).bind(3, today() - age - static_cast<std::int64_t>(random() % 2'500'000));
        run.bind(4, "se").bind(5, std::int64_t{2}).bind(6, text);
        check(run.finish() == SQLITE_OK, "no rows can be put in");
    }
    check(database.execute("COMMIT") == SQLITE_OK, "no rows can be put in");
}

void bareSearch(platform::SQLiteDatabase& database, const std::string& input) {
    const auto end = endOfPrefixRange(input);
    const auto now = today();
    const double weights[] = {10, 1, 0.1, 0.01, 0.001, 1};
    auto run = database.run(searchSQL);
    int position = 1;
    for (const std::int64_t age : {3'600, 86'400, 604'800, 2'592'000, 31'536'000}) run.bind(position++, now - age);
    run.bind(6, now).bind(7, input).bind(8, end).bind(9, input).bind(10, end).bind(11, std::int64_t{2});
    for (int i = 0; i < 6; ++i) run.bind(12 + i, weights[i]);
    run.bind(18, std::int64_t{3});
    check(run.finish() == SQLITE_OK, "the bare search failed");
}

void bareInsert(platform::SQLiteDatabase& database, const std::string& text) {
    auto run = database.run(insertSQL);
    run.bind(1, text).bind(2, text).bind(3, today()).bind(4, "se").bind(5, std::int64_t{2}).bind(6, text);
    check(run.finish() == SQLITE_OK, "the bare insert failed");
}

/// To another thread and back, as a search goes.
double handOff(World& world) {
    std::vector<double> times;
    for (int i = 0; i < 3000; ++i) {
        times.push_back(microseconds([&] {
            const auto group = std::make_shared<platform::TaskGroup>(world.dispatcher());
            group->enter();
            world.dispatcher().submit(platform::Priority::standard, [group] { group->leave(); });
            (void)group->wait(patience);
        }));
    }
    return median(times);
}

}  // namespace

int main() {
    pinToOneCore();
    const platform::TemporaryDirectory home;
    const auto path = home / ".cache/com.kelvar.orvexd/EngagedCompletions/Cache.db";
    {
        World world(home.path());
        world.add("zzzzzzzz");  // the file is there once it is answered
    }
    platform::SQLiteDatabase other;
    check(other.open(path, SQLITE_OPEN_READWRITE) == SQLITE_OK, "the database cannot be opened");
    fill(other, rows - 1);

    std::vector<double> first;
    for (int i = 0; i < 20; ++i) {
        std::optional<World> world;
        first.push_back(microseconds([&] {
            world.emplace(home.path());
            check(world->find("zzzzzzzz") == 1, "the first search found nothing");
        }));
    }

    World world(home.path());
    (void)world.find("a");
    const double handedOff = handOff(world);
    fmt::print("a hand-off to another thread and back: {:.1f} µs\n\n", handedOff);
    fmt::print("{:<28}{:>10}{:>10}{:>8}{:>18}\n", "", "µs", "bare µs", "ratio", "without hand-off");
    const auto report = [&](const std::string& what, std::pair<double, double> times) {
        const auto [work, floor] = times;
        fmt::print("{:<28}{:>10.1f}{:>10.1f}{:>8.2f}{:>18.2f}\n", what, work, floor, work / floor,
                   (work - handedOff) / floor);
    };
    std::mt19937 random(3);
    const auto known = word(random);  // the first row that was put in
    for (const std::size_t letters : {1, 2, 3, 5}) {
        const auto input = known.substr(0, letters);
        const int rounds = letters == 1 ? 1000 : 5000;
        report(fmt::format("search, {} letters", letters),
               inTurn(rounds, [&] { (void)world.find(input); }, [&] { bareSearch(other, input); }));
    }

    const platform::TemporaryDirectory bareHome;
    platform::SQLiteDatabase bare;
    const auto barePath = std::filesystem::canonical(bareHome.path()).string() + "/bare.db";
    check(bare.open(barePath, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) == SQLITE_OK, "no bare database");
    check(bare.execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; "
                       "CREATE TABLE completion_cache_engagement(completion TEXT, input TEXT, engagement_date INT, "
                       "origin TEXT, client INT, transformed TEXT); "
                       "CREATE INDEX transformed_index ON completion_cache_engagement(transformed); "
                       "CREATE INDEX input_index ON completion_cache_engagement(input);") == SQLITE_OK,
          "no bare database");
    fill(bare, rows);
    std::string text;
    report("insert, nothing due",
           inTurn(5000, [&] { world.add(text = word(random)); }, [&] { bareInsert(bare, text); }));

    std::vector<double> limited, purging;
    for (int i = 0; i < 50; ++i) limited.push_back(microseconds([&] { world.add(word(random), rows); }));
    for (int i = 0; i < 50; ++i) {
        fill(other, 1, 2'592'001);
        purging.push_back(microseconds([&] { world.add(word(random)); }));
    }
    fmt::print("\ninsert at the client's limit: {:.0f} µs; with a row to purge: {:.0f} µs\n", median(limited),
               median(purging));
    fmt::print("first answer after the start, file of {} rows: {:.1f} ms\n", rows, median(first) / 1000);

    fill(other, 1'000'000);
    constexpr auto timeout = 5ms;
    std::vector<double> late, next;
    for (int i = 0; i < 50; ++i) {
        late.push_back(microseconds([&] { check(world.find("", timeout) == 0, "no search was late"); }));
        next.push_back(microseconds([&] { check(world.find("zzzzzzzz") == 1, "nothing found"); }));
    }
    fmt::print(
        "a search of 1,000,000 rows with a time-out of {} ms returns after {:.2f} ms (median), {:.2f} ms (worst); "
        "the next takes {:.2f} ms\n",
        timeout.count(), median(late) / 1000, *std::ranges::max_element(late) / 1000, median(next) / 1000);
    return 0;
}
