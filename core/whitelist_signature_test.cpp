#include "core/whitelist_signature.h"

#include <gmock/gmock.h>

#include <random>

#include "core/run_length_code.h"
#include "platform/base64.h"

namespace orvex {
namespace {

using Ids = std::vector<std::uint32_t>;
using testing::HasSubstr;

std::optional<std::string> signatureOf(const Ids& ids, std::string_view version = "0a1b2c") {
    const auto bitmap = whitelistBitmap(ids);
    return makeSignature(bitmap.size(), rle_compress(bitmap), version);
}
std::string stream(std::string_view bitmap) { return rle_compress(bitmap).bytes.substr(RunLengthPayload::digestBytes); }

TEST(WhitelistSignatureTest, KnownSetsHaveKnownSignatures) {
    EXPECT_EQ(whitelistBitmap(Ids{3, 9}), "\x10\x40");
    EXPECT_EQ(whitelistBitmap(Ids{8}), std::string(1, '\0'));  // falls outside
    EXPECT_EQ(signatureOf({3, 9}), "+eoP1xssAALtKoWbEEA=");
    EXPECT_EQ(signatureOf({8}), "pltd9xssAAFP1Z9xAA==");
    EXPECT_EQ(signatureOf({799}), "mdsrwpssAGTjSeuzAAX///8eAAg=");
}

TEST(WhitelistSignatureTest, AVersionIsFourHexadecimalDigitsOrMoreAndAnEvenNumber) {
    for (const auto* version : {"", "1b", "1b2", "0a1b2", "xx1b2c", "0a1b2g", " a1b2c", "0x1b2c", "+a1b2c"})
        EXPECT_EQ(signatureOf({3}, version), std::nullopt) << version;
    EXPECT_EQ(checkSignature(*signatureOf({3}, "FFff")).value().version, 0x7fff);
    EXPECT_EQ(signatureOf({3}, "00ff1B2C"), signatureOf({3}, "1b2c"));
}

TEST(WhitelistSignatureTest, WhatWasMadeReadsBackAndAFlippedBitDoesNot) {
    std::mt19937 random(7);
    for (int round = 0; round < 300; ++round) {
        Ids ids(1 + random() % 60);
        const auto bound = 1 + random() % (round % 3 == 0 ? WhitelistSignature::maxId : 2000);
        for (auto& id : ids) id = random() % bound;
        const auto text = signatureOf(ids);
        ASSERT_TRUE(text);
        const auto read = checkSignature(*text);
        ASSERT_TRUE(read) << read.error().text;
        EXPECT_EQ(read->bitmap, whitelistBitmap(ids));
        EXPECT_EQ(read->version, 0x1b2c);

        auto bytes = *platform::decodedBase64(*text);
        bytes[random() % bytes.size()] ^= static_cast<char>(1 << random() % 8);
        EXPECT_FALSE(checkSignature(platform::encodedBase64(bytes)));
    }
}

TEST(WhitelistSignatureTest, ACheckTellsWhatIsWrong) {
    const auto failure = [](std::string_view text) { return checkSignature(text).error().text; };
    EXPECT_THAT(failure("no base64!"), HasSubstr("base64"));
    EXPECT_THAT(failure(""), HasSubstr("0 bytes"));
    EXPECT_THAT(failure("+eoP1xssAALtKoWbEEE="), HasSubstr("checksum"));
    EXPECT_THAT(failure(*makeSignature(3, rle_compress("ab"), "1b2c")), HasSubstr("a bitmap of 2 bytes, not 3"));
    EXPECT_THAT(failure(*makeSignature(2, {.bytes = "xxxxab"}, "1b2c")), HasSubstr("digest"));
    EXPECT_THAT(failure(*makeSignature(2, {.bytes = "xxxxab", .compressed = true}, "1b2c")), HasSubstr("stream"));
}

TEST(RunLengthCodeTest, ABitmapIsCodedOnlyWhereThatIsShorter) {
    EXPECT_EQ(stream(std::string("\x00\xf0", 2)), std::string("\x00\xf0", 2));
    const std::string five = std::string(4, '\0') + "\x01";
    EXPECT_TRUE(rle_compress(std::string(6, '\0') + "\x01").compressed);
    EXPECT_FALSE(rle_compress(five).compressed);  // two runs take five bytes
    EXPECT_FALSE(rle_compress("").compressed);
    EXPECT_EQ(stream(std::string(64, '\xff')), std::string("\x00\x02\xff\xff\xc0", 5));
    const std::string noisy(65'535, '\x55');  // half a million runs
    EXPECT_FALSE(rle_compress(noisy).compressed);
    EXPECT_EQ(stream(noisy), noisy);
}

TEST(RunLengthCodeTest, OnlyAStreamOfThatManyBitsExpands) {
    const std::string three("\x00\x03\x07\x03\x03\x40", 6);
    EXPECT_EQ(rle_expand(three, 2), std::string("\x00\xf0", 2));
    EXPECT_EQ(rle_expand(std::string("\x00\x00", 2), 0), "");
    for (const std::size_t bytes : {0, 1, 3, 65'535}) EXPECT_EQ(rle_expand(three, bytes), std::nullopt);
    for (std::size_t cut = 0; cut < three.size(); ++cut) EXPECT_EQ(rle_expand(three.substr(0, cut), 2), std::nullopt);
    EXPECT_EQ(rle_expand(three + "x", 2), std::nullopt);
}

}  // namespace
}  // namespace orvex
