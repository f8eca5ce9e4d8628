#include "core/json.h"

#include <gtest/gtest.h>

#include <boost/json.hpp>

namespace orvex {
namespace {

std::string nested(std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

TEST(JSONTest, DepthIsLimitedAndNothingMayFollow) {
    EXPECT_TRUE(parseJSON(nested(kBagJSONDepth), kBagJSONDepth));
    EXPECT_FALSE(parseJSON(nested(kBagJSONDepth + 1), kBagJSONDepth));
    EXPECT_FALSE(parseJSON(std::string(100'000, '['), kReplyJSONDepth));
    EXPECT_FALSE(parseJSON("{\"a\": 1", kBagJSONDepth));
    EXPECT_FALSE(parseJSON("{} {}", kBagJSONDepth));
    EXPECT_FALSE(parseJSON("", kBagJSONDepth));
    EXPECT_FALSE(parseJSON("\"\xff\"", kBagJSONDepth));
}

TEST(JSONTest, ANumberIsReadWhateverItsKind) {
    const auto number = [](std::string_view text) { return numberFromJSON(parseJSON(text, 8).value()); };
    EXPECT_EQ(number("-3"), -3);
    EXPECT_EQ(number("18446744073709551615"), 0x1p64);
    EXPECT_EQ(number("0.5"), 0.5);
    EXPECT_EQ(number("1e400"), std::nullopt);
    EXPECT_EQ(number("true"), std::nullopt);
    EXPECT_EQ(number("\"3\""), std::nullopt);
    const auto all = parseJSON(R"({"a": [1.50, 1e400, "\n"], "b": {}, "c": 18446744073709551615})", 8).value();
    EXPECT_EQ(compactJSON(all), R"({"a":[1.5,null,"\n"],"b":{},"c":18446744073709551615})");
}

}  // namespace
}  // namespace orvex
