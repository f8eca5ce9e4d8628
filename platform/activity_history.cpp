#include "platform/activity_history.h"

#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <cerrno>
#include <stdexcept>

#include "platform/file_manager.h"
#include "platform/log.h"
#include "platform/log_events.h"

namespace orvex::platform {
namespace {

constexpr std::string_view fileName = "activities";
constexpr std::size_t largestFile = 64u << 10;

}  // namespace

std::optional<WallTime> ActivityHistory::lastRun(std::string_view name) {
    _read();
    const auto found = _dates.find(name);
    return found == _dates.end() ? std::nullopt : std::optional(wallTimeFromSeconds(found->second));
}

void ActivityHistory::noteRun(const std::string& name, WallTime date) {
    _read();
    _dates[name] = secondsSince1970(date);
    boost::json::object object;
    for (const auto& [activity, seconds] : _dates) object[activity] = seconds;
    auto state = _files.stateDirectory();
    const auto written = state ? (*state)->replace(fileName, boost::json::serialize(object))
                               : Result<void>(std::unexpected(state.error()));
    if (written) return;
    defaultLogger()
        .as(LogEvent::writeFailed, {{"ORVEX_FILE", fileName}, {"ORVEX_REASON", written.error().text}})
        .error("the run of {} is not remembered: {}", name, written.error().text);
}

void ActivityHistory::_read() {
    if (_wasRead) return;
    _wasRead = true;
    auto state = _files.stateDirectory();
    if (!state) return;
    const auto bytes = (*state)->read(fileName, largestFile);
    if (!bytes && bytes.error().code == ENOENT) return;
    try {
        if (!bytes) throw std::runtime_error(bytes.error().text);
        const boost::json::value dates = boost::json::parse(*bytes);
        for (const auto& [name, date] : dates.as_object()) _dates[std::string(name)] = date.to_number<double>();
    } catch (const std::exception& error) {
        defaultLogger()
            .as(LogEvent::fileSetAside, {{"ORVEX_FILE", fileName}, {"ORVEX_REASON", error.what()}})
            .error("the runs of activities are forgotten: {}", error.what());
        _dates.clear();
        if (bytes || saysBrokenFile(bytes.error())) setAside(**state, fileName);
    }
}

}  // namespace orvex::platform
