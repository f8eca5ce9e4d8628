#include "platform/uuid.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

namespace orvex::platform {
namespace {

TEST(UUID, IsARandomOneInCanonicalUpperCaseText) {
    const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    std::set<std::string> seen;
    for (int round = 0; round < 100; ++round) {
        const auto text = newUUIDString();
        EXPECT_TRUE(std::regex_match(text, form)) << text;
        EXPECT_TRUE(seen.insert(text).second) << text;
    }
}

}  // namespace
}  // namespace orvex::platform
