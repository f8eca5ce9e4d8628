// The installed-app signature: run-length coding of bitmaps against the digest of the same bytes, and a whole signature
// of 10,000 whitelisted and 500 installed applications against reading the whitelist's JSON alone.

#include <benchmark/benchmark.h>

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <random>

#include "core/json.h"
#include "core/run_length_code.h"
#include "core/whitelist_signature.h"
#include "network/whitelist_document.h"
#include "platform/counters.h"
#include "platform/digest.h"
#include "platform/installed_applications.h"

namespace {

using namespace orvex;
namespace json = boost::json;

/// The longest bitmap, with so many of its bits set.
std::string bitmapOf(std::int64_t ids) {
    std::mt19937 random(1);
    std::vector<std::uint32_t> all = {WhitelistSignature::maxId};
    while (std::ssize(all) < ids) all.push_back(random() % WhitelistSignature::maxId);
    return whitelistBitmap(all);
}

void bytesPerSecond(benchmark::State& state, const std::string& bitmap) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bitmap.size()));
}

void digestAlone(benchmark::State& state) {
    const auto bitmap = bitmapOf(state.range(0));
    for (auto round : state) benchmark::DoNotOptimize(platform::md5(bitmap));
    bytesPerSecond(state, bitmap);
}
void compress(benchmark::State& state) {
    const auto bitmap = bitmapOf(state.range(0));
    for (auto round : state) benchmark::DoNotOptimize(rle_compress(bitmap));
    bytesPerSecond(state, bitmap);
}
void expand(benchmark::State& state) {
    const auto bitmap = bitmapOf(state.range(0));
    const auto stream = rle_compress(bitmap).bytes.substr(RunLengthPayload::digestBytes);
    for (auto round : state) benchmark::DoNotOptimize(rle_expand(stream, bitmap.size()));
    bytesPerSecond(state, bitmap);
}
BENCHMARK(digestAlone)->Arg(500);
BENCHMARK(compress)->Arg(500)->Arg(20'000);
BENCHMARK(expand)->Arg(500)->Arg(20'000);

std::string identifier(int number) { return "org.example.application" + std::to_string(number); }

std::string innerDocument() {
    json::object apps;
    for (int number = 0; number < 10'000; ++number) {
        apps[identifier(number)] = json::array{json::object{{"encoding_id", number * 50}}};
    }
    return json::serialize(json::object{{"version", "0a1b2c"}, {"apps", std::move(apps)}});
}

void parseAlone(benchmark::State& state) {
    const auto document = innerDocument();
    for (auto round : state) benchmark::DoNotOptimize(parseJSON(document, kBagJSONDepth));
}
void wholeSignature(benchmark::State& state) {
    const auto document =
        json::serialize(json::object{{"compression", "RLE"}, {"encoding", "bitmap"}, {"apps", innerDocument()}});
    std::vector<platform::InstalledApplication> installed;
    for (int number = 0; number < 500; ++number) installed.push_back({identifier(number * 20 + 7), "1.0"});
    platform::Counters counters;
    for (auto round : state) {
        const auto signature = processWhitelist(
            document, [&](const json::object& apps) { return findWhitelistedApplications(apps, installed, counters); });
        if (!signature) state.SkipWithError("no signature");
    }
}
BENCHMARK(parseAlone)->Unit(benchmark::kMillisecond);
BENCHMARK(wholeSignature)->Unit(benchmark::kMillisecond);

}  // namespace
