#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/log.h"
#include "platform/result.h"

/// Where log lines go. `makeLogSink` makes one of three:
///
/// - "console": `TIME LEVEL CATEGORY MESSAGE`, a line each; TIME is ISO 8601 in UTC with milliseconds;
/// - "json": one object a line, with `time`, `level`, `subsystem`, `category` and `message`, and of an event `event`,
///   `message_id` and its fields;
/// - "journal": the systemd journal, with the fields of `journalFields`. Where there is no journal it is the console,
///   which says so.
namespace orvex::platform {

struct LogSinkOptions {
    std::FILE* stream = stderr;  ///< of the console and of JSON; outlives the sink
    std::string journalSocket = "/run/systemd/journal/socket";
};

/// Fails with EINVAL for another format. What cannot be written, to a full disk or a closed pipe, is dropped.
Result<std::shared_ptr<LogSink>> makeLogSink(std::string_view format, const LogSinkOptions& options = {});

/// `FIELD=value` each: MESSAGE, PRIORITY (syslog(3)), SUBSYSTEM and CATEGORY; of an event also MESSAGE_ID, ORVEX_EVENT
/// (its name) and its fields.
std::vector<std::string> journalFields(const LogRecord& record);

}  // namespace orvex::platform
