#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/log.h"

namespace orvex::platform {

/// Takes the process's log lines for its scope, then puts the earlier sink and level back. Scopes nest.
///
/// Threading: callable from any thread; lines of other threads are taken too.
class RecordingLog {
public:
    struct Line {
        LogLevel level;
        std::string subsystem;
        std::string category;
        std::string text;  ///< as a sink gets it: escaped and cut
        std::optional<LogEvent> event = {};
        std::map<std::string, std::string, std::less<>> fields = {};
    };

    explicit RecordingLog(LogLevel level = LogLevel::debug);
    ~RecordingLog();
    RecordingLog(const RecordingLog&) = delete;
    RecordingLog& operator=(const RecordingLog&) = delete;

    /// A line of that level and category has `text` in it.
    [[nodiscard]] bool contains(LogLevel level, std::string_view category, std::string_view text) const;
    [[nodiscard]] std::vector<Line> lines() const;
    /// The lines that are that event.
    [[nodiscard]] std::vector<Line> events(LogEvent event) const;

private:
    class Sink;

    const std::shared_ptr<Sink> _sink;
    const LogLevel _earlierLevel;
    const std::shared_ptr<LogSink> _earlierSink;
};

}  // namespace orvex::platform
