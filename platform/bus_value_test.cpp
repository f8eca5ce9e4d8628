#include "platform/bus_value.h"

#include <gtest/gtest.h>

#include "platform/bus.h"

namespace orvex::platform {
namespace {

TEST(BusValueTest, TheFirstCompleteTypeOfAMalformedSignatureIsNone) {
    EXPECT_EQ(firstCompleteType("su"), "s");
    EXPECT_EQ(firstCompleteType("aa{s(iav)}u"), "aa{s(iav)}");
    for (const auto* malformed : {"", "a", "aa", "(", "(s", "()", "a{s", "a{sv", ")", "z", "(s}", "a{sv)"}) {
        EXPECT_EQ(firstCompleteType(malformed), "") << malformed;
    }
}

TEST(BusValueTest, ValuesFitTheirTypeAndAVariantTakesAnyOne) {
    EXPECT_TRUE(fits("ta{sv}a{sv}", {std::uint64_t{1}, BusDictionary{}.set("a", 1.0), BusDictionary{}}));
    EXPECT_TRUE(fits("av", {BusArray{"v", {1.0, "text", BusArray{"as", {BusArray{"s", {"deep"}}}}}}}));
    EXPECT_FALSE(fits("t", {std::uint32_t{1}}));
    EXPECT_FALSE(fits("t", {}));
    EXPECT_FALSE(fits("", {std::uint64_t{1}}));
    EXPECT_FALSE(fits("v", {BusArray{"s", {1.0}}})) << "an array that breaks its own word";
    EXPECT_FALSE(fits("a{sx}", {BusDictionary{"x", {{"key", 1.0}}}}));
    EXPECT_FALSE(fits("a{sv}", {BusDictionary{"s", {}}}));
    EXPECT_FALSE(fits("(ss)", {BusStruct{{"one"}}}));
}

TEST(BusValueTest, TheLaterEntryOfAKeyWinsAndSetReplaces) {
    BusDictionary dictionary;
    dictionary.entries = {{"key", 1.0}, {"other", 2.0}, {"key", 3.0}};
    EXPECT_EQ(*dictionary.find("key")->as<double>(), 3.0);
    EXPECT_EQ(dictionary.find("absent"), nullptr);

    auto made = BusDictionary{}.set("key", 1.0).set("key", "text");
    EXPECT_EQ(made.entries.size(), 1u);
    EXPECT_EQ(*made.find("key")->as<std::string>(), "text");
}

class BusReplyTest : public testing::Test {
protected:
    BusReply reply() {
        return BusReply([this](std::expected<BusArguments, BusError> answer) {
            answers.push_back(answer ? "answer" : answer.error().name);
        });
    }
    std::vector<std::string> answers;
};

TEST_F(BusReplyTest, OneAnswerIsSentAndNoMore) {
    auto first = reply();
    first.answer({});
    EXPECT_FALSE(first.pending());
    first.fail(bus_error::invalidArgs, "late");
    EXPECT_EQ(answers, std::vector<std::string>{"answer"});
}

TEST_F(BusReplyTest, WhoeverHoldsItLastAnswersAndADroppedOneSaysSo) {
    {
        const auto dropped = reply();
    }
    EXPECT_EQ(answers.size(), 1u);
    {
        auto mine = reply();
        auto theirs = std::move(mine);
        EXPECT_FALSE(mine.pending());  // NOLINT(bugprone-use-after-move): that is the question
        mine = reply();
        theirs = std::move(mine);  // what it held is given up
        EXPECT_EQ(answers.size(), 2u);
    }
    EXPECT_EQ(answers, std::vector<std::string>(3, std::string(bus_error::noReply)));
}

}  // namespace
}  // namespace orvex::platform
