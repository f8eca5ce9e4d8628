#include "core/compressed_output_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace orvex {
namespace {

std::string noise(std::size_t bytes) {
    std::mt19937 random(1);
    std::string result(bytes, '\0');
    for (char& byte : result) byte = static_cast<char>(random());
    return result;
}

std::string hexadecimal(platform::SHA512& digest) {
    std::string text;
    for (const unsigned char byte : digest.finish()) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

std::string plainDigest(std::string_view bytes) {
    platform::SHA512 digest;
    digest.update(bytes);
    return hexadecimal(digest);
}

struct Compressed {
    std::string bytes;
    std::string digest;
};

Compressed compressed(std::string_view body, std::size_t pieceBytes = kORXUploadPieceBytes) {
    CompressedOutputStream stream;
    PieceOutputStream pieces(stream, pieceBytes);
    EXPECT_EQ(pieces.write(body), std::ssize(body));
    pieces.close();
    EXPECT_EQ(pieces.streamStatus(), StreamStatus::atEnd);
    return {dynamic_cast<const MemoryOutputStream&>(stream.outputStream()).bytes(), stream.dataDigestForStream()};
}

/// Takes so many bytes and then no more.
class FullDisk : public OutputStream {
public:
    explicit FullDisk(std::int64_t bytes) : _left(bytes) {}
    std::int64_t write(std::string_view bytes) override {
        const auto taken = std::min(_left, std::ssize(bytes));
        _left -= taken;
        return taken > 0 ? taken : -1;
    }
    void close() override {}
    [[nodiscard]] StreamStatus streamStatus() const override { return StreamStatus::open; }

private:
    std::int64_t _left;
};

TEST(CompressedOutputStreamTest, WhatIsWrittenComesBackAndPlainTextHasThePlainDigest) {
    // The digest of nothing and of "abc" are those of FIPS 180-4's examples.
    EXPECT_TRUE(compressed("").digest.starts_with("cf83e1357eefb8bd"));
    EXPECT_TRUE(compressed("abc").digest.starts_with("ddaf35a193617aba"));
    EXPECT_TRUE(compressed("abc").digest.ends_with("2a9ac94fa54ca49f"));
    EXPECT_EQ(compressed("").bytes, std::string("\x03\0", 2));
    std::string text;
    for (int line = 0; text.size() < 300'000; ++line) text += "{\"line\":" + std::to_string(line) + "}";
    for (const std::string& body : {std::string(), std::string("abc"), text, noise(100'000)}) {
        const auto result = compressed(body);
        EXPECT_EQ(inflated(result.bytes, body.size()), body);
        EXPECT_EQ(uploadDigest(body), result.digest);
    }
    EXPECT_EQ(uploadDigest(text.substr(0, 8192)), plainDigest(text.substr(0, 8192)));
}

TEST(CompressedOutputStreamTest, APieceIsHashedOnceForEveryPassOverIt) {
    const auto body = noise(100'000);
    EXPECT_NE(uploadDigest(body), plainDigest(body));
    CompressedOutputStream stream;
    EXPECT_EQ(stream.write(body), std::ssize(body));  // as one piece
    stream.close();
    std::string repeated;
    int passes = 0;
    do {
        repeated += body;
        ++passes;
    } while (passes < 60 && plainDigest(repeated) != stream.dataDigestForStream());
    EXPECT_GE(passes, 10) << "4096 bytes leave a pass at most";
    EXPECT_LT(passes, 60);
}

TEST(CompressedOutputStreamTest, AnEmptyWriteAndASecondCloseChangeNothing) {
    CompressedOutputStream stream;
    EXPECT_EQ(stream.write(""), 0);
    EXPECT_EQ(stream.streamStatus(), StreamStatus::open);
    EXPECT_EQ(stream.write("abc"), 3);
    EXPECT_EQ(stream.write(""), 0);
    stream.close();
    stream.close();
    EXPECT_EQ(stream.dataDigestForStream(), plainDigest("abc"));
    EXPECT_EQ(stream.write("more"), -1);
    EXPECT_EQ(stream.streamStatus(), StreamStatus::atEnd);
    EXPECT_EQ(stream.streamError(), std::nullopt);
}

TEST(CompressedOutputStreamTest, ATargetThatFailsIsSeen) {
    const auto body = noise(100'000);
    for (const std::int64_t space : {0, 1, 5'000, 100'000}) {
        CompressedOutputStream stream(std::make_unique<FullDisk>(space));
        PieceOutputStream pieces(stream, kORXUploadPieceBytes);
        pieces.write(body);
        pieces.close();
        EXPECT_EQ(pieces.streamStatus(), StreamStatus::error) << space;
        EXPECT_EQ(stream.streamError(), ORXError(kORXPOSIXErrorDomain, 0, std::nullopt)) << space;
        EXPECT_EQ(pieces.write("more"), -1);
    }
}

TEST(CompressedOutputStreamTest, PiecesAreTheSameHoweverTheBodyComes) {
    const auto body = noise(100'000);
    for (const std::size_t step : {1UZ, 4095UZ, 8192UZ, 8193UZ, 20'000UZ}) {
        CompressedOutputStream stream(std::make_unique<NullStream>());
        PieceOutputStream pieces(stream, kORXUploadPieceBytes);
        for (std::size_t at = 0; at < body.size(); at += step) pieces.write(std::string_view(body).substr(at, step));
        pieces.close();
        EXPECT_EQ(stream.dataDigestForStream(), uploadDigest(body)) << step;
        EXPECT_GT(dynamic_cast<const NullStream&>(stream.outputStream()).bytesWritten(), 100'000U);
    }
    EXPECT_NE(compressed(body, 4096).digest, uploadDigest(body)) << "the digest knows the pieces";
}

TEST(InflatedTest, OnlyAWholeStreamAndNothingElseIsInflated) {
    const auto whole = compressed("some text, some text").bytes;
    for (std::size_t size = 0; size < whole.size(); ++size) EXPECT_FALSE(inflated(whole.substr(0, size), 100)) << size;
    EXPECT_FALSE(inflated(whole + "x", 100));
    EXPECT_FALSE(inflated("\xFF\xFF", 100));
    EXPECT_TRUE(inflated(whole, 20));
    EXPECT_FALSE(inflated(whole, 19)) << "a bomb is stopped";
}

}  // namespace
}  // namespace orvex
