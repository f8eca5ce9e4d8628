#include "core/run_length_code.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>

#include "platform/digest.h"

// Bits are looked at 64 at a time, as one big-endian word: what is left of a run is the number of leading zeros once
// the run's own bit has been taken away from each.

namespace orvex {
namespace {

constexpr std::size_t countBytes = 2;
constexpr std::size_t maxRuns = 0xffff;
constexpr std::size_t maxRunBits = 256;

constexpr std::size_t valueBytes(std::size_t runs) { return (runs + 7) / 8; }

/// The 64 bits from the byte `at` on; zeros beyond the end.
std::uint64_t wordAt(std::string_view bytes, std::size_t at) {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes.data() + at, std::min(sizeof word, bytes.size() - at));
    return std::endian::native == std::endian::little ? __builtin_bswap64(word) : word;
}

bool bitAt(std::string_view bytes, std::size_t bit) {
    return (static_cast<unsigned char>(bytes[bit / 8]) & (0x80u >> bit % 8)) != 0;
}

/// How many bits from `first` on are equal, up to `maxRunBits`.
std::size_t getRunLength(std::string_view bitmap, std::size_t first) {
    const std::size_t limit = std::min(maxRunBits, bitmap.size() * 8 - first);
    const std::uint64_t flip = bitAt(bitmap, first) ? ~std::uint64_t{0} : 0;
    std::size_t length = 0;
    while (length < limit) {
        const std::size_t bit = first + length;
        const std::size_t here = 64 - bit % 8;
        const auto equal = static_cast<std::size_t>(std::countl_zero((wordAt(bitmap, bit / 8) ^ flip) << bit % 8));
        length += std::min(equal, here);
        if (equal < here) break;
    }
    return std::min(length, limit);
}

struct Runs {
    std::string lengths;
    std::string values;

    void saveRun(std::size_t length, bool value) {
        const std::size_t index = lengths.size();
        if (index % 8 == 0) values += '\0';
        if (value) values.back() = static_cast<char>(values.back() | 0x80 >> index % 8);
        lengths += static_cast<char>(length - 1);
    }
    [[nodiscard]] std::size_t streamBytes() const { return countBytes + lengths.size() + values.size(); }
};

/// The stream, when it is shorter than the bitmap.
std::optional<std::string> encodeRun(std::string_view bitmap) {
    Runs runs;
    for (std::size_t bit = 0; bit < bitmap.size() * 8;) {
        const std::size_t length = getRunLength(bitmap, bit);
        runs.saveRun(length, bitAt(bitmap, bit));
        bit += length;
        if (runs.streamBytes() >= bitmap.size()) return std::nullopt;
    }
    const std::size_t count = runs.lengths.size();
    if (count > maxRuns || runs.streamBytes() >= bitmap.size()) return std::nullopt;
    std::string stream = {static_cast<char>(count >> 8), static_cast<char>(count & 0xff)};
    stream += runs.lengths;
    stream += runs.values;
    return stream;
}

void appendRun(std::string& bitmap, std::size_t first, std::size_t length) {
    for (std::size_t bit = first; bit < first + length;) {
        if (bit % 8 == 0 && first + length - bit >= 8) {
            const std::size_t whole = (first + length - bit) / 8;
            std::memset(bitmap.data() + bit / 8, 0xff, whole);
            bit += whole * 8;
        } else {
            bitmap[bit / 8] = static_cast<char>(bitmap[bit / 8] | 0x80 >> bit % 8);
            ++bit;
        }
    }
}

}  // namespace

RunLengthPayload rle_compress(std::string_view bitmap) {
    const std::string digest = platform::md5(bitmap);
    RunLengthPayload payload;
    payload.bytes = digest.substr(digest.size() - RunLengthPayload::digestBytes);
    const auto stream = encodeRun(bitmap);
    payload.compressed = stream.has_value();
    payload.bytes += stream ? std::string_view(*stream) : bitmap;
    return payload;
}

std::optional<std::string> rle_expand(std::string_view stream, std::size_t bitmapBytes) {
    if (stream.size() < countBytes) return std::nullopt;
    const std::size_t count = static_cast<unsigned char>(stream[0]) * 256u + static_cast<unsigned char>(stream[1]);
    if (stream.size() != countBytes + count + valueBytes(count)) return std::nullopt;
    const std::string_view lengths = stream.substr(countBytes, count);
    const std::string_view values = stream.substr(countBytes + count);

    std::string bitmap(bitmapBytes, '\0');
    std::size_t bit = 0;
    for (std::size_t run = 0; run < count; ++run) {
        const std::size_t length = static_cast<unsigned char>(lengths[run]) + 1u;
        if (length > bitmapBytes * 8 - bit) return std::nullopt;
        if (bitAt(values, run)) appendRun(bitmap, bit, length);
        bit += length;
    }
    return bit == bitmapBytes * 8 ? std::optional(std::move(bitmap)) : std::nullopt;
}

}  // namespace orvex
