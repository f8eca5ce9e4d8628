#include "core/enumeration_strings.h"

#include <gtest/gtest.h>

namespace orvex {
namespace {

TEST(EnumerationStringsTest, MediaTypeIsReadInAnyCaseButItsShortFormIsNot) {
    for (const auto* text : {"MediaType", "MEDIATYPE", "mediatype", "mt"})
        EXPECT_EQ(featureTypeFromString(text), FeatureType::mediaType) << text;
    for (const auto* text : {"MT", "Topic", "DOMAIN", "", "media"})
        EXPECT_EQ(featureTypeFromString(text), FeatureType::unknown) << text;
    EXPECT_EQ(featureTypeFromString("tld"), FeatureType::domain);
}

TEST(EnumerationStringsTest, EachValueReadsBackFromTheStringItWrites) {
    for (const auto type : {FeatureType::domain, FeatureType::mediaType, FeatureType::topic, FeatureType::unknown})
        EXPECT_EQ(featureTypeFromString(stringFromFeatureType(type)), type);
    for (const auto type : {ClientType::brovia, ClientType::lumisk, ClientType::unknown})
        EXPECT_EQ(clientTypeFromString(stringFromClientType(type)), type);
    for (const auto type : {FunctionType::engagement, FunctionType::engagementToRender, FunctionType::unknown})
        EXPECT_EQ(funcTypeFromString(stringFromFunctionType(type)), type);
    for (const auto placement : {ResultPlacement::unknown, ResultPlacement::top, ResultPlacement::bottom})
        EXPECT_EQ(resultPlacementFromString(stringFromResultPlacement(placement)), placement);
}

TEST(EnumerationStringsTest, TheOlderWordForRenderIsReadAndNeverWritten) {
    EXPECT_EQ(funcTypeFromString("engrate"), FunctionType::engagementToRender);
    EXPECT_EQ(stringFromFunctionType(FunctionType::engagementToRender), "eng/render");
}

TEST(EnumerationStringsTest, ValuesOutsideTheTableWriteAsTheUnknownOne) {
    EXPECT_EQ(stringFromFeatureType(FeatureType(99)), "unkonwn");
    EXPECT_EQ(stringFromClientType(ClientType(99)), "unknown");
    EXPECT_EQ(stringFromFunctionType(FunctionType(99)), "unknown");
    EXPECT_EQ(stringFromResultPlacement(ResultPlacement(-1)), "unkonw");
}

}  // namespace
}  // namespace orvex
