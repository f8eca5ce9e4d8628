#include "tools/tool/type_model.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include "tools/tool/bus_json.h"
#include "tools/tool/shown_text.h"
#include "tools/tool/terminal_text.h"

namespace orvex::tool {
namespace {

std::string errorFor(const client::Error& error) {
    switch (error.kind) {
        case client::Error::Kind::noDaemon:
            return "no orvexd on the bus";
        case client::Error::Kind::failed:
            return errorText(jsonFromError(error));
        default:
            return shown(error.domain.empty() ? error.reason : fmt::format("{} ({})", error.reason, error.domain));
    }
}

std::string sourceText(TypeAnswer::Source source) {
    switch (source) {
        case TypeAnswer::Source::memory:
            return "from the daemon's memory";
        case TypeAnswer::Source::server:
            return "from the server";
        case TypeAnswer::Source::nobody:
            break;
    }
    return "no answer";
}

std::size_t characters(std::string_view text) {
    return static_cast<std::size_t>(
        std::ranges::count_if(text, [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U; }));
}

std::string_view firstCharacters(std::string_view text, std::size_t count) {
    std::size_t end = 0;
    for (; count > 0 && end < text.size(); --count) end += firstCharacterBytes(text.substr(end));
    return text.substr(0, end);
}

}  // namespace

TypeAnswer typeAnswer(std::string_view typed, const std::expected<client::Reply, client::Error>& reply,
                      std::chrono::duration<double, std::milli> took) {
    TypeAnswer answer{.took = took};
    if (!reply) {
        answer.error = errorFor(reply.error());
    } else if (!reply->isNothing) {
        const bool asked = reply->httpResponse.has_value();
        answer.source = asked ? TypeAnswer::Source::server : TypeAnswer::Source::memory;
        answer.results = resultSets(jsonFromReply(*reply), asked ? "" : typed);
    }
    return answer;
}

std::optional<TypeModel::Query> TypeModel::type(std::string_view character) {
    if (characters(_text) >= maxCharacters) return std::nullopt;
    _text.insert(_cursor, character);
    _cursor += character.size();
    return _edited();
}

std::optional<TypeModel::Query> TypeModel::press(Key key) {
    switch (key) {
        case Key::left:
            _cursor = _before();
            break;
        case Key::right:
            _cursor = _after();
            break;
        case Key::home:
            _cursor = 0;
            break;
        case Key::end:
            _cursor = _text.size();
            break;
        case Key::backspace:
            return _erase(_before(), _cursor);
        case Key::remove:
            return _erase(_cursor, _after());
        case Key::clear:
            return _erase(0, _text.size());
        case Key::up:
        case Key::down:
            _select(key == Key::down);
            break;
        case Key::complete:
            return _complete();
    }
    return std::nullopt;
}

std::optional<TypeModel::Query> TypeModel::askAgain() {
    const std::uint64_t identifier = ++_lastQuery;
    if (!_text.empty()) return Query{.identifier = identifier, .text = _text};
    // Emptiness is an answer of its own, so that none to what stood here comes after it.
    _shownQuery = identifier;
    _shown.reset();
    _show({});
    return std::nullopt;
}

std::optional<TypeModel::Query> TypeModel::_edited() {
    _selected.reset();
    return askAgain();
}

std::optional<TypeModel::Query> TypeModel::_erase(std::size_t from, std::size_t to) {
    if (from == to) return std::nullopt;
    _text.erase(from, to - from);
    _cursor = from;
    return _edited();
}

std::optional<TypeModel::Query> TypeModel::_complete() {
    if (!_selected) return std::nullopt;
    // As it is shown, so a terminal never gets what it was not meant to.
    _text = firstCharacters(_results.suggestions[*_selected], maxCharacters);
    _cursor = _text.size();
    return _edited();
}

void TypeModel::_select(bool next) {
    const std::size_t count = _results.suggestions.size();
    if (next && (!_selected || *_selected + 1 < count)) {
        if (count > 0) _selected = _selected ? *_selected + 1 : 0;
    } else if (!next && _selected) {
        if (*_selected == 0) {
            _selected.reset();
        } else {
            --*_selected;
        }
    }
}

void TypeModel::answered(std::uint64_t identifier, TypeAnswer answer) {
    if (identifier <= _shownQuery) return;
    _shownQuery = identifier;
    _shown = std::move(answer);
    if (_shown->error.empty()) _show(std::move(_shown->results));
}

/// What was selected stays so where the new suggestions have it too.
void TypeModel::_show(ResultSets results) {
    const auto selected = _selected ? std::optional(_results.suggestions[*_selected]) : std::nullopt;
    _results = std::move(results);
    _selected.reset();
    const auto found = selected ? std::ranges::find(_results.suggestions, *selected) : _results.suggestions.end();
    if (found != _results.suggestions.end()) {
        _selected = static_cast<std::size_t>(found - _results.suggestions.begin());
    }
}

std::string TypeModel::status() const {
    if (_link == Link::busGone) return "the bus is gone; Esc leaves";
    if (_link == Link::daemonGone) return "orvexd is gone from the bus; it is asked again when it is back";
    if (_text.empty()) return "type to search; arrows select, Tab completes, Esc leaves";
    if (!_shown) return "asking …";
    const auto what = _shown->error.empty() ? sourceText(_shown->source) : _shown->error;
    return fmt::format("{}, {:.2f} ms{}", what, _shown->took.count(), _shownQuery < _lastQuery ? ", asking …" : "");
}

std::size_t TypeModel::_before() const {
    std::size_t at = _cursor;
    while (at > 0 && (static_cast<unsigned char>(_text[--at]) & 0xC0U) == 0x80U) {
    }
    return at;
}

std::size_t TypeModel::_after() const {
    return _cursor == _text.size() ? _cursor : _cursor + firstCharacterBytes(std::string_view(_text).substr(_cursor));
}

}  // namespace orvex::tool
