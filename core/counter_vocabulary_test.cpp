#include "core/counter_vocabulary.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "platform/counters.h"

namespace orvex {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Those of the daemon's own sources that count, as one text.
std::string sources() {
    const auto root = std::filesystem::path(ORVEX_SOURCE_DIR);
    std::string all;
    for (const char* folder : {"core", "daemon", "query", "network", "feedback", "resources", "platform"}) {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root / folder)) {
            const auto name = entry.path().string();
            const bool isSource = name.ends_with(".cpp") || name.ends_with(".h");
            if (!isSource || name.contains("_test.") || name.contains("/fakes/")) continue;
            std::stringstream text;
            text << std::ifstream(entry.path()).rdbuf();
            if (text.view().contains("ounter") || text.view().contains("AggdKey")) all += text.str();
        }
    }
    return all;
}

/// What begins with `call`, each up to its semicolon.
std::vector<std::string> statements(const std::string& text, const std::string& call) {
    std::vector<std::string> found;
    const std::regex pattern(call + R"([^;]*;)");
    for (auto match = std::sregex_iterator(text.begin(), text.end(), pattern); match != std::sregex_iterator(); ++match)
        found.push_back(match->str());
    return found;
}

std::vector<std::string> literals(const std::string& statement) {
    std::vector<std::string> found;
    static const std::regex quoted(R"re("([^"]*)")re");
    for (auto match = std::sregex_iterator(statement.begin(), statement.end(), quoted); match != std::sregex_iterator();
         ++match)
        found.push_back((*match)[1].str());
    return found;
}

const std::string countCall = R"(\b_?counters(\(\))?\.(add|set)\((?!createAggdKey))";

/// Every name that the sources count under. A name is written out where it is counted, or is a constant whose own name
/// ends in Counter or AggdKey; a client's is made by `createAggdKey`, whose suffix is written out.
std::set<std::string> countedNames(const std::string& text) {
    std::set<std::string> names;
    const auto take = [&](const std::string& call, const std::string& beginning) {
        for (const auto& statement : statements(text, call)) {
            for (const auto& literal : literals(statement)) names.insert(beginning + literal);
        }
    };
    take(countCall, "");
    take(R"(std::string_view \w*(Counter|AggdKey) =)", "");
    take(R"(\b_drop\((?="))", "");
    take(R"(createAggdKey\((?!std)[^";]*(?="))", "com.kelvar.orvexd.client.");
    take(R"([^:\w]_count\((?="))", "com.kelvar.orvexd.client.");
    return names;
}

TEST(CounterVocabulary, HasARowForEveryCounterThatTheDaemonCountsAndNoOther) {
    const auto text = sources();
    const std::regex isNamed(R"re("|Counter\b|\bcounter\b|AggdKey|\((name|key),)re");
    for (const auto& statement : statements(text, countCall)) {
        EXPECT_TRUE(std::regex_search(statement, isNamed)) << "names nothing that can be looked up: " << statement;
    }
    std::set<const CounterMeaning*> counted;
    for (auto name : countedNames(text)) {
        if (const auto argument = name.find("{}"); argument != name.npos) name.replace(argument, 2, "part");
        if (name.ends_with("serverstatus")) name += "200";
        const auto known = knownCounter(name);
        EXPECT_TRUE(known) << name << " has no row in counter_vocabulary.cpp";
        if (known) counted.insert(known->meaning);
    }
    for (const auto& meaning : counterMeanings()) {
        const bool isSum = meaning.pattern == platform::Counters::otherName;
        EXPECT_TRUE(isSum || counted.contains(&meaning)) << "nothing counts under " << meaning.pattern;
    }
}

TEST(CounterVocabulary, TellsThePartsThatDifferAndWhyEachDropIsOne) {
    const auto answered = knownCounter("com.kelvar.orvexd.Lumisk/1.2 (a \"b\").fedapicall.serverstatus200");
    ASSERT_TRUE(answered);
    EXPECT_THAT(answered->parts, ElementsAre("Lumisk/1.2 (a \"b\")", "200"));
    EXPECT_THAT(knownCounter("activity.ended")->parts, IsEmpty());
    for (const char* unknown :
         {"", "com.kelvar.orvexd.", "com.kelvar.orvexd..keystrokes", "com.kelvar.orvexd.other", "launch"}) {
        EXPECT_FALSE(knownCounter(unknown)) << unknown;
    }
    for (const auto& meaning : counterMeanings()) {
        const bool saysWhy = meaning.sentence.contains(": ");
        EXPECT_EQ(saysWhy, meaning.kind == CounterMeaning::Kind::drop) << meaning.pattern;
    }
}

}  // namespace
}  // namespace orvex
