#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/orvex/types.h"
#include "tools/tool/pages.h"

namespace orvex::tool {

/// What the daemon said to one query.
struct TypeAnswer {
    enum class Source { nobody, memory, server };  ///< nobody: the daemon had no answer and no error
    Source source = Source::nobody;
    ResultSets results{};
    std::string error{};  ///< for people; empty when there is none
    std::chrono::duration<double, std::milli> took{};
};

/// The answer in a call's result. The daemon's memory gives what the server said to the beginning
/// of `typed`: of that, what goes on as `typed` does comes first.
[[nodiscard]] TypeAnswer typeAnswer(std::string_view typed, const std::expected<client::Reply, client::Error>& reply,
                                    std::chrono::duration<double, std::milli> took);

/// What search as you type knows: the line that is edited, the newest answer that has come, the suggestion that is
/// selected in it. It draws nothing and sends nothing: what changes the line gives the query to send.
///
/// Every query has a higher number than the one before it. An answer is shown unless one to a later query was shown
/// first, so results follow the typing also when the server is slower than the typist; an error leaves the results of
/// the answer before it in place. An empty line asks nothing and shows nothing.
/// Threading: one thread.
class TypeModel {
public:
    struct Query {
        std::uint64_t identifier;
        std::string text;
    };
    enum class Key { left, right, home, end, backspace, remove, clear, up, down, complete };
    enum class Link {
        up,
        daemonGone,  ///< until it is back on the bus
        busGone,     ///< for good
    };

    static constexpr std::size_t maxCharacters = 200;  ///< of the line; fewer than the calls that a client may have

    /// One printable character, in UTF-8, at the cursor.
    std::optional<Query> type(std::string_view character);
    std::optional<Query> press(Key key);
    /// The line as it is once more.
    std::optional<Query> askAgain();
    void answered(std::uint64_t identifier, TypeAnswer answer);
    void setLink(Link link) { _link = link; }

    [[nodiscard]] const std::string& text() const { return _text; }
    [[nodiscard]] std::string_view textBeforeCursor() const { return std::string_view(_text).substr(0, _cursor); }
    [[nodiscard]] const ResultSets& results() const { return _results; }
    [[nodiscard]] std::optional<std::size_t> selected() const { return _selected; }
    /// Which answer is shown, where it came from and how long it took, or what is wrong; one line.
    [[nodiscard]] std::string status() const;

private:
    std::optional<Query> _edited();
    std::optional<Query> _erase(std::size_t from, std::size_t to);
    std::optional<Query> _complete();
    void _select(bool next);
    void _show(ResultSets results);
    [[nodiscard]] std::size_t _before() const;
    [[nodiscard]] std::size_t _after() const;

    std::string _text;
    std::size_t _cursor = 0;  ///< in bytes, on a character boundary
    std::uint64_t _lastQuery = 0;
    std::uint64_t _shownQuery = 0;
    std::optional<TypeAnswer> _shown;  ///< its results are in `_results`; none before the first to this line
    ResultSets _results;
    std::optional<std::size_t> _selected;  ///< of the suggestions
    Link _link = Link::up;
};

}  // namespace orvex::tool
