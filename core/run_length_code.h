#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// The run-length code of bitmaps, most significant bit first:
///
///     stream  = count lengths values
///     count   = number of runs, 16 bits, big-endian
///     lengths = a byte a run: its length less 1, so that a run has 1 to 256 equal bits
///     values  = a bit a run: its value; packed from the most significant bit, the last byte filled up with zeros
///
/// The bits 00000000 11110000 are three runs: 00 03 | 07 03 03 | 40. Pure functions.
namespace orvex {

struct RunLengthPayload {
    /// Of the payload, before the stream or the bitmap: the last four bytes of the bitmap's MD5.
    static constexpr std::size_t digestBytes = 4;

    std::string bytes;
    bool compressed = false;  ///< a stream; else the bitmap itself, since no stream of it is shorter
};

/// The payload of a signature. A bitmap of more than 65,535 runs is never compressed.
[[nodiscard]] RunLengthPayload rle_compress(std::string_view bitmap);

/// The bitmap of `bitmapBytes` bytes that `stream` stands for; none when it is no stream of such a one.
[[nodiscard]] std::optional<std::string> rle_expand(std::string_view stream, std::size_t bitmapBytes);

}  // namespace orvex
