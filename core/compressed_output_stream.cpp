#include "core/compressed_output_stream.h"

#include <fmt/format.h>
#include <zlib.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>

namespace orvex {
namespace {

constexpr int level = 6;
constexpr int rawDeflate = -15;  // window bits; negative: no wrapper
constexpr int memoryLevel = 8;
constexpr std::int32_t ok = 0;
constexpr std::int32_t end = 1;
constexpr std::int32_t error = -1;

// zlib's input is not const by habit only.
Bytef* bytesOf(std::string_view bytes) { return reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data())); }

std::string hexadecimal(std::string_view bytes) {
    std::string text;
    for (const char byte : bytes) {
        fmt::format_to(std::back_inserter(text), "{:02x}", static_cast<unsigned char>(byte));
    }
    return text;
}

struct Inflater {
    z_stream stream{};
    int status = inflateInit2(&stream, rawDeflate);

    Inflater() = default;
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;
    ~Inflater() { inflateEnd(&stream); }
};

}  // namespace

struct CompressedOutputStream::Compressor {
    z_stream stream{};
    int status = deflateInit2(&stream, level, Z_DEFLATED, rawDeflate, memoryLevel, Z_DEFAULT_STRATEGY);

    Compressor() = default;
    Compressor(const Compressor&) = delete;
    Compressor& operator=(const Compressor&) = delete;
    ~Compressor() { deflateEnd(&stream); }
};

CompressedOutputStream::CompressedOutputStream() : CompressedOutputStream(std::make_unique<MemoryOutputStream>()) {}

CompressedOutputStream::CompressedOutputStream(std::unique_ptr<OutputStream> outputStream)
    : _outputStream(std::move(outputStream)),
      _stream(std::make_unique<Compressor>()) {
    if (_stream->status != Z_OK) _status = error;
}

CompressedOutputStream::~CompressedOutputStream() = default;

std::int64_t CompressedOutputStream::write(std::string_view bytes) {
    if (_status != ok) return -1;
    const auto whole = bytes.substr(0, std::numeric_limits<uInt>::max());
    auto rest = whole;
    while (_status == ok && !rest.empty()) {
        _sha512.update(whole);
        _pass(rest, Z_NO_FLUSH);
    }
    return std::ssize(whole) - std::ssize(rest);
}

void CompressedOutputStream::close() {
    if (!_stream) return;
    std::string_view nothing;
    while (_status == ok) _pass(nothing, Z_FINISH);
    _digest = _sha512.finish();
    _stream.reset();
    _outputStream->close();
    if (_outputStream->streamStatus() == StreamStatus::error) _status = error;
}

void CompressedOutputStream::_pass(std::string_view& input, int flush) {
    auto& stream = _stream->stream;
    stream.next_in = bytesOf(input);
    stream.avail_in = static_cast<uInt>(input.size());
    stream.next_out = bytesOf({_destBuffer.data(), _destBuffer.size()});
    stream.avail_out = static_cast<uInt>(_destBuffer.size());
    const int answer = deflate(&stream, flush);
    input.remove_prefix(input.size() - stream.avail_in);
    _status = answer < 0 ? error : answer == Z_STREAM_END ? end : ok;
    _writeOut(_destBuffer.size() - stream.avail_out);
}

void CompressedOutputStream::_writeOut(std::size_t bytes) {
    for (std::string_view rest(_destBuffer.data(), bytes); !rest.empty();) {
        const auto taken = _outputStream->write(rest);
        if (taken <= 0) {
            _status = error;
            return;
        }
        rest.remove_prefix(std::min(static_cast<std::size_t>(taken), rest.size()));
    }
}

StreamStatus CompressedOutputStream::streamStatus() const {
    switch (_status) {
        case ok:
            return StreamStatus::open;
        case end:
            return StreamStatus::atEnd;
        case error:
            return StreamStatus::error;
        default:
            return StreamStatus::notOpen;
    }
}

std::optional<ORXError> CompressedOutputStream::streamError() const {
    if (_status != error) return std::nullopt;
    return ORXError(kORXPOSIXErrorDomain, 0, std::nullopt);
}

std::string CompressedOutputStream::dataDigestForStream() const { return hexadecimal(_digest); }

platform::Result<std::string> inflated(std::string_view deflated, std::size_t maxBytes) {
    Inflater inflater;
    if (inflater.status != Z_OK) return platform::failure(0, "no memory to inflate");
    std::string body;
    std::array<char, 65536> block;
    while (inflater.status != Z_STREAM_END) {
        const auto input = deflated.substr(0, std::numeric_limits<uInt>::max());
        inflater.stream.next_in = bytesOf(input);
        inflater.stream.avail_in = static_cast<uInt>(input.size());
        inflater.stream.next_out = bytesOf({block.data(), block.size()});
        inflater.stream.avail_out = static_cast<uInt>(block.size());
        inflater.status = inflate(&inflater.stream, Z_NO_FLUSH);
        deflated.remove_prefix(input.size() - inflater.stream.avail_in);
        if (inflater.status == Z_BUF_ERROR) return platform::failure(0, "it ends in the middle of its deflate stream");
        if (inflater.status != Z_OK && inflater.status != Z_STREAM_END) {
            return platform::failure(0, "it is no raw deflate");
        }
        body.append(block.data(), block.size() - inflater.stream.avail_out);
        if (body.size() > maxBytes) return platform::failure(0, fmt::format("it inflates to over {} bytes", maxBytes));
    }
    if (!deflated.empty()) return platform::failure(0, "there is more after the end of the deflate stream");
    return body;
}

std::string uploadDigest(std::string_view body) {
    CompressedOutputStream stream(std::make_unique<NullStream>());
    PieceOutputStream pieces(stream, kORXUploadPieceBytes);
    pieces.write(body);
    pieces.close();
    return stream.dataDigestForStream();
}

}  // namespace orvex
