#include "platform/session_back_off.h"

#include <gtest/gtest.h>

#include "platform/background_session.h"
#include "platform/http_session.h"

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;

TEST(SessionBackOffTest, TheDelaysGrowFourfoldToTwelveHoursFromTheirUpperHalf) {
    for (const double drawn : {0.0, 1.0}) {
        SessionBackOff backOff([drawn] { return drawn; });
        MonotonicTime now{1h};
        for (const std::chrono::seconds delay : {60s, 240s, 960s, 3840s, 15360s, 43200s, 43200s}) {
            backOff.failed({.began = now, .failed = now + 1s, .retryAfter = {}});
            ASSERT_TRUE(backOff.nextAttempt());
            EXPECT_EQ(*backOff.nextAttempt() - (now + 1s), drawn > 0 ? delay : delay / 2);
            now = *backOff.nextAttempt();
        }
        backOff.succeeded();
        EXPECT_FALSE(backOff.nextAttempt());
        backOff.failed({.began = now, .failed = now, .retryAfter = 0s});  // asks for nothing
        EXPECT_LE(*backOff.nextAttempt(), now + 60s);
    }
}

TEST(SessionBackOffTest, FailuresOfOneWaveAreOneAndAServerIsObeyed) {
    SessionBackOff backOff([] { return 0.0; });
    const MonotonicTime start{1h};
    backOff.failed({.began = start, .failed = start + 1s, .retryAfter = 3600s});
    backOff.failed({.began = start, .failed = start + 2s, .retryAfter = {}});
    EXPECT_EQ(backOff.nextAttempt(), start + 3601s);
    backOff.failed({.began = start + 1s, .failed = start + 3s, .retryAfter = 7200s});
    EXPECT_EQ(backOff.nextAttempt(), start + 7203s);
    backOff.failed({.began = start + 7203s, .failed = start + 7203s, .retryAfter = {}});
    EXPECT_EQ(backOff.nextAttempt(), start + 7203s + 120s);  // the second step
}

TEST(SessionBackOffTest, RetryAfterIsReadInBothForms) {
    const WallTime now{std::chrono::seconds(784111777)};  // Sun, 06 Nov 1994 08:49:37 GMT
    const struct {
        std::string text;
        std::optional<std::chrono::seconds> seconds;
    } cases[] = {
        {"120", 120s},
        {"0", 0s},
        {"86401", 24h},
        {"99999999999999999999", 24h},
        {"Sun, 06 Nov 1994 08:51:37 GMT", 120s},
        {"Sunday, 06-Nov-94 08:51:37 GMT", 120s},
        {"Sun Nov  6 08:51:37 1994", 120s},
        {"Sun, 06 Nov 1994 08:49:36 GMT", 0s},
        {"Sun, 06 Nov 2094 08:49:36 GMT", 24h},
        {"", {}},
        {"soon", {}},
        {"-5", {}},
        {"12.5", {}},
    };
    for (const auto& [text, seconds] : cases) EXPECT_EQ(retryAfter({{"Retry-After", text}}, now), seconds) << text;
    EXPECT_EQ(retryAfter({}, now), std::nullopt);
    for (const int status : {200, 204, 301, 400, 401, 408, 413, 429, 500, 501, 502, 503, 504, 505})
        EXPECT_EQ(isTemporaryStatus(status),
                  status == 408 || status == 429 || status == 502 || status == 503 || status == 504);
}

}  // namespace
}  // namespace orvex::platform
