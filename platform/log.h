#pragma once

#include <fmt/core.h>

#include <atomic>
#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// Logging. A `Logger` belongs to one category and is cheap to ask; the process has one `LogSink`, which writes.
///
/// Threading: everything here is callable from any thread.
/// Text: a message is escaped (control characters and line ends) and cut at `maxLogMessageBytes` before it reaches the
/// sink, so foreign text cannot forge a line.
/// Cost: a message below the level in force costs one comparison; its arguments are not looked at.
/// Privacy: what is wrapped in `privately` prints as `<private>` unless the level in force is `debug`.
/// Events: a line that an operator acts on says so, and has fields (platform/log_events.h):
///
///     log().as(LogEvent::writeFailed, {{"ORVEX_FILE", path}}).error("{}", failure.text);
namespace orvex::platform {

enum class LogEvent : std::uint8_t;
enum class LogLevel : std::uint8_t { debug, info, standard, error, fault };

/// "debug", "info", "default", "error", "fault".
std::string_view name(LogLevel level);
std::optional<LogLevel> logLevelFromName(std::string_view name);

inline constexpr std::size_t maxLogMessageBytes = 8192;
inline constexpr std::size_t maxLogFieldBytes = 1024;

/// Nothing private: a field is shown at every level.
struct LogField {
    LogField(std::string_view name, std::string_view text) : name(name), value(text) {}
    LogField(std::string_view name, std::integral auto number) : name(name), value(std::to_string(number)) {}

    std::string_view name;  ///< a literal
    std::string value;
};

struct LogRecord {
    LogLevel level;
    std::string_view subsystem;
    std::string_view category;
    std::string_view message;  ///< escaped
    std::optional<LogEvent> event = {};
    std::span<const LogField> fields = {};  ///< escaped
};

class LogSink {
public:
    virtual ~LogSink() = default;
    virtual void write(const LogRecord& record) = 0;
    virtual void flush() {}
};

/// Makes `sink` the process's and `level` the lowest that is written; the earlier sink is returned, and another thread
/// may still be in its `write`. No sink: nothing is written. A test installs one of its own for its duration
/// (platform/fakes/recording_log.h).
std::shared_ptr<LogSink> installLogSink(std::shared_ptr<LogSink> sink, LogLevel level);
[[nodiscard]] LogLevel logLevelInForce();  ///< `fault` while there is no sink
[[nodiscard]] bool logsPrivateArguments();
void flushLog();

namespace log_detail {
inline constexpr std::uint8_t nothing = 255;
/// The lowest level that is written. Set by `installLogSink` only; here so that a disabled message is one comparison.
inline constinit std::atomic<std::uint8_t> lowestWritten{nothing};

/// The calls that make a line. `Self` has an operation `_log(level, format, arguments)`.
template <class Self>
class Lines {
public:
    [[nodiscard]] bool enabled(LogLevel level) const {
        return static_cast<std::uint8_t>(level) >= lowestWritten.load(std::memory_order_relaxed);
    }
    template <class... Args>
    void debug(fmt::format_string<Args...> format, Args&&... args) const {
        if (enabled(LogLevel::debug)) _self()._log(LogLevel::debug, format, fmt::make_format_args(args...));
    }
    template <class... Args>
    void info(fmt::format_string<Args...> format, Args&&... args) const {
        if (enabled(LogLevel::info)) _self()._log(LogLevel::info, format, fmt::make_format_args(args...));
    }
    /// At the level `default`.
    template <class... Args>
    void log(fmt::format_string<Args...> format, Args&&... args) const {
        if (enabled(LogLevel::standard)) _self()._log(LogLevel::standard, format, fmt::make_format_args(args...));
    }
    template <class... Args>
    void error(fmt::format_string<Args...> format, Args&&... args) const {
        if (enabled(LogLevel::error)) _self()._log(LogLevel::error, format, fmt::make_format_args(args...));
    }
    template <class... Args>
    void fault(fmt::format_string<Args...> format, Args&&... args) const {
        if (enabled(LogLevel::fault)) _self()._log(LogLevel::fault, format, fmt::make_format_args(args...));
    }

private:
    const Self& _self() const { return static_cast<const Self&>(*this); }
};
}  // namespace log_detail

class EventLogger;

class Logger : public log_detail::Lines<Logger> {
public:
    Logger(std::string subsystem, std::string category)
        : _subsystem(std::move(subsystem)),
          _category(std::move(category)) {}

    [[nodiscard]] std::string_view category() const { return _category; }

    /// For the line of an event; `fields` are the event's own, not necessarily all of them. Lives no longer than the
    /// logger.
    [[nodiscard]] EventLogger as(LogEvent event, std::initializer_list<LogField> fields = {}) const;

private:
    friend class log_detail::Lines<Logger>;
    friend class EventLogger;
    void _log(LogLevel level, fmt::string_view format, fmt::format_args args) const;

    const std::string _subsystem;
    const std::string _category;
};

/// Writes a logger's line as an event's: see `Logger::as`.
class EventLogger : public log_detail::Lines<EventLogger> {
private:
    friend class Logger;
    friend class log_detail::Lines<EventLogger>;
    EventLogger(const Logger& logger, LogEvent event, std::vector<LogField> fields)
        : _logger(logger),
          _event(event),
          _fields(std::move(fields)) {}
    void _log(LogLevel level, fmt::string_view format, fmt::format_args args) const;

    const Logger& _logger;
    const LogEvent _event;
    const std::vector<LogField> _fields;
};

/// The logger of messages that belong to no category; it prints as "-".
const Logger& defaultLogger();

/// A log argument that only a debug log may show.
struct PrivateArgument {
    std::string_view text;
};
inline PrivateArgument privately(std::string_view text) { return {text}; }

/// The text, or "(null)" for none.
inline std::string_view orNull(const std::optional<std::string>& text) {
    return text ? std::string_view(*text) : std::string_view("(null)");
}

}  // namespace orvex::platform

template <>
struct fmt::formatter<orvex::platform::PrivateArgument> {
    constexpr auto parse(format_parse_context& context) { return context.begin(); }
    static fmt::appender format(orvex::platform::PrivateArgument argument, format_context& context);
};
