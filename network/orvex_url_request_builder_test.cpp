#include "network/orvex_url_request_builder.h"

#include <gtest/gtest.h>

namespace orvex {
namespace {

OrvexURLRequestBuilder builderFor(std::string_view url) {
    return OrvexURLRequestBuilder::requestBuilderWithURL(url).value();
}
std::string urlOf(OrvexURLRequestBuilder builder) { return std::move(builder).createMutableUrlRequest().url; }

TEST(OrvexURLRequestBuilderTest, TheEndpointsOwnItemsWinOverDefaultsAndAllAreSorted) {
    auto builder = builderFor("https://a.example/s?b=2&a=1");
    builder.defaultQueryItemWithName("a", "9");
    EXPECT_EQ(urlOf(builder), "https://a.example/s?a=1&b=2");
}

TEST(OrvexURLRequestBuilderTest, ALaterForceWinsOverEverything) {
    auto builder = builderFor("https://a.example/s?a=1&a=2");
    EXPECT_EQ(urlOf(builder), "https://a.example/s?a=2");
    builder.forceQueryItemsFromArray({{"a", "3"}, {"Z", "0"}, {"a", "4"}});
    builder.defaultQueryItemWithName("a", "5");
    EXPECT_EQ(urlOf(builder), "https://a.example/s?Z=0&a=4");
}

TEST(OrvexURLRequestBuilderTest, EverythingButTheUnreservedIsEncoded) {
    auto builder = builderFor("https://a.example/s");
    EXPECT_EQ(urlOf(builder), "https://a.example/s");
    builder.defaultQueryItemWithName("latlng", "37.5,-122.1");
    builder.defaultQueryItemWithName("q+&", "a+b=c&d/e:f g\xc3\xbc~_");
    EXPECT_EQ(urlOf(builder), "https://a.example/s?latlng=37.5%2C-122.1&q%2B%26=a%2Bb%3Dc%26d%2Fe%3Af%20g%C3%BC~_");
}

TEST(OrvexURLRequestBuilderTest, HeadersHaveOneValueANameAndNoControlCharacter) {
    auto builder = builderFor("https://a.example/s");
    builder.defaultHttpHeaderWithName("Accept", "a");
    builder.defaultHttpHeaderWithName("Accept", "b");
    builder.forceHttpHeaderWithName("User-Agent", "first");
    builder.forceHttpHeaderWithName("User-Agent", "second");
    builder.forceHttpHeaderWithName("User-Agent", "third\r\nX-Evil: 1");
    builder.defaultHttpHeaderWithName("X-Kelvar-Languages", std::string("a\0b", 3));
    const platform::HTTPHeaders expected = {{"Accept", "a"}, {"User-Agent", "second"}};
    EXPECT_EQ(std::move(builder).createMutableUrlRequest().headers, expected);
    EXPECT_EQ(builder.refusedHeaders(), 2u);
}

TEST(OrvexURLRequestBuilderTest, AnEndpointBeyondTheURLRuleIsNone) {
    for (const auto* url : {"", "not a url", "http://a.example/s", "https://user:pw@a.example/", "file:///etc/passwd"})
        EXPECT_FALSE(OrvexURLRequestBuilder::requestBuilderWithURL(url)) << url;
}

}  // namespace
}  // namespace orvex
