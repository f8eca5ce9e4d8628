#define SD_JOURNAL_SUPPRESS_LOCATION  // of this file, for every line

#include "platform/linux/log_sinks.h"

#include <fmt/format.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <cerrno>
#include <exception>

#include "platform/log_events.h"

namespace orvex::platform {
namespace {

int syslogPriority(LogLevel level) {
    switch (level) {
        case LogLevel::debug:
            return LOG_DEBUG;
        case LogLevel::info:
            return LOG_INFO;
        case LogLevel::standard:
            return LOG_NOTICE;
        case LogLevel::error:
            return LOG_ERR;
        case LogLevel::fault:
            return LOG_CRIT;
    }
    return LOG_CRIT;
}

/// Lines on a stream: spdlog gives the time and the locked writing, `Format` the rest.
struct Format {
    const char* pattern;  ///< spdlog's; `%v` is what `line` makes
    std::string (*line)(const LogRecord& record);
};

constexpr Format consoleFormat = {.pattern = "%Y-%m-%dT%H:%M:%S.%eZ %v", .line = [](const LogRecord& record) {
                                      return fmt::format("{} {} {}", name(record.level), record.category,
                                                         record.message);
                                  }};

std::string jsonLine(const LogRecord& record) {
    boost::json::object rest = {{"level", name(record.level)},
                                {"subsystem", record.subsystem},
                                {"category", record.category},
                                {"message", record.message}};
    if (record.event) {
        rest["event"] = describe(*record.event).name;
        rest["message_id"] = describe(*record.event).id;
    }
    for (const auto& [name, value] : record.fields) rest[name] = value;
    return boost::json::serialize(rest).substr(1);  // the brace is before the time
}

constexpr Format jsonFormat = {.pattern = R"({"time":"%Y-%m-%dT%H:%M:%S.%eZ",%v)", .line = jsonLine};

class StreamLogSink : public LogSink {
public:
    StreamLogSink(std::FILE* stream, const Format& format) : _format(format), _sink(stream) {
        _sink.set_formatter(
            std::make_unique<spdlog::pattern_formatter>(format.pattern, spdlog::pattern_time_type::utc, "\n"));
    }

    void write(const LogRecord& record) override {
        try {
            _sink.log(spdlog::details::log_msg({}, spdlog::level::info, _format.line(record)));
        } catch (const std::exception&) {
            // There is nowhere left to say it.
        }
    }
    void flush() override { _sink.flush(); }

private:
    using LockedStream = spdlog::sinks::stdout_sink_base<spdlog::details::console_mutex>;

    const Format _format;
    LockedStream _sink;
};

class JournalLogSink : public LogSink {
public:
    void write(const LogRecord& record) override {
        auto fields = journalFields(record);
        std::vector<iovec> parts;
        for (auto& field : fields) parts.push_back({.iov_base = field.data(), .iov_len = field.size()});
        sd_journal_sendv(parts.data(), static_cast<int>(parts.size()));
    }
};

std::shared_ptr<LogSink> makeJournalSink(const LogSinkOptions& options) {
    if (access(options.journalSocket.c_str(), W_OK) == 0) return std::make_shared<JournalLogSink>();
    const auto console = std::make_shared<StreamLogSink>(options.stream, consoleFormat);
    console->write({.level = LogLevel::standard,
                    .subsystem = "com.kelvar.orvexd",
                    .category = defaultLogger().category(),
                    .message = "there is no journal to write to; logging to standard error"});
    return console;
}

}  // namespace

Result<std::shared_ptr<LogSink>> makeLogSink(std::string_view format, const LogSinkOptions& options) {
    if (format == "console") return std::make_shared<StreamLogSink>(options.stream, consoleFormat);
    if (format == "json") return std::make_shared<StreamLogSink>(options.stream, jsonFormat);
    if (format == "journal") return makeJournalSink(options);
    return failure(EINVAL, fmt::format("no such log format: {} (console, journal or json)", format));
}

std::vector<std::string> journalFields(const LogRecord& record) {
    std::vector<std::string> fields = {
        fmt::format("MESSAGE={}", record.message), fmt::format("PRIORITY={}", syslogPriority(record.level)),
        fmt::format("SUBSYSTEM={}", record.subsystem), fmt::format("CATEGORY={}", record.category)};
    if (record.event) {
        fields.push_back(fmt::format("MESSAGE_ID={}", describe(*record.event).id));
        fields.push_back(fmt::format("ORVEX_EVENT={}", describe(*record.event).name));
    }
    for (const auto& [name, value] : record.fields) fields.push_back(fmt::format("{}={}", name, value));
    return fields;
}

}  // namespace orvex::platform
