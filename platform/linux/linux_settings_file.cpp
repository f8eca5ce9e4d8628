#include "platform/linux/linux_settings_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/linux/read_descriptor.h"
#include "platform/linux/system_failure.h"

namespace orvex::platform {

Result<std::string> LinuxSettingsFile::read() const {
    const auto path = _directory + '/' + _name;
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!file.valid()) return systemFailure(errno, fmt::format("open {}", path));
    struct stat status{};
    if (::fstat(file.get(), &status) != 0) return systemFailure(errno, fmt::format("look at {}", path));
    if (!S_ISREG(status.st_mode)) return failure(EINVAL, fmt::format("{} is no regular file", path));
    if (status.st_uid != 0 && status.st_uid != ::geteuid())
        return failure(EPERM, fmt::format("{} belongs to another user", path));
    auto text = readDescriptor(file, maxSettingsFileBytes);
    if (!text) return systemFailure(text.error(), fmt::format("read {}", path));
    return *std::move(text);
}

void LinuxSettingsFile::setChangeHandler(std::function<void()> handler) {
    _watch = _watcher.watch(_directory, _name, std::move(handler));
}

}  // namespace orvex::platform
