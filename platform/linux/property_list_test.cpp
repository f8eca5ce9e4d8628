#include "platform/property_list.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <limits>

#include "platform/linux/property_list_guard.h"

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;

PropertyValue everything() {
    return PropertyDictionary{
        {"array", PropertyArray{1, "two", PropertyArray{}, PropertyDictionary{}}},
        {"boolean", false},
        {"data", PropertyData{std::string("a\0\xff", 3)}},
        {"date", WallTime(1'700'000'000s)},
        {"integers",
         PropertyArray{0, -1, std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max()}},
        {"numbers", PropertyArray{0.1, 1e300, -2.5}},
        {"text", "<&> \"ü\" 日本 🎈\n"},
    };
}

bool parses(std::string_view bytes) { return parsePropertyList(bytes).has_value(); }
std::string inPlist(const std::string& xml) {
    return "<?xml version=\"1.0\"?>\n<plist version=\"1.0\">" + xml + "</plist>";
}
std::string repeated(const std::string& text, std::size_t count) {
    std::string result;
    while (count-- > 0) result += text;
    return result;
}
PropertyValue nested(std::size_t depth) {
    PropertyValue value = 1;
    while (depth-- > 0) value = PropertyArray{std::move(value)};
    return value;
}

/// A binary list of these objects, the first of them the root; offsets of two bytes, references of one.
std::string binaryList(const std::vector<std::string>& objects) {
    std::string bytes = "bplist00";
    std::string offsets;
    for (const auto& object : objects) {
        offsets += {static_cast<char>(bytes.size() >> 8), static_cast<char>(bytes.size() & 255)};
        bytes += object;
    }
    const auto table = bytes.size();
    bytes += offsets + std::string(6, '\0') + "\x02\x01";
    for (const std::uint64_t number : {std::uint64_t{objects.size()}, std::uint64_t{0}, std::uint64_t{table}})
        for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>(number >> shift & 255);
    return bytes;
}

TEST(PropertyListTest, EveryTypeComesBackFromBothForms) {
    EXPECT_EQ(parsePropertyList(writeBinaryPropertyList(everything()).value()).value(), everything());
    EXPECT_EQ(parsePropertyList(writeXMLPropertyList(everything()).value()).value(), everything());
}

TEST(PropertyListTest, XMLKeepsWholeSecondsAndBinaryMicroseconds) {
    const WallTime date(1'700'000'000s + 250ms);
    EXPECT_EQ(parsePropertyList(writeXMLPropertyList(date).value()).value(), WallTime(1'700'000'000s));
    const auto read = parsePropertyList(writeBinaryPropertyList(date).value()).value();
    EXPECT_LE(std::chrono::abs(*read.as<WallTime>() - date), 2us);
    EXPECT_EQ(parsePropertyList(writeXMLPropertyList(WallTime(-500ms)).value()).value(), WallTime(-1s));
}

TEST(PropertyListTest, WhatAListCannotHoldIsNotWritten) {
    for (const PropertyValue& value :
         {PropertyValue(std::nan("")), PropertyValue(std::numeric_limits<double>::infinity()),
          PropertyValue(std::string("a\0b", 3)), PropertyValue("\xff"), PropertyValue(WallTime::max()), nested(65),
          PropertyValue(PropertyDictionary{{std::string("\0", 1), 1}}),
          PropertyValue(PropertyDictionary{{"k", PropertyArray{std::nan("")}}})}) {
        EXPECT_EQ(writeXMLPropertyList(value).error().code, EINVAL);
        EXPECT_EQ(writeBinaryPropertyList(value).error().code, EINVAL);
    }
    const PropertyValue large = PropertyData{std::string(maxPropertyListBytes + 1, 'x')};
    EXPECT_EQ(writeBinaryPropertyList(large).error().code, EFBIG);
}

TEST(PropertyListTest, NestingIsLimitedInBothForms) {
    EXPECT_TRUE(parses(writeXMLPropertyList(nested(64)).value()));
    EXPECT_TRUE(parses(writeBinaryPropertyList(nested(64)).value()));
    EXPECT_FALSE(parses(inPlist(repeated("<array>", 65) + repeated("</array>", 65))));
    EXPECT_FALSE(parses(inPlist(repeated("<array>", 500'000))));
    std::vector<std::string> chain;
    for (char index = 1; index <= 65; ++index) chain.push_back({'\xa1', index});
    chain.push_back("\x08");
    EXPECT_FALSE(parses(binaryList(chain)));
    chain.erase(chain.begin());
    for (auto& array : chain)
        if (array.size() == 2) --array[1];
    EXPECT_TRUE(parses(binaryList(chain)));
}

TEST(PropertyListTest, SharedReferencesMayNotExplode) {
    const auto ladder = [](std::size_t steps) {
        std::vector<std::string> objects;
        for (std::size_t step = 1; step <= steps; ++step)
            objects.push_back("\xaa" + std::string(10, static_cast<char>(step)));
        objects.push_back("\x10\x01");
        return binaryList(objects);
    };
    EXPECT_TRUE(parses(ladder(5)));   // 111,111 objects
    EXPECT_FALSE(parses(ladder(6)));  // 1,111,111
    EXPECT_FALSE(parses(ladder(60)));

    // Few objects, but each a long text.
    const std::string text = "\x5f\x11\x40" + std::string(1, '\0') + std::string(0x4000, 'x');
    EXPECT_TRUE(parses(binaryList({"\xa2\x01\x01", text})));
    EXPECT_FALSE(parses(
        binaryList({std::string("\xaf\x11\x20", 3) + std::string(1, '\0') + std::string(0x2000, '\x01'), text})));
}

// Each of 60,000 arrays has a quarter of a million members, all in the same bytes. Adding all of it up would take
// minutes.
TEST(PropertyListTest, ListsThatLieOverEachOtherAreGivenUpAtTheLimit) {
    constexpr std::size_t arrays = 60'000;
    constexpr std::size_t members = 200'000;
    const auto bigEndian = [](std::uint64_t number, int size) {
        std::string bytes;
        while (size-- > 0) bytes += static_cast<char>(number >> (8 * size) & 255);
        return bytes;
    };
    // Objects: 0 the root, 1 an integer, arrays from 2 on. Read as references, the head of an array names integers.
    std::string bytes = "bplist00";
    const auto integer = bytes.size();
    bytes += "\x10\x01";
    const auto root = bytes.size();
    bytes += "\xaf\x11" + bigEndian(arrays, 2);
    for (std::size_t at = 0; at < arrays; ++at) bytes += bigEndian(2 + at, 2);
    const auto first = bytes.size();
    for (std::size_t at = 0; at < arrays; ++at) bytes += "\xaf\x12" + bigEndian(members, 4);
    bytes += repeated(bigEndian(1, 2), members);

    const auto table = bytes.size();
    const auto isHead = [&](std::size_t index) {  // of an array, or a half of its length
        return index == 0xaf12 || index == members >> 16 || index == (members & 0xffff);
    };
    for (std::size_t index = 0; index < 0x10000; ++index) {
        const bool array = index >= 2 && index < 2 + arrays && !isHead(index);
        bytes += bigEndian(index == 0 ? root : array ? first + (index - 2) * 6 : integer, 4);
    }
    bytes += std::string(6, '\0') + "\x04\x02" + bigEndian(0x10000, 8) + bigEndian(0, 8) + bigEndian(table, 8);
    EXPECT_FALSE(parses(bytes));
}

TEST(PropertyListTest, MalformedBinaryListsAreRefused) {
    const std::string good = binaryList({std::string("\xd1\x01\x02", 3), "\x51k", "\x10\x07"});
    EXPECT_EQ(parsePropertyList(good).value(), PropertyValue(PropertyDictionary{{"k", 7}}));
    for (std::size_t length = 0; length < good.size(); ++length) EXPECT_FALSE(parses(good.substr(0, length))) << length;
    for (const auto& objects : std::vector<std::vector<std::string>>{
             {std::string("\xa1\x00", 2)},                      // itself
             {"\xa1\x01", std::string("\xa1\x00", 2)},          // round about
             {"\xa1\x05"},                                      // no such object
             {"\xd1\x01\x01", "\x10\x07"},                      // a key that is a number
             {"\xd1\x01"},                                      // cut off
             {"\x4f\x13\x7f\xff\xff\xff\xff\xff\xff\xff"},      // a length beyond the file
             {"\x6f\x13\x80" + std::string(6, '\0') + "\x01"},  // one that overflows doubled
             {std::string("\x52"
                          "a\0",
                          3)},                                         // text with a zero byte
             {std::string("\x61\0\0", 3)},                             // and in UTF-16
             {"\x51\xff"},                                             // not UTF-8
             {"\x14" + std::string(16, '\x01')},                       // 128 bits
             {std::string("\x33\x7f\xf8", 3) + std::string(6, '\0')},  // a date that is no number
             {std::string("\0", 1)},                                   // null
             {"\x80\x01"},
             {"\xc1\x01", "\x08"},
             {"\xf0"},
             {"\x21\x01\x01"},  // no values of ours
         })
        EXPECT_FALSE(parses(binaryList(objects))) << objects[0].size();
}

TEST(PropertyListTest, NoSingleBrokenByteIsFatal) {
    const std::string good = writeBinaryPropertyList(everything()).value();
    for (std::size_t at = 0; at < good.size(); ++at)
        for (const char byte : {'\0', '\x01', '\x0f', '\x5f', '\x7f', '\xaf', '\xdf', '\xff'}) {
            std::string broken = good;
            broken[at] = byte;
            (void)parsePropertyList(broken);
        }
}

TEST(PropertyListTest, MalformedXMLIsRefused) {
    EXPECT_EQ(parsePropertyList(inPlist("<!-- </array> --><integer>1</integer>")).value(), PropertyValue(1));
    for (const std::string& bytes :
         {std::string(), std::string("garbage"), std::string("\xff\xfe\0<", 4), std::string("<plist>"), inPlist(""),
          inPlist("<dict>"), inPlist("<dict><array></dict></array>"), inPlist("<rocket/>"),
          inPlist("<string>a\xff</string>"), inPlist("<array a=\"></array>\">"), inPlist("<dict><true/></dict>"),
          inPlist("<array"), inPlist("<!-- "), std::string("{\"json\": 1}"),
          "<!DOCTYPE plist [<!ENTITY a \"aaaa\">]>" + inPlist("<string>&a;</string>"),
          inPlist("<array>" + repeated("<true/>", 262'200) + "</array>")})
        EXPECT_FALSE(parses(bytes)) << bytes.substr(0, 100);
    EXPECT_EQ(parsePropertyList(std::string(maxPropertyListBytes + 1, ' ')).error().code, EFBIG);
}

}  // namespace
}  // namespace orvex::platform
