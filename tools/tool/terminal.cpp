#include "tools/tool/terminal.h"

#define NCURSES_NOMACROS 1  // `clear`, `move` and the like stay functions
#define NCURSES_WIDECHAR 1
#include <curses.h>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cwchar>
#include <cwctype>
#include <utility>

#include "tools/tool/terminal_text.h"

namespace orvex::tool {
namespace {

constexpr int escapeMilliseconds = 25;  ///< after Esc, for the rest of a function key

sigset_t ourSignals(TerminalSignals::Interrupt interrupt) {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : {SIGWINCH, SIGTERM, SIGHUP}) ::sigaddset(&signals, signal);
    if (interrupt == TerminalSignals::Interrupt::taken) ::sigaddset(&signals, SIGINT);
    return signals;
}

// NOLINTBEGIN(concurrency-mt-unsafe): the locale is set before there is a second thread, and characters are converted
// on one only.
bool takeUTF8() {
    const auto isUTF8 = [] { return std::string_view(::nl_langinfo(CODESET)) == "UTF-8"; };
    if (std::setlocale(LC_CTYPE, "") != nullptr && isUTF8()) return true;
    return std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr && isUTF8();
}

std::string utf8(wchar_t character) {
    std::array<char, MB_LEN_MAX> bytes{};
    std::mbstate_t state{};
    const std::size_t count = std::wcrtomb(bytes.data(), character, &state);
    return count == static_cast<std::size_t>(-1) ? std::string() : std::string(bytes.data(), count);
}
// NOLINTEND(concurrency-mt-unsafe)

Terminal::Key functionKey(wint_t key) {
    switch (key) {
        case KEY_LEFT:
            return Terminal::Key::left;
        case KEY_RIGHT:
            return Terminal::Key::right;
        case KEY_HOME:
            return Terminal::Key::home;
        case KEY_END:
            return Terminal::Key::end;
        case KEY_UP:
            return Terminal::Key::up;
        case KEY_DOWN:
            return Terminal::Key::down;
        case KEY_BACKSPACE:
            return Terminal::Key::backspace;
        case KEY_DC:
            return Terminal::Key::remove;
        case KEY_ENTER:
            return Terminal::Key::enter;
        default:
            return Terminal::Key::other;
    }
}

Terminal::Input characterInput(wint_t character) {
    switch (character) {
        case 0x03:  // Ctrl-C
        case 0x04:  // Ctrl-D
        case 0x1B:  // Esc
            return {.key = Terminal::Key::leave, .character = {}};
        case 0x15:
            return {.key = Terminal::Key::controlU, .character = {}};
        case 0x08:
        case 0x7F:
            return {.key = Terminal::Key::backspace, .character = {}};
        case '\t':
            return {.key = Terminal::Key::tab, .character = {}};
        case '\r':
        case '\n':
            return {.key = Terminal::Key::enter, .character = {}};
        default:
            break;
    }
    return {.key = Terminal::Key::other,
            .character = std::iswprint(character) != 0 ? utf8(static_cast<wchar_t>(character)) : std::string()};
}

attr_t attributes(Terminal::Style style) {
    switch (style) {
        case Terminal::Style::strong:
            return A_BOLD;
        case Terminal::Style::faint:
            return A_DIM;
        case Terminal::Style::reverse:
            return A_REVERSE;
        case Terminal::Style::plain:
            break;
    }
    return A_NORMAL;
}

}  // namespace

TerminalSignals::TerminalSignals(Interrupt interrupt) {
    const sigset_t signals = ourSignals(interrupt);
    ::pthread_sigmask(SIG_BLOCK, &signals, &_before);
    _arrived = platform::FileDescriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

TerminalSignals::~TerminalSignals() { ::pthread_sigmask(SIG_SETMASK, &_before, nullptr); }

std::optional<int> TerminalSignals::take() {
    signalfd_siginfo signal{};
    if (::read(_arrived.get(), &signal, sizeof signal) != static_cast<ssize_t>(sizeof signal)) return std::nullopt;
    return static_cast<int>(signal.ssi_signo);
}

platform::Result<Terminal> Terminal::open() {
    if (!takeUTF8()) return platform::failure(0, "no UTF-8 locale is installed");
    ::screen* screen = ::newterm(nullptr, stdout, stdin);
    if (screen == nullptr) return platform::failure(0, "the terminal's type (TERM) is unknown");
    Terminal terminal(screen);
    ::set_escdelay(escapeMilliseconds);
    ::raw();
    ::noecho();
    ::nonl();
    ::keypad(stdscr, true);
    ::nodelay(stdscr, true);
    return terminal;
}

Terminal::Terminal(Terminal&& other) noexcept : _screen(std::exchange(other._screen, nullptr)) {}

Terminal::~Terminal() {
    if (_screen == nullptr) return;
    ::endwin();
    ::delscreen(_screen);
}

std::optional<Terminal::Input> Terminal::read() {
    wint_t input = 0;
    switch (::wget_wch(stdscr, &input)) {
        case OK:
            return characterInput(input);
        case KEY_CODE_YES:
            return Input{.key = functionKey(input), .character = {}};
        default:
            return std::nullopt;
    }
}

void Terminal::resize() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
        ::resizeterm(size.ws_row, size.ws_col);
    }
}

std::size_t Terminal::rows() const { return static_cast<std::size_t>(::getmaxy(stdscr)); }
std::size_t Terminal::columns() const { return static_cast<std::size_t>(::getmaxx(stdscr)); }

void Terminal::clear() { ::werase(stdscr); }

void Terminal::write(std::size_t row, std::size_t column, std::string_view text, Style style) {
    if (row >= rows() || column >= columns()) return;
    const auto fitting = cutToColumns(text, columns() - column);
    ::wmove(stdscr, static_cast<int>(row), static_cast<int>(column));
    ::wattr_set(stdscr, attributes(style), 0, nullptr);
    ::waddnstr(stdscr, fitting.data(), static_cast<int>(fitting.size()));
    ::wattr_set(stdscr, A_NORMAL, 0, nullptr);
}

void Terminal::show(std::size_t row, std::size_t column) {
    ::wmove(stdscr, static_cast<int>(row), static_cast<int>(column));
    ::wrefresh(stdscr);
}

}  // namespace orvex::tool
