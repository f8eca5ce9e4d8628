#pragma once

#include <boost/json/fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace orvex::tool {

/// A server's answer, each text escaped and cut for a terminal.
struct ResultSets {
    struct Card {
        std::string title;
        std::string subtitle;
        std::string text;
        std::string url;
    };
    std::vector<std::string> suggestions;
    std::vector<Card> cards;
};

/// What of `reply` has the form of a result set; the rest is left out. Those whose suggestion begins with `typed`, in
/// whatever case, come first.
ResultSets resultSets(const boost::json::object& reply, std::string_view typed);

// Answers as pages for people. Each ends with a line end, but for `bagPage`.

/// The server's result sets: suggestions first, then cards, then the round trip.
std::string replyPage(const boost::json::object& reply, double milliseconds);

/// The bag's text, indented; as it came with `compact`.
std::string bagPage(const std::string& text, bool compact);

std::string errorText(const boost::json::object& error);
std::string sessionsPage(const boost::json::value& sessions);
std::string mapPage(const boost::json::value& map);  ///< "name  value" a line, aligned
/// A request item by item: name and value, then where it comes from, why it is sent, and what removes it.
std::string explainedPage(const boost::json::value& rows);
std::string transfersPage(const boost::json::value& transfers);  ///< two lines each

}  // namespace orvex::tool
