#include "tools/service/word_net.h"

#include <gmock/gmock.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace orvex {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

// Over the installed database: what it says about these words has not changed for years.
class WordNetTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        auto opened = WordNet::open(WordNet::defaultDirectory);
        ASSERT_TRUE(opened) << opened.error().text;
        words = opened->release();
    }
    static void TearDownTestSuite() { delete words; }

    static std::vector<std::string> completions(std::string_view text, std::size_t limit = 3) {
        std::vector<std::string> lemmas;
        for (const auto* word : words->completions(text, limit)) lemmas.emplace_back(word->lemma);
        return lemmas;
    }
    static std::string baseForm(std::string_view text) {
        const auto* word = words->findBaseForm(text);
        return word == nullptr ? "" : std::string(word->lemma);
    }

    static inline WordNet* words = nullptr;
};

TEST_F(WordNetTest, CompletionsBeginWithTheTextAndTheMostUsedComeFirst) {
    EXPECT_THAT(completions("weat"), ElementsAre("weather", StartsWith("weather"), StartsWith("weat")));
    const auto all = words->completions("wea", 50);
    ASSERT_EQ(all.size(), 50u);
    for (std::size_t i = 1; i < all.size(); ++i) EXPECT_GE(all[i - 1]->use, all[i]->use);
    EXPECT_EQ(completions("wee", 1).front(), "wee") << "the text itself, when it is a word";
    EXPECT_LT(words->find("wee")->use, words->find("week")->use);
}

TEST_F(WordNetTest, CaseAndBlanksDoNotMatter) {
    EXPECT_EQ(completions("New Yor"), completions("new_yor"));
    EXPECT_THAT(completions("New Yor", 1), ElementsAre("new_york"));
}

TEST_F(WordNetTest, WhatNoWordBeginsWithHasNoCompletions) {
    EXPECT_THAT(completions(""), IsEmpty());
    EXPECT_THAT(completions("xqzzy"), IsEmpty());
    EXPECT_THAT(completions("\xff\xfe"), IsEmpty());
    EXPECT_THAT(completions(std::string(100000, 'a')), IsEmpty());
    EXPECT_EQ(words->find("zzzzzz"), nullptr) << "past the last word";
}

TEST_F(WordNetTest, FormsLeadToTheirWords) {
    EXPECT_EQ(baseForm("Mice"), "mouse");
    EXPECT_EQ(baseForm("walked"), "walk");
    EXPECT_EQ(baseForm("ran"), "run");
    EXPECT_EQ(baseForm("ponies"), "pony");
    EXPECT_EQ(baseForm("qqqs"), "");
}

TEST_F(WordNetTest, SensesCarryTitleGlossAndSynonyms) {
    const auto senses = words->senses(*words->find("weather"), 10);
    ASSERT_EQ(senses.size(), 6u);
    EXPECT_EQ(senses.front().partOfSpeech, "noun");
    EXPECT_THAT(senses.front().gloss, StartsWith("the atmospheric conditions"));
    EXPECT_THAT(senses.front().synonyms, ::testing::Contains("atmospheric condition"));
    EXPECT_EQ(words->senses(*words->find("new york"), 1).front().title, "New York");
    EXPECT_EQ(words->senses(*words->find("outback"), 1).front().title, "outback") << "no mark of its place";
}

// A directory of a test's own.
class BrokenWordNetTest : public ::testing::Test {
protected:
    BrokenWordNetTest() {
        std::string pattern = ::testing::TempDir() + "word_net.XXXXXX";
        directory = mkdtemp(pattern.data());
        for (const std::string part : {"noun", "verb", "adj", "adv"})
            for (const auto& name : {"index." + part, "data." + part, part + ".exc"}) write(name, "x\n");
        write("cntlist.rev", "x\n");
    }
    ~BrokenWordNetTest() override { std::filesystem::remove_all(directory); }

    void write(const std::string& name, std::string_view text) const { std::ofstream(directory + "/" + name) << text; }

    std::string directory;
};

TEST_F(BrokenWordNetTest, AMissingFileIsNamed) {
    std::filesystem::remove(directory + "/data.verb");
    const auto opened = WordNet::open(directory);
    ASSERT_FALSE(opened);
    EXPECT_THAT(opened.error().text, HasSubstr("data.verb"));
}

TEST_F(BrokenWordNetTest, WhatIsWrongInTheFilesIsLeftOut) {
    write("index.noun",
          "bee n 2 1 @ 2 0 00000000 99999999  \nant n 1 0 1 0 00000040\nfly n 4294967295 4294967295 1\ncow\n");
    write("data.noun", "00000000 05 n 01 bee 0 000 | an insect\n");
    const auto opened = WordNet::open(directory);
    ASSERT_TRUE(opened) << opened.error().text;
    const WordNet& words = **opened;
    EXPECT_EQ(words.senses(*words.find("bee"), 9).size(), 1u);
    for (const char* broken : {"ant", "fly", "cow"}) EXPECT_THAT(words.senses(*words.find(broken), 9), IsEmpty());
}

}  // namespace
}  // namespace orvex
