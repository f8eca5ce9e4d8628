#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"

namespace orvex::platform {

class FileManager;

/// When each activity last began, in the file "activities" of the state directory: a JSON object from the name to
/// seconds since 1970. A file that cannot be read so is set aside as *.corrupt; without a state directory nothing is
/// remembered beyond the process.
///
/// Threading: none of its own.
class ActivityHistory {
public:
    explicit ActivityHistory(FileManager& files) : _files(files) {}

    [[nodiscard]] std::optional<WallTime> lastRun(std::string_view name);
    void noteRun(const std::string& name, WallTime date);  ///< durable, unless the disk refuses (logged)

private:
    void _read();

    FileManager& _files;

    bool _wasRead = false;
    std::map<std::string, double, std::less<>> _dates;
};

}  // namespace orvex::platform
