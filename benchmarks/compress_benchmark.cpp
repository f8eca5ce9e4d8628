#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <zlib.h>

#include <string>
#include <vector>

#include "core/compressed_output_stream.h"

// The body of an upload, compressed and digested: through the stream, and (the floor) by the two libraries alone, one
// after the other on the same bytes. Run on one core: taskset -c 0 compress_benchmark

namespace orvex {
namespace {

/// Records as a session uploads them: JSON whose keys repeat and whose values do not.
const std::string& body() {
    static const std::string made = [] {
        std::string text = "{\"fb\":[";
        std::uint32_t random = 1;
        while (text.size() < 4'000'000) {
            random = random * 1664525 + 1013904223;
            text += R"({"timestamp":)" + std::to_string(random) + R"(,"identifier":"result#)" +
                    std::to_string(random >> 7) + R"(","isTopHit":false,"query_id":)" + std::to_string(random >> 20) +
                    R"(,"type":"visible_results"},)";
        }
        return text + "]}";
    }();
    return made;
}

void stream(benchmark::State& state) {
    for (auto _ : state) {
        CompressedOutputStream compressed(std::make_unique<NullStream>());
        PieceOutputStream pieces(compressed, kORXUploadPieceBytes);
        pieces.write(body());
        pieces.close();
        benchmark::DoNotOptimize(compressed.dataDigestForStream());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * body().size()));
}

void librariesAlone(benchmark::State& state) {
    std::vector<Bytef> output(body().size());
    for (auto _ : state) {
        z_stream stream{};
        deflateInit2(&stream, 6, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(body().data()));
        stream.avail_in = static_cast<uInt>(body().size());
        stream.next_out = output.data();
        stream.avail_out = static_cast<uInt>(output.size());
        deflate(&stream, Z_FINISH);
        deflateEnd(&stream);
        unsigned char digest[EVP_MAX_MD_SIZE];
        EVP_Digest(body().data(), body().size(), digest, nullptr, EVP_sha512(), nullptr);
        benchmark::DoNotOptimize(digest[0]);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * body().size()));
}

BENCHMARK(librariesAlone)->Unit(benchmark::kMillisecond);
BENCHMARK(stream)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace orvex
