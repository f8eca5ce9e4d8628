#include "platform/property_value.h"

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <cmath>
#include <limits>

namespace orvex::platform {
namespace {

constexpr auto int64Max = std::numeric_limits<std::int64_t>::max();
constexpr auto int64Min = std::numeric_limits<std::int64_t>::min();

std::optional<PropertyValue> fromJSON(std::string_view text) { return propertyValueFromJSON(boost::json::parse(text)); }
std::string toJSON(const PropertyValue& value) { return boost::json::serialize(jsonFromPropertyValue(value)); }

TEST(PropertyValueTest, ABooleanIsReadFromBooleansNumbersAndFourWords) {
    for (const PropertyValue& yes : {PropertyValue(true), PropertyValue(-1), PropertyValue(0.5), PropertyValue("YES"),
                                     PropertyValue("yes"), PropertyValue("true"), PropertyValue("1")})
        EXPECT_TRUE(yes.coerceToBool());
    for (const PropertyValue& no :
         {PropertyValue(false), PropertyValue(0), PropertyValue(0.0), PropertyValue(std::nan("")), PropertyValue("Yes"),
          PropertyValue("2"), PropertyValue(""), PropertyValue(PropertyArray{true}), PropertyValue(PropertyData{"1"})})
        EXPECT_FALSE(no.coerceToBool());
}

TEST(PropertyValueTest, AnIntegerIsCutAndSaturates) {
    EXPECT_EQ(PropertyValue(2.9).coerceToInteger(), 2);
    EXPECT_EQ(PropertyValue(-2.9).coerceToInteger(), -2);
    EXPECT_EQ(PropertyValue(1e300).coerceToInteger(), int64Max);
    EXPECT_EQ(PropertyValue(9223372036854775808.0).coerceToInteger(), int64Max);
    EXPECT_EQ(PropertyValue(-std::numeric_limits<double>::infinity()).coerceToInteger(), int64Min);
    EXPECT_EQ(PropertyValue(std::nan("")).coerceToInteger(), 0);
    EXPECT_EQ(PropertyValue(true).coerceToInteger(), 1);
    EXPECT_EQ(PropertyValue(PropertyDictionary{}).coerceToInteger(), 0);
}

TEST(PropertyValueTest, AnIntegerIsReadFromDecimalTextOnly) {
    const auto read = [](std::string_view text) { return PropertyValue(text).coerceToInteger(); };
    EXPECT_EQ(read("600"), 600);
    EXPECT_EQ(read("-7"), -7);
    EXPECT_EQ(read("+7"), 7);
    EXPECT_EQ(read("7.9"), 7);
    EXPECT_EQ(read("9223372036854775807"), int64Max);
    EXPECT_EQ(read("9223372036854775808"), int64Max);
    EXPECT_EQ(read("-" + std::string(400, '9')), int64Min);
    for (const auto* text : {"", "+", "-", "+-7", "7 ", " 7", "0x10", "1e3", "inf", "nan", "7x", "--7", "7.7.7", "YES"})
        EXPECT_EQ(read(text), 0) << text;
}

TEST(PropertyValueTest, ATextIsReadFromTextAndNumbers) {
    EXPECT_EQ(PropertyValue("a").coerceToString(), "a");
    EXPECT_EQ(PropertyValue(-3).coerceToString(), "-3");
    EXPECT_EQ(PropertyValue(3.0).coerceToString(), "3");
    EXPECT_EQ(PropertyValue(0.25).coerceToString(), "0.25");
    EXPECT_EQ(PropertyValue(true).coerceToString(), std::nullopt);
    EXPECT_EQ(PropertyValue(std::nan("")).coerceToString(), std::nullopt);
    EXPECT_EQ(PropertyValue(PropertyArray{}).coerceToString(), std::nullopt);
}

TEST(PropertyValueTest, JSONKeepsItsTypesAndLosesItsNulls) {
    EXPECT_EQ(fromJSON(R"({"a":[1,null,1.5,true,"x"],"b":null,"c":{"d":null}})"),
              PropertyValue(PropertyDictionary{{"a", PropertyArray{1, 1.5, true, "x"}}, {"c", PropertyDictionary{}}}));
    EXPECT_EQ(fromJSON("null"), std::nullopt);
    EXPECT_EQ(fromJSON("1e400"), std::nullopt);
    EXPECT_EQ(fromJSON("18446744073709551615"), PropertyValue(18446744073709551615.0));
    EXPECT_EQ(toJSON(PropertyArray{1, true, "x", PropertyDictionary{{"k", -2}}}), R"([1,true,"x",{"k":-2}])");
}

TEST(PropertyValueTest, WhatJSONHasNotIsWrittenAsTextNumbersOrNull) {
    EXPECT_EQ(toJSON(PropertyData{""}), R"("")");
    EXPECT_EQ(toJSON(PropertyData{"f"}), R"("Zg==")");
    EXPECT_EQ(toJSON(PropertyData{"fo"}), R"("Zm8=")");
    EXPECT_EQ(toJSON(PropertyData{"foobar"}), R"("Zm9vYmFy")");
    EXPECT_EQ(toJSON(PropertyData{"\xff\xfe"}), R"("//4=")");
    EXPECT_EQ(toJSON(std::nan("")), "null");
    EXPECT_EQ(jsonFromPropertyValue(WallTime(std::chrono::milliseconds(1500))), boost::json::value(1.5));
}

}  // namespace
}  // namespace orvex::platform
