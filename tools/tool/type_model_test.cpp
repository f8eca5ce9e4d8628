#include "tools/tool/type_model.h"

#include <gmock/gmock.h>

#include <clocale>

#include "tools/tool/terminal_text.h"

namespace orvex::tool {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

TypeAnswer answerWith(std::vector<std::string> suggestions) {
    return {.source = TypeAnswer::Source::server,
            .results = {.suggestions = std::move(suggestions), .cards = {}},
            .error = {},
            .took = milliseconds(3)};
}

/// Types each character; the last query.
std::optional<TypeModel::Query> typed(TypeModel& model, std::string_view text) {
    std::optional<TypeModel::Query> query;
    while (!text.empty()) {
        const auto bytes = firstCharacterBytes(text);
        query = model.type(text.substr(0, bytes));
        text.remove_prefix(bytes);
    }
    return query;
}

TEST(TypeModel, EditsWholeCharactersAndAsksWhenTheTextChanges) {
    TypeModel model;
    const auto first = typed(model, "näh");
    ASSERT_TRUE(first);
    EXPECT_EQ(first->text, "näh");
    EXPECT_FALSE(model.press(TypeModel::Key::left));
    const auto second = model.press(TypeModel::Key::backspace);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->text, "nh");
    EXPECT_GT(second->identifier, first->identifier);
    EXPECT_EQ(typed(model, "語")->text, "n語h");
    model.press(TypeModel::Key::home);
    EXPECT_FALSE(model.press(TypeModel::Key::left));
    EXPECT_FALSE(model.press(TypeModel::Key::backspace)) << "nothing before the cursor";
    model.press(TypeModel::Key::right);
    EXPECT_EQ(model.press(TypeModel::Key::remove)->text, "nh");
    EXPECT_EQ(model.textBeforeCursor(), "n");
    model.press(TypeModel::Key::end);
    EXPECT_FALSE(model.press(TypeModel::Key::right));
    EXPECT_FALSE(model.press(TypeModel::Key::remove));
    EXPECT_FALSE(model.press(TypeModel::Key::clear)) << "an empty line asks nothing";
    EXPECT_EQ(model.text(), "");
}

TEST(TypeModel, ALateAnswerNeverReplacesANewerOne) {
    TypeModel model;
    const auto older = typed(model, "a")->identifier;
    const auto newer = typed(model, "b")->identifier;
    model.answered(older, answerWith({"a cappella"}));
    EXPECT_THAT(model.results().suggestions, ElementsAre("a cappella")) << "better than nothing until the newer comes";
    EXPECT_THAT(model.status(), HasSubstr("asking"));
    const auto newest = typed(model, "c")->identifier;
    model.answered(newest, answerWith({"abc"}));
    model.answered(newer, answerWith({"abandon"}));
    EXPECT_THAT(model.results().suggestions, ElementsAre("abc"));
    EXPECT_THAT(model.status(), Not(HasSubstr("asking")));
}

TEST(TypeModel, AnEmptiedLineStaysEmpty) {
    TypeModel model;
    const auto query = typed(model, "a")->identifier;
    model.press(TypeModel::Key::clear);
    model.answered(query, answerWith({"apple"}));
    EXPECT_THAT(model.results().suggestions, IsEmpty());
}

TEST(TypeModel, AnErrorIsToldAndLeavesTheResults) {
    TypeModel model;
    model.answered(typed(model, "a")->identifier, answerWith({"apple"}));
    model.answered(typed(model, "b")->identifier, {.error = "timeout", .took = milliseconds(9)});
    EXPECT_THAT(model.status(), HasSubstr("timeout"));
    EXPECT_THAT(model.results().suggestions, ElementsAre("apple"));
    model.setLink(TypeModel::Link::daemonGone);
    EXPECT_THAT(model.status(), HasSubstr("gone"));
}

TEST(TypeModel, SelectsAndCompletes) {
    TypeModel model;
    model.press(TypeModel::Key::down);
    EXPECT_FALSE(model.selected()) << "nothing to select";
    model.answered(typed(model, "a")->identifier, answerWith({"apple", "äh"}));
    EXPECT_FALSE(model.press(TypeModel::Key::complete)) << "nothing selected";
    for (int i = 0; i < 3; ++i) model.press(TypeModel::Key::down);
    EXPECT_EQ(model.selected(), 1U) << "stays on the last";
    const auto again = model.askAgain();
    ASSERT_TRUE(again);
    model.answered(again->identifier, answerWith({"äh"}));
    EXPECT_EQ(model.selected(), 0U) << "follows the suggestion";
    const auto query = model.press(TypeModel::Key::complete);
    ASSERT_TRUE(query);
    EXPECT_EQ(query->text, "äh");
    EXPECT_EQ(model.textBeforeCursor(), "äh");
    model.answered(query->identifier, answerWith({"äh"}));
    EXPECT_FALSE(model.selected());
    model.press(TypeModel::Key::down);
    model.press(TypeModel::Key::up);
    EXPECT_FALSE(model.selected()) << "up from the first goes back to the line";
}

TEST(TypeModel, KeepsTheLineShort) {
    TypeModel model;
    std::string most;
    for (std::size_t i = 0; i < TypeModel::maxCharacters; ++i) most += "ä";
    const auto query = typed(model, most);
    EXPECT_FALSE(model.type("x"));
    model.answered(query->identifier, answerWith({most + "ä"}));
    model.press(TypeModel::Key::down);
    EXPECT_EQ(model.press(TypeModel::Key::complete)->text, most);
}

client::Reply replyWith(std::string data) {
    client::Reply reply{.isNothing = false};
    reply.data = std::move(data);
    return reply;
}

TEST(TypeAnswer, TellsWhereItCameFrom) {
    const std::string body =
        R"([{"suggestion":"ap\u001bple","results":[{"title":"apple","text":"a fruit"},7]},8,{"results":{}}])";
    auto reply = replyWith(body);
    auto answer = typeAnswer("a", reply, milliseconds(1));
    EXPECT_EQ(answer.source, TypeAnswer::Source::memory);
    EXPECT_THAT(answer.results.suggestions, ElementsAre("ap\\x1Bple"));
    ASSERT_EQ(answer.results.cards.size(), 1U);
    EXPECT_EQ(answer.results.cards[0].text, "a fruit");
    reply.httpResponse.emplace();
    EXPECT_EQ(typeAnswer("a", reply, milliseconds(1)).source, TypeAnswer::Source::server);
    EXPECT_EQ(typeAnswer("a", client::Reply(), milliseconds(1)).source, TypeAnswer::Source::nobody);
}

TEST(TypeAnswer, WhatGoesOnAsTypedComesFirstFromMemory) {
    auto reply = replyWith(R"([{"suggestion":"a","results":[{"title":"a"}]},{"suggestion":"Appear"},
                                       {"results":[{"title":"none"}]},{"suggestion":"apple",
                                        "results":[{"title":"apple"}]}])");
    const auto kept = typeAnswer("aP", reply, milliseconds(1));
    EXPECT_THAT(kept.results.suggestions, ElementsAre("Appear", "apple", "a"));
    EXPECT_EQ(kept.results.cards.front().title, "apple");
    reply.httpResponse.emplace();
    const auto fresh = typeAnswer("aP", reply, milliseconds(1));
    EXPECT_THAT(fresh.results.suggestions, ElementsAre("a", "Appear", "apple")) << "the server's order";
}

TEST(TypeAnswer, TellsErrors) {
    client::Error error{.domain = "ORXErrorDomain", .code = 1, .reason = "time\nout"};
    EXPECT_EQ(typeAnswer("a", std::unexpected(error), milliseconds(1)).error, "time\\x0Aout (ORXErrorDomain 1)");
    error.kind = client::Error::Kind::refused;
    EXPECT_EQ(typeAnswer("a", std::unexpected(error), milliseconds(1)).error, "time\\x0Aout (ORXErrorDomain)");
    error.kind = client::Error::Kind::noDaemon;
    EXPECT_THAT(typeAnswer("a", std::unexpected(error), milliseconds(1)).error, HasSubstr("no orvexd"));
}

TEST(TerminalText, CountsColumnsAndBreaksLines) {
    ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
    EXPECT_EQ(columnsOf("a語e\u0301"), 4U) << "wide: 2, combining: 0";
    EXPECT_EQ(cutToColumns("a語b", 2), "a") << "no half character";
    EXPECT_EQ(endWithinColumns("a語b", 2), "b");
    EXPECT_THAT(wrapped("  to be  or not", 5), ElementsAre("to be", "or", "not"));
    EXPECT_THAT(wrapped("a abcdefg hi", 5), ElementsAre("a", "abcde", "fg hi"));
    EXPECT_THAT(wrapped("語x", 1), ElementsAre("x"));
    EXPECT_THAT(wrapped("  ", 5), IsEmpty());
}

}  // namespace
}  // namespace orvex::tool
