#pragma once

#include <boost/json/fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace orvex {

/// One result set of a search answer: what the text may be completed to, and what there is to show about it. The
/// texts are the server's, as they came: whoever shows them escapes and cuts them.
struct AnswerSet {
    struct Card {
        std::string identifier;
        std::string title;
        std::string subtitle;
        std::string text;
        std::string url;
    };
    std::string query;
    std::string suggestion;
    std::vector<Card> cards;
};

/// What of an answer's body has the form of a result set, in the server's order; the rest is left out. A card that
/// stands by itself, as in the answer for a card's URL, is a set of one without a suggestion.
[[nodiscard]] std::vector<AnswerSet> answerSetsIn(const boost::json::array& body);

/// Puts those first whose suggestion goes on as `typed` does, in whatever case. For an answer from the daemon's memory,
/// which is what the server said to the beginning of `typed`.
void bringForward(std::string_view typed, std::vector<AnswerSet>& sets);

}  // namespace orvex
