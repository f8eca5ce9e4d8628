#include "platform/url_cache.h"

#include <gmock/gmock.h>

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::Pair;

const HTTPHeaders fresh{{"Cache-Control", "max-age=100"}};

class URLCacheTest : public testing::Test {
protected:
    HTTPAnswer accept(const URLRequest& request, std::int64_t status, HTTPHeaders headers,
                      const std::shared_ptr<const CachedAnswer>& validated = nullptr) {
        return cache.accept({.request = request, .validated = validated, .requested = now.monotonic, .arrived = now},
                            {{request.url, true, status, std::move(headers)}, body});
    }
    std::shared_ptr<const CachedAnswer> find(const URLRequest& request) { return cache.find(request, now); }

    void advance(std::chrono::seconds time) {
        now.monotonic += time;
        now.wall += time;
    }
    /// For how long a stored answer with these headers is used without asking; none: it is not stored.
    std::optional<std::chrono::seconds> freshFor(std::int64_t status, const HTTPHeaders& headers) {
        URLCache fresh(4096);
        static_cast<void>(fresh.accept({.request = request, .requested = now.monotonic, .arrived = now},
                                       {{request.url, true, status, headers}, body}));
        if (!fresh.find(request, now)) return std::nullopt;
        for (const auto time : {0s, 60s, 100s}) {
            const auto found = fresh.find(request, {now.monotonic + time, now.wall});
            if (!found || !found->isFresh({now.monotonic + time, now.wall})) return time;
        }
        return 1000s;
    }

    URLCache cache{4000};
    const URLRequest request{.url = "https://server.example/a"};
    const Body body = std::make_shared<std::string>("body");
    CacheTime now{MonotonicTime(5s), WallTime(784111777s)};  // Sun, 06 Nov 1994 08:49:37 GMT
};

TEST_F(URLCacheTest, AnAnswerSaysWhetherItIsStoredAndForHowLong) {
    const std::pair<std::string, std::string> date{"Date", "Sun, 06 Nov 1994 08:49:37 GMT"};
    const std::pair<std::string, std::string> tag{"ETag", "\"1\""};
    const struct {
        std::int64_t status;
        HTTPHeaders headers;
        std::optional<std::chrono::seconds> freshFor;
    } rows[] = {
        {200, {{"Cache-Control", "private, must-revalidate, MAX-AGE=\"100\""}}, 100s},
        {200, {{"cache-control", "public"}, {"Cache-Control", "max-age=60, max-age=100"}}, 60s},
        {200, {{"Cache-Control", "max-age=99999999999999999999"}}, 1000s},
        {200, {{"Cache-Control", "max-age=100"}, {"Age", "40"}}, 60s},
        {200, {{"Cache-Control", "max-age=100"}, {"Date", "Sun, 06 Nov 1994 08:48:57 GMT"}}, 60s},
        {200, {{"Cache-Control", "max-age=100"}, {"Expires", "0"}}, 100s},
        {200, {{"Expires", "Sun, 06 Nov 1994 08:51:17 GMT"}}, 100s},
        {200, {{"Expires", "Sunday, 06-Nov-94 08:51:17 GMT"}, date}, 100s},
        {200, {{"Expires", "Sun Nov  6 08:51:17 1994"}, date}, 100s},
        {200, {{"Expires", "Fri, 31 Dec 9999 23:59:59 GMT"}}, 1000s},
        {404, fresh, 100s},
        // Stored for its validator only.
        {200, {tag}, 0s},
        {200, {{"Last-Modified", date.second}}, 0s},
        {200, {{"Cache-Control", "no-cache, max-age=100"}, tag}, 0s},
        {200, {{"Cache-Control", "max-age=ever"}, tag}, 0s},
        // Not stored.
        {200, {}, std::nullopt},
        {200, {{"Last-Modified", "lately"}, {"ETag", " "}}, std::nullopt},
        {200, {{"Cache-Control", "max-age=-1"}}, std::nullopt},
        {200, {{"Cache-Control", "x=\", no-store, max-age=100"}, tag}, std::nullopt},
        {200, {{"Cache-Control", "max-age=100"}, {"Vary", "Accept, *"}}, std::nullopt},
        {200, {{"Expires", "Sun, 06 Nov 1994 08:49:37 GMT"}}, std::nullopt},
        {200, {{"Expires", "Sun, 31 Feb 1999 08:49:37 GMT"}}, std::nullopt},
        {206, fresh, std::nullopt},
        {302, fresh, std::nullopt},
        {500, fresh, std::nullopt},
        {404, {tag}, std::nullopt},
    };
    for (const auto& row : rows)
        EXPECT_EQ(freshFor(row.status, row.headers), row.freshFor) << row.status << testing::PrintToString(row.headers);
}

TEST_F(URLCacheTest, AnAnswerAgesByTheClockThatWentFurther) {
    accept(request, 200, fresh);
    const auto stored = find(request);
    ASSERT_TRUE(stored);
    EXPECT_THAT(stored->at({now.monotonic + 30s, now.wall - 1h}).response.headers.back(), Pair("Age", "30"));
    EXPECT_EQ(stored->at(now).body, body);
    EXPECT_FALSE(stored->isFresh({now.monotonic, now.wall + 100s})) << "the machine slept";
    EXPECT_FALSE(stored->isFresh({now.monotonic + 100s, now.wall - 1h})) << "the date was set back";
}

TEST_F(URLCacheTest, ARequestSaysWhetherItTakesPart) {
    HTTPHeaders headers = fresh;
    headers.emplace_back("Vary", "Accept-Language, X-Absent");
    URLRequest english = request;
    english.headers = {{"accept-language", "en"}, {"X-Other", "1"}};
    accept(english, 200, headers);
    english.headers[1].second = "2";
    EXPECT_TRUE(find(english));
    EXPECT_FALSE(find(request));

    for (const auto* name : {"Cache-Control", "If-None-Match", "Range", "X-Absent", "Accept-Language"}) {
        URLRequest other = english;
        other.headers.emplace_back(name, "x");
        EXPECT_FALSE(find(other)) << name;
    }
    URLRequest reload = english;
    reload.cachePolicy = CachePolicy::reloadIgnoringLocalCache;
    EXPECT_FALSE(find(reload));
    accept(reload, 503, {});
    EXPECT_TRUE(find(english)) << "an error of the server is no later answer";
    accept(reload, 200, {});
    EXPECT_FALSE(find(english)) << "an answer that may not be stored took its place";

    URLRequest post = english;
    post.method = "POST";
    accept(post, 200, fresh);
    EXPECT_FALSE(find(english) || find(post));
    accept(english, 200, fresh);
    accept(post, 404, {});
    EXPECT_TRUE(find(english));
    accept(post, 201, {});
    EXPECT_FALSE(find(english)) << "it changed what the URL stands for";
}

TEST_F(URLCacheTest, A304RefreshesWhatItValidates) {
    const std::string date = "Sun, 06 Nov 1994 08:49:37 GMT";
    accept(request, 200, {{"ETag", "\"1\""}, {"Last-Modified", date}, {"Date", date}, {"X-Kept", "1"}, {"Age", "9"}});
    advance(1h);
    const auto stored = find(request);
    ASSERT_TRUE(stored);
    EXPECT_FALSE(stored->isFresh(now));
    EXPECT_THAT(stored->conditions(), ElementsAre(Pair("If-None-Match", "\"1\""), Pair("If-Modified-Since", date)));

    const HTTPHeaders notModified{{"etag", "W/\"1\""}, {"Cache-Control", "max-age=100"}, {"Content-Length", "7"}};
    const auto answer = accept(request, 304, notModified, stored);
    EXPECT_EQ(answer.response.statusCode, 200);
    EXPECT_EQ(answer.body, body);
    EXPECT_THAT(answer.response.headers, ElementsAre(Pair("Last-Modified", date), Pair("X-Kept", "1"),
                                                     Pair("etag", "W/\"1\""), Pair("Cache-Control", "max-age=100")));
    const auto refreshed = find(request);
    ASSERT_TRUE(refreshed);
    EXPECT_TRUE(refreshed->isFresh(now));

    EXPECT_EQ(accept(request, 304, {{"ETag", "\"2\""}}, refreshed).response.statusCode, 200);
    EXPECT_FALSE(find(request)) << "the 304 named another version";
    EXPECT_EQ(accept(request, 304, {}).response.statusCode, 304) << "nobody asked for it";

    EXPECT_TRUE(cache.purge(now.monotonic));  // while the request is under way
    EXPECT_EQ(accept(request, 304, notModified, stored).body, body);
    EXPECT_FALSE(find(request)) << "of before the purge";
}

TEST_F(URLCacheTest, TheLeastRecentlyUsedGoesFirst) {
    const auto url = [](int number) { return URLRequest{.url = "https://server.example/" + std::to_string(number)}; };
    const auto store = [&](int number, std::size_t bytes) {
        static_cast<void>(
            cache.accept({.request = url(number), .requested = now.monotonic, .arrived = now},
                         {{url(number).url, true, 200, fresh}, std::make_shared<std::string>(bytes, 'x')}));
    };
    store(0, 1000);
    EXPECT_FALSE(find(url(0))) << "more than a quarter";
    for (const int number : {1, 2, 3, 4, 4}) store(number, 900);
    EXPECT_TRUE(find(url(1)));
    store(5, 900);
    for (const int number : {1, 3, 4, 5}) EXPECT_TRUE(find(url(number))) << number;
    EXPECT_FALSE(find(url(2)));

    EXPECT_TRUE(cache.purge(now.monotonic));
    EXPECT_FALSE(find(url(1)));
    advance(1s);
    for (const int number : {1, 2, 3, 4}) store(number, 900);
    EXPECT_TRUE(find(url(1))) << "what was purged still counts";

    URLCache none(0);
    EXPECT_FALSE(none.purge(now.monotonic));
}

}  // namespace
}  // namespace orvex::platform
