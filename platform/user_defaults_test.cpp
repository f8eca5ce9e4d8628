#include "platform/user_defaults.h"

#include <gtest/gtest.h>

#include "platform/fakes/fake_user_defaults.h"

namespace orvex::platform {
namespace {

TEST(UserDefaultsTest, PutOverWinsOverStoredAndStoredOverRegistered) {
    FakeUserDefaults defaults;
    defaults.registerDefaults({{"a", 1}, {"b", 1}, {"c", 1}});
    defaults.registerDefaults({{"b", 2}});
    defaults.store("c", 3);
    EXPECT_EQ(defaults.integer("a"), 1);
    EXPECT_EQ(defaults.integer("b"), 2);
    EXPECT_EQ(defaults.integer("c"), 3);
    defaults.overrideForThisRun("c", "4");
    defaults.store("c", 5);
    EXPECT_EQ(defaults.integer("c"), 4);
    EXPECT_EQ(defaults.stored(), (PropertyDictionary{{"c", 5}}));
}

TEST(UserDefaultsTest, APutOverValueIsJSONOrElseTextAndKeepsItsOwnText) {
    FakeUserDefaults defaults;
    const auto put = [&](std::string text) {
        defaults.overrideForThisRun("k", std::move(text));
        return *defaults.object("k");
    };
    EXPECT_EQ(put("1.50"), PropertyValue(1.5));
    EXPECT_EQ(defaults.string("k"), "1.50");
    EXPECT_EQ(put("\"x\""), PropertyValue("x"));
    EXPECT_EQ(defaults.string("k"), "\"x\"");
    EXPECT_EQ(put("{\"a\":[true]}"), PropertyValue(PropertyDictionary{{"a", PropertyArray{true}}}));
    for (const auto* text : {"YES", "", "null", "{\"a\":", "https://a.example/?b=1"})
        EXPECT_EQ(put(text), PropertyValue(text));
    (void)put("YES");
    EXPECT_TRUE(defaults.boolean("k"));
}

}  // namespace
}  // namespace orvex::platform
