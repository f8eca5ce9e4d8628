#include "core/http_description.h"

#include <gtest/gtest.h>

#include "platform/fakes/recording_log.h"

namespace orvex {
namespace {

TEST(HTTPDescriptionTest, QueriesAndHeaderValuesShowOnlyInADebugLog) {
    const platform::HTTPHeaders headers = {{"User-Agent", "lumisk/1"}, {"X-Kelvar-UserGuid", "ABC"}};
    const platform::URLResponse response{.url = "https://a.example/s?q=cat", .statusCode = 200, .headers = {}};
    {
        const platform::RecordingLog log(platform::LogLevel::standard);
        EXPECT_EQ(describedURL("https://a.example/s?q=cat"), "https://a.example/s?<private>");
        EXPECT_EQ(describedHeaders(headers), "{User-Agent = <private>; X-Kelvar-UserGuid = <private>}");
        EXPECT_EQ(describedResponse(response), "200 https://a.example/s?<private>");
    }
    const platform::RecordingLog log(platform::LogLevel::debug);
    EXPECT_EQ(describedURL("https://a.example/s?q=cat"), "https://a.example/s?q=cat");
    EXPECT_EQ(describedHeaders(headers), "{User-Agent = lumisk/1; X-Kelvar-UserGuid = ABC}");
    EXPECT_EQ(describedResponse(std::nullopt), "(null)");
}

}  // namespace
}  // namespace orvex
