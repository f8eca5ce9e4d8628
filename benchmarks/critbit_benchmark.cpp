#include <absl/container/btree_map.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "benchmarks/textbook_critbit.h"
#include "resources/critbit.h"

// From a typed prefix to its first match. Keys are words as users type them, of one to three parts; prefixes are the
// first half of keys, asked for in random order. Run on one core: taskset -c 0 critbit_benchmark

namespace orvex {
namespace {

const std::vector<std::string>& keys(std::size_t count) {
    static std::map<std::size_t, std::vector<std::string>> made;
    auto& keys = made[count];
    if (!keys.empty()) return keys;
    std::mt19937 random(7);
    static const char* const syllables[] = {"ka",   "ro", "mi", "ten", "lu", "wea",
                                            "ther", "st", "an", "do",  "vi", "que"};
    while (keys.size() < count) {
        while (keys.size() < count) {
            std::string key;
            for (unsigned part = 0, parts = 1 + random() % 3; part < parts; ++part) {
                if (part > 0) key += ' ';
                for (unsigned n = 0, syllablesOfPart = 2 + random() % 3; n < syllablesOfPart; ++n)
                    key += syllables[random() % std::size(syllables)];
            }
            keys.push_back(std::move(key));
        }
        std::ranges::sort(keys);
        keys.erase(std::ranges::unique(keys).begin(), keys.end());
    }
    std::ranges::shuffle(keys, random);
    return keys;
}

std::vector<std::string> prefixes(std::size_t count) {
    std::vector<std::string> prefixes;
    for (const auto& key : keys(count)) prefixes.push_back(key.substr(0, (key.size() + 1) / 2));
    std::ranges::shuffle(prefixes, std::mt19937(11));
    if (prefixes.size() > 65'536) prefixes.resize(65'536);
    return prefixes;
}

template <class Find>
void measure(benchmark::State& state, Find find) {
    const auto asked = prefixes(static_cast<std::size_t>(state.range(0)));
    std::size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(find(asked[next]));
        if (++next == asked.size()) next = 0;
    }
}

void textbookCritbit(benchmark::State& state) {
    textbook::Tree tree;
    for (const auto& key : keys(static_cast<std::size_t>(state.range(0)))) textbook::insert(&tree, key.c_str());
    measure(state, [&](const std::string& prefix) {
        const char* first = nullptr;
        textbook::allprefixed(&tree, prefix.c_str(), [&](const char* key) {
            first = key;
            return 0;
        });
        return first;
    });
    textbook::clear(tree.root);
}

void critbitTree(benchmark::State& state) {
    CritbitTree<int> tree;
    for (const auto& key : keys(static_cast<std::size_t>(state.range(0)))) tree.setObject(nullptr, key);
    measure(state, [&](const std::string& prefix) {
        const char* first = nullptr;
        tree.keysMatchingPrefix(prefix, [&](std::string_view key, bool& stop) {
            first = key.data();
            stop = true;
        });
        return first;
    });
}

void critbitFunctions(benchmark::State& state) {
    critbit_tree tree;
    for (const auto& key : keys(static_cast<std::size_t>(state.range(0))))
        critbit_insert(tree, key.c_str(), nullptr, CritbitPresent::keep);
    measure(state, [&](const std::string& prefix) {
        const char* first = nullptr;
        const auto visit = [](const char* key, void* context) {
            *static_cast<const char**>(context) = key;
            return 0;
        };
        critbit_allprefixed(tree, prefix.c_str(), visit, &first);
        return first;
    });
    critbit_clear(tree);
}

template <class Map>
void ordered(benchmark::State& state) {
    Map map;
    for (const auto& key : keys(static_cast<std::size_t>(state.range(0)))) map.emplace(key, 0);
    measure(state, [&](const std::string& prefix) {
        const auto found = map.lower_bound(prefix);
        return found != map.end() && found->first.starts_with(prefix) ? found->first.data() : nullptr;
    });
}
void sortedMap(benchmark::State& state) { ordered<std::map<std::string, int>>(state); }
void btree(benchmark::State& state) { ordered<absl::btree_map<std::string, int>>(state); }

void sortedVector(benchmark::State& state) {
    auto sorted = keys(static_cast<std::size_t>(state.range(0)));
    std::ranges::sort(sorted);
    measure(state, [&](const std::string& prefix) {
        const auto found = std::ranges::lower_bound(sorted, prefix);
        return found != sorted.end() && found->starts_with(prefix) ? found->data() : nullptr;
    });
}

#define ORX_SIZES ->Arg(100)->Arg(1'000)->Arg(10'000)->Arg(1'000'000)
BENCHMARK(textbookCritbit) ORX_SIZES;
BENCHMARK(critbitTree) ORX_SIZES;
BENCHMARK(critbitFunctions) ORX_SIZES;
BENCHMARK(sortedMap) ORX_SIZES;
BENCHMARK(sortedVector) ORX_SIZES;
BENCHMARK(btree) ORX_SIZES;
#undef ORX_SIZES

}  // namespace
}  // namespace orvex
