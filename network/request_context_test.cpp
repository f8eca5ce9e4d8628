#include "network/request_context.h"

#include <gtest/gtest.h>

#include "platform/fakes/fake_user_defaults.h"
#include "platform/fakes/recording_log.h"
#include "platform/locale.h"

namespace orvex {
namespace {

std::string languagesOf(std::vector<std::string> languages) {
    RequestContext context;
    context.setLocale({.identifier = "en_GB", .preferredLanguages = std::move(languages)});
    return context.preferredLanguages;
}

TEST(RequestContextTest, ThreeLanguagesAreToldAtMost) {
    EXPECT_EQ(languagesOf({"en", "fr", "de"}), R"(["en","fr","de"])");
    EXPECT_EQ(languagesOf({"en", "fr", "de", "it"}), R"(["en","fr","de"])");
    const platform::RecordingLog log;
    EXPECT_EQ(languagesOf({"en", "\xff"}), "");
    EXPECT_TRUE(log.contains(platform::LogLevel::error, "Orvex_Request", "Error encoding preferred languages"));
}

TEST(RequestContextTest, DebugParametersWithoutAValueAreSkippedAndTold) {
    platform::FakeUserDefaults userDefaults;
    userDefaults.store("ORXDebugParameters", "a=1&b&c=3&d=1=2&e=&");
    const platform::RecordingLog log;
    RequestContext context;
    context.readUserDefaults(userDefaults);
    const std::vector<platform::QueryItem> expected = {{"a", "1"}, {"c", "3"}, {"d", "1"}, {"e", ""}};
    EXPECT_EQ(context.debuggingQueryItems, expected);
    EXPECT_TRUE(log.contains(platform::LogLevel::standard, "Orvex_Request",
                             "processing debug parameters: (a=1&b&c=3&d=1=2&e=&)"));
    for (const auto* part : {"b", ""})
        EXPECT_TRUE(log.contains(platform::LogLevel::standard, "Orvex_Request",
                                 std::string("invalid query components: ") + part));
}

}  // namespace
}  // namespace orvex
