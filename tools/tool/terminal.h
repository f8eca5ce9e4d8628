#pragma once

#include <csignal>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/file_manager.h"
#include "platform/result.h"

struct screen;

namespace orvex::tool {

/// The signals that a program takes in turn with its input: SIGWINCH, SIGTERM and SIGHUP, and SIGINT where the terminal
/// is not in raw mode. Blocked while this lives; threads that are started then never get them either.
class TerminalSignals {
public:
    enum class Interrupt : bool { asUsual, taken };

    explicit TerminalSignals(Interrupt interrupt = Interrupt::asUsual);
    ~TerminalSignals();
    TerminalSignals(const TerminalSignals&) = delete;
    TerminalSignals& operator=(const TerminalSignals&) = delete;

    [[nodiscard]] int descriptor() const { return _arrived.get(); }  ///< readable when one has come
    [[nodiscard]] std::optional<int> take();

private:
    sigset_t _before{};
    platform::FileDescriptor _arrived;
};

/// The terminal of standard input and output as a screen of characters (ncurses), from `open` to the destructor, which
/// gives it back as it was. Texts are UTF-8; one that is longer than its line is cut.
/// Threading: one thread, and one terminal at a time.
class Terminal {
public:
    enum class Style { plain, strong, faint, reverse };
    enum class Key { left, right, home, end, up, down, backspace, remove, tab, enter, controlU, leave, other };
    struct Input {
        Key key = Key::other;
        std::string character;  ///< UTF-8, printable; empty where it was a key
    };

    /// Fails where the terminal's type is unknown, and where no UTF-8 locale is installed. Sets LC_CTYPE.
    [[nodiscard]] static platform::Result<Terminal> open();
    Terminal(Terminal&& other) noexcept;
    Terminal& operator=(Terminal&&) = delete;
    ~Terminal();

    /// The next key that has come; none when none has. Ctrl-C, Ctrl-D and Esc are all `leave`.
    [[nodiscard]] std::optional<Input> read();
    /// Takes on the size that the terminal now has.
    void resize();

    [[nodiscard]] std::size_t rows() const;
    [[nodiscard]] std::size_t columns() const;
    void clear();
    void write(std::size_t row, std::size_t column, std::string_view text, Style style = Style::plain);
    /// Shows what was written since `clear`, with the cursor there.
    void show(std::size_t row, std::size_t column);

private:
    explicit Terminal(::screen* screen) : _screen(screen) {}

    ::screen* _screen;
};

}  // namespace orvex::tool
