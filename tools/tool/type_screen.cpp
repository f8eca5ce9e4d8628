#include "tools/tool/type_screen.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <exception>
#include <map>
#include <optional>

#include "tools/tool/daemon_client.h"
#include "tools/tool/terminal.h"
#include "tools/tool/terminal_text.h"
#include "tools/tool/type_model.h"

namespace orvex::tool {
namespace {

constexpr std::uint32_t typedWithResults = 24;  ///< the trigger event that asks for suggestions and results
constexpr std::string_view prompt = "search: ";

/// Draws the model: the line, suggestions, cards, and the status in the last row.
class TypePage {
public:
    TypePage(Terminal& terminal, const TypeModel& model) : _terminal(terminal), _model(model) {}

    void draw() {
        _terminal.clear();
        _drawSuggestions();
        _drawCards();
        const std::size_t width = _terminal.columns();
        const std::string status(cutToColumns(" " + _model.status(), width));
        const std::string rest(width - columnsOf(status), ' ');
        _terminal.write(_terminal.rows() - 1, 0, status + rest, Terminal::Style::reverse);
        _drawLine();
    }

private:
    void _drawLine() {
        // The line's end is kept out of the last column, where the cursor stands after it.
        const std::size_t width = _terminal.columns() - std::min(_terminal.columns(), prompt.size() + 1);
        const auto before = endWithinColumns(_model.textBeforeCursor(), width);
        const auto after = std::string_view(_model.text()).substr(_model.textBeforeCursor().size());
        _terminal.write(0, 0, prompt, Terminal::Style::faint);
        _terminal.write(0, prompt.size(), std::string(before) + std::string(after));
        _terminal.show(0, std::min(prompt.size() + columnsOf(before), _terminal.columns() - 1));
    }

    /// At most half of the room, and of that the part that has the selected one.
    void _drawSuggestions() {
        const auto& suggestions = _model.results().suggestions;
        const std::size_t shown = std::min(suggestions.size(), std::max<std::size_t>(_bottom() / 2, 1));
        const std::size_t selected = _model.selected().value_or(0);
        const std::size_t first = selected < shown ? 0 : selected + 1 - shown;
        _row = 1;
        for (std::size_t index = first; index < first + shown; ++index) {
            const bool isSelected = index == _model.selected();
            _add(2, suggestions[index], isSelected ? Terminal::Style::reverse : Terminal::Style::plain);
        }
    }

    void _drawCards() {
        const std::size_t width = std::max<std::size_t>(_terminal.columns(), 6) - 5;
        for (const auto& card : _model.results().cards) {
            ++_row;
            const std::string subtitle = card.subtitle.empty() ? "" : " (" + card.subtitle + ")";
            for (const auto& line : wrapped(card.title + subtitle, width)) _add(2, line, Terminal::Style::strong);
            for (const auto& line : wrapped(card.text, width)) _add(4, line, Terminal::Style::plain);
            _add(4, card.url, Terminal::Style::faint);
        }
    }

    void _add(std::size_t column, std::string_view text, Terminal::Style style) {
        if (_row < _bottom()) _terminal.write(_row, column, text, style);
        ++_row;
    }

    [[nodiscard]] std::size_t _bottom() const { return _terminal.rows() - 1; }

    Terminal& _terminal;
    const TypeModel& _model;
    std::size_t _row = 1;  ///< the next that is free
};

class TypeSession {
public:
    explicit TypeSession(client::Client client) : _client(std::move(client)) {
        _client.onDaemon([this](client::Client::Daemon change) {
            _model.setLink(change == client::Client::Daemon::came ? TypeModel::Link::up : TypeModel::Link::daemonGone);
            if (change == client::Client::Daemon::came) _ask(_model.askAgain());
        });
    }

    /// Until the user leaves (none) or a signal comes that ends the process.
    std::optional<int> run(TerminalSignals& signals, Terminal& terminal);

private:
    [[nodiscard]] bool _takeInput(Terminal& terminal);
    void _ask(const std::optional<TypeModel::Query>& query);

    TypeModel _model;
    client::Client _client;
};

const std::map<Terminal::Key, TypeModel::Key>& modelKeys() {
    using From = Terminal::Key;
    using To = TypeModel::Key;
    static const std::map<From, To> keys = {
        {From::left, To::left},
        {From::right, To::right},
        {From::home, To::home},
        {From::end, To::end},
        {From::up, To::up},
        {From::down, To::down},
        {From::backspace, To::backspace},
        {From::remove, To::remove},
        {From::controlU, To::clear},
        {From::tab, To::complete},
        {From::enter, To::complete},
    };
    return keys;
}

std::optional<int> TypeSession::run(TerminalSignals& signals, Terminal& terminal) {
    TypePage page(terminal, _model);
    while (true) {
        page.draw();
        std::array<pollfd, 3> sources{{{STDIN_FILENO, POLLIN, 0},
                                       {signals.descriptor(), POLLIN, 0},
                                       {_client.descriptor(), _client.events(), 0}}};
        const auto limit = _client.timeout();
        const int patience = limit ? static_cast<int>(limit->count()) : -1;
        if (::poll(sources.data(), sources.size(), patience) < 0 && errno != EINTR) return std::nullopt;
        while (const auto signal = signals.take()) {
            if (*signal != SIGWINCH) return signal;
            terminal.resize();
        }
        if (!_client.process()) _model.setLink(TypeModel::Link::busGone);
        if (!_takeInput(terminal)) return std::nullopt;
        if ((sources[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) return std::nullopt;
    }
}

/// False when the user leaves.
bool TypeSession::_takeInput(Terminal& terminal) {
    while (const auto input = terminal.read()) {
        if (input->key == Terminal::Key::leave) return false;
        const auto key = modelKeys().find(input->key);
        if (key != modelKeys().end()) {
            _ask(_model.press(key->second));
        } else if (!input->character.empty()) {
            _ask(_model.type(input->character));
        }
    }
    return true;
}

void TypeSession::_ask(const std::optional<TypeModel::Query>& query) {
    if (!query) return;
    client::Request request{.queryId = query->identifier, .verboseReply = true, .triggerEvent = typedWithResults};
    request.queryString = query->text;
    const auto begin = std::chrono::steady_clock::now();
    _client.request(request, [this, begin, query = *query](const std::expected<client::Reply, client::Error>& reply) {
        const auto took = std::chrono::steady_clock::now() - begin;
        _model.answered(query.identifier, typeAnswer(query.text, reply, took));
    });
}

}  // namespace

ExitStatus searchAsYouType(const Options& options) {
    if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDOUT_FILENO) == 0) {
        fmt::print(stderr, "orvex_tool: type: standard input and output must be a terminal\n");
        return ExitStatus::wrongUsage;
    }
    std::optional<int> ending;
    try {
        TerminalSignals signals;
        auto client = connectAsClient(options);
        if (!client) return client.error();
        TypeSession session(*std::move(client));
        auto terminal = Terminal::open();
        if (!terminal) {
            fmt::print(stderr, "orvex_tool: type: {}\n", terminal.error().text);
            return ExitStatus::wrongUsage;
        }
        ending = session.run(signals, *terminal);
    } catch (const std::exception& failure) {
        fmt::print(stderr, "orvex_tool: type: {}\n", failure.what());
        return ExitStatus::refused;
    }
    if (ending) {
        std::signal(*ending, SIG_DFL);
        std::raise(*ending);
    }
    return ExitStatus::done;
}

}  // namespace orvex::tool
