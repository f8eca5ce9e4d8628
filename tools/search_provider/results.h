#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bus_value.h"

/// What the desktop's overview is shown of a search answer, and by what names. Pure functions.
namespace orvex::search_provider {

/// One line of the overview: a card, which is a page to open, or a suggestion that came without one.
struct Result {
    std::uint64_t queryId = 0;  ///< of the search that found it
    std::string name;
    std::string description;
    std::string url;         ///< keeps the rule for every URL; empty: there is no page, picking it copies its name
    std::string identifier;  ///< the server's, as feedback names it

    bool operator==(const Result&) const = default;
};

inline constexpr std::size_t maxResults = 20;      ///< of one answer; an overview shows five or so
inline constexpr std::size_t maxAskedTexts = 256;  ///< terms or identifiers in one call
inline constexpr std::size_t maxQueryBytes = 512;  ///< nobody types more; whoever pastes a page searches nothing
inline constexpr std::size_t maxAnswerBytes = 1 << 20;

/// The terms of the shell as one line; empty when there is nothing to ask for: no text, too much of it, or a control
/// character in it.
[[nodiscard]] std::string queryOf(const std::vector<std::string>& terms);

struct Answer {
    std::uint64_t queryId = 0;
    std::string_view typed;
    std::string_view body;    ///< the server's, whatever it is
    bool fromMemory = false;  ///< the daemon's, so perhaps of an earlier query
};
/// The first card of each result set, or its suggestion where it has none, then the other cards. A body that cannot be
/// read has none, and a log line.
[[nodiscard]] std::vector<Result> resultsIn(const Answer& answer);

/// The identifier that the shell knows a result by. It holds all of it, so nothing has to be remembered, and one from
/// before a restart is as good as any.
[[nodiscard]] std::string identifierOf(const Result& result);
/// None for an identifier that is none of ours. What comes back obeys the URL rule as it says above.
[[nodiscard]] std::optional<Result> resultOf(std::string_view identifier);

/// As GetResultMetas answers it.
[[nodiscard]] platform::BusDictionary metaOf(const Result& result);

}  // namespace orvex::search_provider
