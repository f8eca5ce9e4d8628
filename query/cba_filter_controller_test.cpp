#include "query/cba_filter_controller.h"

#include <gtest/gtest.h>

#include "core/feedback_record.h"
#include "core/feedback_records.pb.h"

namespace orvex {
namespace {

constexpr const char* webIndex = "com.kelvar.orvex.web_index";

CXOrvexFeedback shown(std::int64_t queryId, const std::string& section, std::initializer_list<const char*> urls) {
    CXVisibleResultsFeedback visible;
    auto* result = visible.add_results();
    result->set_section_bundle_identifier(section);
    for (const auto* url : urls) result->mutable_punchout()->add_urls(url);
    return *orvexFeedbackWithCodable(visible, {.queryId = queryId});
}

CXOrvexFeedback engaged(std::int64_t queryId, const std::string& url) {
    CXCBAEngagementFeedback engagement;
    engagement.set_url(url);
    engagement.set_cba_type(3);  // a client cannot label it itself
    return *orvexFeedbackWithCodable(engagement, {.queryId = queryId});
}

/// "v" for each visible-results record that is left, the match type for each engagement; "!" for a URL that is left.
std::string filtered(std::vector<CXOrvexFeedback> records) {
    std::string result;
    for (const auto& record : CBAFilterController::arrayOfCBAFilteredFeedback(std::move(records))) {
        const auto& engagement = record.payload().cba_engagement();
        result += feedbackType(record) == 8 ? "v" : std::to_string(engagement.cba_type());
        if (engagement.has_url()) result += "!";
    }
    return result;
}

int match(std::string_view shown, std::string_view engaged) {
    return static_cast<int>(CBAFilterController::cbaMatchTypeBetweenURLs(shown, engaged));
}

TEST(CBAFilterControllerTest, AnEngagementIsKeptOnlyBesideAnEarlierWebResultOfItsQuery) {
    const auto page = "https://a.example/x";
    EXPECT_EQ(filtered({shown(1, webIndex, {page}), engaged(1, page)}), "v3");
    EXPECT_EQ(filtered({shown(1, "com.kelvar.orvex.web_suggest", {page}), engaged(1, page)}), "v3");
    EXPECT_EQ(filtered({shown(1, "com.kelvar.orvex.news", {page}), engaged(1, page)}), "v");
    EXPECT_EQ(filtered({shown(1, webIndex, {}), engaged(1, page)}), "v");
    EXPECT_EQ(filtered({shown(1, webIndex, {page}), engaged(2, page)}), "v");
    EXPECT_EQ(filtered({engaged(1, page), shown(1, webIndex, {page})}), "v") << "only what came before";
    EXPECT_EQ(filtered({shown(1, webIndex, {page}), engaged(1, "")}), "v");
    EXPECT_EQ(filtered({shown(1, webIndex, {"https://b.a.example/", "https://a.example/x?from=list"}), engaged(1, page),
                        engaged(1, "https://c.a.example/y"), engaged(1, "https://elsewhere.test/")}),
              "v21")
        << "the closest counts";
    EXPECT_EQ(filtered({}), "");
    EXPECT_EQ(filtered({CXOrvexFeedback()}), "0") << "any other record stays";
}

TEST(CBAFilterControllerTest, URLsMatchByPartsAsText) {
    EXPECT_EQ(match("https://a.example/x?q=1#f", "HTTPS://A.example/x?q=1#f"), 3);
    EXPECT_EQ(match("https://a.example/x?q=1#f", "https://a.example/x?utm=2#f"), 2);
    EXPECT_EQ(match("https://a.example/x", "https://a.example/x?"), 2);
    EXPECT_EQ(match("https://a.example/x#f", "https://a.example/x"), 1);
    EXPECT_EQ(match("https://a.example/%61", "https://a.example/a"), 1);
    EXPECT_EQ(match("https://www.shop.co.uk/x", "http://m.shop.co.uk:8080/"), 1);
    EXPECT_EQ(match("https://shop.co.uk/", "https://other.co.uk/"), 0);
    EXPECT_EQ(match("https://192.0.2.7/a", "https://192.0.2.7/b"), 1);
    EXPECT_EQ(match("https://192.0.2.7/a", "https://198.51.2.7/a"), 0) << "an address has no domain";
    EXPECT_EQ(match("https://[2001:db8::1]/a", "https://[2001:db8::1]/b"), 1);
    EXPECT_EQ(match("", ""), 0);
    EXPECT_EQ(match("no url", "no url"), 0);
    EXPECT_EQ(match("file:///a", "file:///b"), 0);
}

TEST(CBAFilterControllerTest, AnAcceleratedPageIsThePageThatItShows) {
    const auto page = "https://news-site.example.com/story/1";
    EXPECT_EQ(match("https://viewer.test/amp/s/news-site.example.com/story/1", page), 3);
    EXPECT_EQ(match("https://viewer.test/amp/s/news-site.example.com/story/1#referrer", page), 3);
    EXPECT_EQ(match("https://viewer.test/amp/s/news-site.example.com/story/1?x=1", page), 2);
    EXPECT_EQ(match("https://viewer.test/amp/news-site.example.com/story/1", page), 1) << "http";
    EXPECT_EQ(match("https://news--site-example-com.cache.test/c/s/news-site.example.com/story/1", page), 3);
    EXPECT_EQ(match("https://news--site-example-com.cache.test/v/s/news-site.example.com/story/1", page), 3);
    EXPECT_EQ(match("https://cdn.cache.test/c/s/news-site.example.com/story/1", page), 3);
    EXPECT_EQ(match("https://elsewhere.test/c/s/news-site.example.com/story/1", page), 0) << "no cache's host";
    EXPECT_EQ(match("https://example.com/amp/story/1", page), 1) << "a site's own path is no host";
}

}  // namespace
}  // namespace orvex
