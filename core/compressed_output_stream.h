#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/output_stream.h"
#include "platform/digest.h"
#include "platform/result.h"

namespace orvex {

/// The size of the pieces in which the body of an upload is written, whoever writes it. The digest depends on it.
inline constexpr std::size_t kORXUploadPieceBytes = 8192;

/// Compresses what is written as raw deflate (RFC 1951; zlib level 6, window bits -15, memory level 8) into another
/// stream, and digests it with SHA-512 on the way.
///
///     open ──close──▶ at end
///     open ──the compressor or the target fails──▶ error, for good
///
/// The digest is not the plain one: each `write` is hashed as a whole once for every pass that the compressor makes
/// over it, and it makes another pass when its 4096 bytes of output are full before its input is used up. Who checks
/// the digest sends the body through this same stream, in the same pieces.
/// Memory: fixed, about 270 KiB.
class CompressedOutputStream : public OutputStream {
public:
    CompressedOutputStream();  ///< into a `MemoryOutputStream`
    explicit CompressedOutputStream(std::unique_ptr<OutputStream> outputStream);
    ~CompressedOutputStream() override;

    /// An empty piece is taken and changes nothing. Of more than 4 GiB only so much is taken.
    std::int64_t write(std::string_view bytes) override;
    /// Finishes the compressed data and the digest, and closes the target.
    void close() override;
    [[nodiscard]] StreamStatus streamStatus() const override;
    [[nodiscard]] std::optional<ORXError> streamError() const override;

    [[nodiscard]] const OutputStream& outputStream() const { return *_outputStream; }
    [[nodiscard]] std::string dataDigestForStream() const;  ///< 128 lower-case hexadecimal digits, once closed

private:
    struct Compressor;

    /// One pass over `input`, from which it takes what it uses, into the empty buffer and on to the target. Changes
    /// `_status`.
    void _pass(std::string_view& input, int flush);
    void _writeOut(std::size_t bytes);

    const std::unique_ptr<OutputStream> _outputStream;
    std::unique_ptr<Compressor> _stream;  ///< null once closed
    std::array<char, 4096> _destBuffer;
    std::int32_t _status = 0;  ///< 0 ok, 1 end, -1 error
    platform::SHA512 _sha512;
    std::string _digest;
};

/// `deflated` in full. Fails on what is no raw deflate, ends early, goes on after its end, or is larger than
/// `maxBytes`.
[[nodiscard]] platform::Result<std::string> inflated(std::string_view deflated, std::size_t maxBytes);

/// What `dataDigestForStream` is after `body`, written in pieces of `kORXUploadPieceBytes`.
[[nodiscard]] std::string uploadDigest(std::string_view body);

}  // namespace orvex
