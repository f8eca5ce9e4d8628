#include "platform/log.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <exception>
#include <utility>

#include "platform/log_events.h"
#include "platform/text.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {
namespace {

constexpr std::array<std::string_view, 5> levelNames = {"debug", "info", "default", "error", "fault"};

struct InstalledSink {
    Mutex mutex;
    std::shared_ptr<LogSink> sink ORX_GUARDED_BY(mutex);
};

// Never destroyed: a thread may log until the very end of the process.
InstalledSink& installed() {
    static auto& sink = *new InstalledSink;
    return sink;
}

// The sink, if it takes `level`: asked again under the lock, so that no sink sees a line below its own level.
std::shared_ptr<LogSink> sinkFor(LogLevel level) {
    auto& current = installed();
    const MutexLock lock(current.mutex);
    return static_cast<std::uint8_t>(level) >= log_detail::lowestWritten ? current.sink : nullptr;
}

std::string formatMessage(fmt::string_view format, fmt::format_args args) {
    fmt::basic_memory_buffer<char, 512> message;
    try {
        fmt::vformat_to(fmt::appender(message), format, args);
    } catch (const std::exception& error) {
        return escaped(fmt::format("a message could not be formatted: {}", error.what()), maxLogMessageBytes);
    }
    return escaped({message.data(), message.size()}, maxLogMessageBytes);
}

}  // namespace

std::string_view name(LogLevel level) { return levelNames.at(static_cast<std::size_t>(level)); }

std::optional<LogLevel> logLevelFromName(std::string_view name) {
    const auto found = std::ranges::find(levelNames, name);
    if (found == levelNames.end()) return {};
    return static_cast<LogLevel>(found - levelNames.begin());
}

std::shared_ptr<LogSink> installLogSink(std::shared_ptr<LogSink> sink, LogLevel level) {
    auto& current = installed();
    const MutexLock lock(current.mutex);
    log_detail::lowestWritten = sink ? static_cast<std::uint8_t>(level) : log_detail::nothing;
    return std::exchange(current.sink, std::move(sink));
}

LogLevel logLevelInForce() {
    const auto lowest = log_detail::lowestWritten.load(std::memory_order_relaxed);
    return static_cast<LogLevel>(std::min(lowest, static_cast<std::uint8_t>(LogLevel::fault)));
}

bool logsPrivateArguments() { return logLevelInForce() == LogLevel::debug; }

void flushLog() {
    if (const auto sink = sinkFor(LogLevel::fault)) sink->flush();
}

void Logger::_log(LogLevel level, fmt::string_view format, fmt::format_args args) const {
    const auto sink = sinkFor(level);
    if (!sink) return;
    const auto message = formatMessage(format, args);
    sink->write({.level = level, .subsystem = _subsystem, .category = _category, .message = message});
}

EventLogger Logger::as(LogEvent event, std::initializer_list<LogField> fields) const {
    std::vector<LogField> own(fields);
    for (auto& field : own) {
        assert(hasField(event, field.name));
        field.value = escaped(field.value, maxLogFieldBytes);
    }
    return {*this, event, std::move(own)};
}

void EventLogger::_log(LogLevel level, fmt::string_view format, fmt::format_args args) const {
    const auto sink = sinkFor(level);
    if (!sink) return;
    const auto message = formatMessage(format, args);
    sink->write({.level = level,
                 .subsystem = _logger._subsystem,
                 .category = _logger._category,
                 .message = message,
                 .event = _event,
                 .fields = _fields});
}

const Logger& defaultLogger() {
    static const auto& logger = *new Logger("com.kelvar.orvexd", "-");
    return logger;
}

}  // namespace orvex::platform

fmt::appender fmt::formatter<orvex::platform::PrivateArgument>::format(orvex::platform::PrivateArgument argument,
                                                                       format_context& context) {
    const auto shown = orvex::platform::logsPrivateArguments() ? argument.text : std::string_view("<private>");
    return fmt::formatter<std::string_view>().format(shown, context);
}
