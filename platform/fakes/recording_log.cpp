#include "platform/fakes/recording_log.h"

#include <algorithm>

#include "platform/thread_annotations.h"

namespace orvex::platform {

class RecordingLog::Sink : public LogSink {
public:
    void write(const LogRecord& record) override {
        Line line{record.level,
                  std::string(record.subsystem),
                  std::string(record.category),
                  std::string(record.message),
                  record.event,
                  {}};
        for (const auto& [name, value] : record.fields) line.fields.emplace(name, value);
        const MutexLock lock(_mutex);
        _lines.push_back(std::move(line));
    }
    std::vector<Line> lines() const {
        const MutexLock lock(_mutex);
        return _lines;
    }

private:
    mutable Mutex _mutex;
    std::vector<Line> _lines ORX_GUARDED_BY(_mutex);
};

RecordingLog::RecordingLog(LogLevel level)
    : _sink(std::make_shared<Sink>()),
      _earlierLevel(logLevelInForce()),
      _earlierSink(installLogSink(_sink, level)) {}

RecordingLog::~RecordingLog() { installLogSink(_earlierSink, _earlierLevel); }

bool RecordingLog::contains(LogLevel level, std::string_view category, std::string_view text) const {
    return std::ranges::any_of(lines(), [&](const Line& line) {
        return line.level == level && line.category == category && line.text.find(text) != std::string::npos;
    });
}

std::vector<RecordingLog::Line> RecordingLog::lines() const { return _sink->lines(); }

std::vector<RecordingLog::Line> RecordingLog::events(LogEvent event) const {
    auto found = lines();
    std::erase_if(found, [event](const Line& line) { return line.event != event; });
    return found;
}

}  // namespace orvex::platform
