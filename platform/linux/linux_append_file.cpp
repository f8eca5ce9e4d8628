#include "platform/linux/linux_append_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include "platform/linux/system_failure.h"
#include "platform/linux/write_descriptor.h"

namespace orvex::platform {

Result<void> LinuxAppendFile::append(std::string_view bytes) {
    if (const int code = writeAll(_file.get(), bytes)) return systemFailure(code, fmt::format("append to {}", _path));
    return {};
}

Result<std::uint64_t> LinuxAppendFile::size() const {
    const auto end = ::lseek(_file.get(), 0, SEEK_END);
    if (end < 0) return systemFailure(errno, fmt::format("find the end of {}", _path));
    return static_cast<std::uint64_t>(end);
}

Result<void> LinuxAppendFile::truncate(std::uint64_t size) {
    if (::ftruncate(_file.get(), static_cast<off_t>(size)) != 0)
        return systemFailure(errno, fmt::format("cut {}", _path));
    return {};
}

Result<void> LinuxAppendFile::sync() {
    if (::fdatasync(_file.get()) != 0) return systemFailure(errno, fmt::format("sync {}", _path));
    if (_directorySynced) return {};
    if (const int code = syncDirectory(_directory.get()))
        return systemFailure(code, fmt::format("sync the directory of {}", _path));
    _directorySynced = true;
    return {};
}

}  // namespace orvex::platform
