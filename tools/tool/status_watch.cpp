#include "tools/tool/status_watch.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <vector>

#include "core/constants.h"
#include "tools/tool/bus_json.h"
#include "tools/tool/daemon_client.h"
#include "tools/tool/shown_text.h"
#include "tools/tool/status_page.h"
#include "tools/tool/terminal.h"

namespace orvex::tool {
namespace {

namespace json = boost::json;
using Clock = std::chrono::steady_clock;
using Answer = std::expected<client::List, client::Error>;

/// A page on the terminal, as much of it as fits, from a line that the arrow keys choose.
class PageView {
public:
    explicit PageView(Terminal& terminal, std::string footer) : _terminal(terminal), _footer(std::move(footer)) {}

    void show(const std::string& page) {
        _lines.clear();
        for (std::size_t begin = 0; begin < page.size();) {
            const auto end = std::min(page.find('\n', begin), page.size());
            _lines.push_back(page.substr(begin, end - begin));
            begin = end + 1;
        }
        draw();
    }

    void draw() {
        const std::size_t room = std::max<std::size_t>(_terminal.rows(), 1) - 1;
        _first = std::min(_first, _lines.size() - std::min(_lines.size(), room));
        _terminal.clear();
        for (std::size_t row = 0; row < room && _first + row < _lines.size(); ++row) {
            const bool isTitle = _first + row == 0;
            _terminal.write(row, 0, _lines[_first + row], isTitle ? Terminal::Style::strong : Terminal::Style::plain);
        }
        _terminal.write(room, 0, _footer, Terminal::Style::faint);
        _terminal.show(room, 0);
    }

    void scroll(Terminal::Key key) {
        if (key == Terminal::Key::up && _first > 0) --_first;
        if (key == Terminal::Key::down) ++_first;
        draw();
    }

private:
    Terminal& _terminal;
    const std::string _footer;
    std::vector<std::string> _lines;
    std::size_t _first = 0;  ///< of those that are shown
};

class StatusWatch {
public:
    struct Ending {
        ExitStatus status = ExitStatus::done;
        int signal = 0;  ///< that is to end the process
    };

    StatusWatch(const Options& options, std::chrono::milliseconds interval, client::Client client, PageView* view)
        : _json(options.json),
          _interval(interval),
          _view(view),
          _client(std::move(client)) {
        _client.onDaemon([this](client::Client::Daemon change) { _daemonIs(change == client::Client::Daemon::came); });
    }

    [[nodiscard]] Ending run(TerminalSignals& signals, Terminal* terminal);

private:
    void _daemonIs(bool there);
    void _look();
    void _answered(const Answer& answer);
    void _show();
    [[nodiscard]] std::optional<Ending> _takeSignals(TerminalSignals& signals, Terminal* terminal);
    [[nodiscard]] bool _takeKeys(Terminal& terminal);
    [[nodiscard]] int _patienceOfPoll() const;

    // Constant after construction.
    const bool _json;
    const std::chrono::milliseconds _interval;
    PageView* const _view;  ///< null: standard output

    std::uint64_t _daemons = 0;    ///< that came and went
    std::optional<bool> _isThere;  ///< none: not known yet
    std::optional<json::object> _status;
    std::optional<json::object> _before;
    std::string _problem;                        ///< why the last look failed
    std::optional<Clock::time_point> _nextLook;  ///< none: an answer or a daemon is waited for
    client::Client _client;
};

StatusWatch::Ending StatusWatch::run(TerminalSignals& signals, Terminal* terminal) {
    _look();
    while (true) {
        std::array<pollfd, 3> sources{{{signals.descriptor(), POLLIN, 0},
                                       {_client.descriptor(), _client.events(), 0},
                                       {terminal != nullptr ? STDIN_FILENO : -1, POLLIN, 0}}};
        if (::poll(sources.data(), sources.size(), _patienceOfPoll()) < 0 && errno != EINTR) return {};
        if (const auto ending = _takeSignals(signals, terminal)) return *ending;
        if (!_client.process()) return {.status = ExitStatus::noDaemon};
        if (terminal != nullptr && !_takeKeys(*terminal)) return {};
        if ((sources[2].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) return {};
        if (_nextLook && *_nextLook <= Clock::now()) _look();
    }
}

int StatusWatch::_patienceOfPoll() const {
    auto limit = _client.timeout();
    if (_nextLook) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*_nextLook - Clock::now());
        limit = std::min(limit.value_or(left), left);
    }
    return limit ? static_cast<int>(std::clamp<std::int64_t>(limit->count(), 0, 60'000)) : -1;
}

std::optional<StatusWatch::Ending> StatusWatch::_takeSignals(TerminalSignals& signals, Terminal* terminal) {
    while (const auto signal = signals.take()) {
        if (*signal == SIGINT) return Ending{};
        if (*signal != SIGWINCH) return Ending{.signal = *signal};
        if (terminal == nullptr) continue;
        terminal->resize();
        _view->draw();
    }
    return std::nullopt;
}

/// False when the user leaves.
bool StatusWatch::_takeKeys(Terminal& terminal) {
    while (const auto input = terminal.read()) {
        if (input->key == Terminal::Key::leave || input->character == "q") return false;
        if (input->character == " " && _nextLook) _look();
        _view->scroll(input->key);
    }
    return true;
}

void StatusWatch::_daemonIs(bool there) {
    ++_daemons;
    if (!there && _isThere == false) return;
    _isThere = there;
    _nextLook.reset();
    _before.reset();
    if (there) return _look();
    _status.reset();
    _show();
}

void StatusWatch::_look() {
    _nextLook.reset();
    _client.call({.interface = std::string(kORXDiagnosticsInterface), .member = "Status", .startsDaemon = false}, {},
                 [this, asked = _daemons](const Answer& answer) {
                     if (asked == _daemons) _answered(answer);  // that of one that has gone meanwhile is no news
                 });
}

void StatusWatch::_answered(const Answer& answer) {
    if (!answer && answer.error().kind == client::Error::Kind::noDaemon) return _daemonIs(false);
    _isThere = true;
    _nextLook = Clock::now() + _interval;
    const auto status = answer && answer->size() == 1 ? jsonFromValue(answer->front()) : json::value();
    if (status.is_object()) _before = std::exchange(_status, status.get_object());
    _problem = answer ? std::string(status.is_object() ? "" : "a malformed answer") : shown(answer.error().reason);
    _show();
}

void StatusWatch::_show() {
    const bool isTold = _status && _problem.empty();
    std::string text;
    if (_isThere == false) {
        text = _json ? "null" : notRunningPage();
    } else if (!isTold) {
        text = _json ? json::serialize(json::object{{"error", _problem}})
                     : fmt::format("orvexd does not tell its status: {}\n", _problem);
    } else if (_json) {
        text = json::serialize(*_status);
    } else {
        text = statusPage(*_status, {.now = secondsSince1970Now(), .before = _before ? &*_before : nullptr});
    }
    if (_view != nullptr) return _view->show(text);
    fmt::print("{}\n", text);
    std::fflush(stdout);
}

std::string footer(std::chrono::milliseconds interval) {
    const std::chrono::duration<double> seconds = interval;
    return fmt::format("every {} s; Space looks now, q ends", seconds.count());
}

bool isOnATerminal() { return ::isatty(STDIN_FILENO) != 0 && ::isatty(STDOUT_FILENO) != 0; }

}  // namespace

ExitStatus watchStatus(const Options& options, std::chrono::milliseconds interval) {
    StatusWatch::Ending ending;
    try {
        TerminalSignals signals(TerminalSignals::Interrupt::taken);
        auto client = connect(options);
        if (!client) return client.error();
        auto terminal = options.json || !isOnATerminal() ? platform::failure(0, "no screen") : Terminal::open();
        std::optional<PageView> view;
        if (terminal) view.emplace(*terminal, footer(interval));
        StatusWatch watch(options, interval, *std::move(client), view ? &*view : nullptr);
        ending = watch.run(signals, terminal ? &*terminal : nullptr);
    } catch (const std::exception& failure) {
        fmt::print(stderr, "orvex_tool: status: {}\n", failure.what());
        return ExitStatus::refused;
    }
    if (ending.status == ExitStatus::noDaemon) fmt::print(stderr, "orvex_tool: the bus has gone away\n");
    if (ending.signal != 0) {
        std::signal(ending.signal, SIG_DFL);
        std::raise(ending.signal);
    }
    return ending.status;
}

}  // namespace orvex::tool
