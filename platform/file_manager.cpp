#include "platform/file_manager.h"

#include <unistd.h>

#include <cerrno>

namespace orvex::platform {

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
        reset();
        _fd = other.release();
    }
    return *this;
}

void FileDescriptor::reset() noexcept {
    if (valid()) ::close(release());
}

Result<std::size_t> FileDescriptor::read(char* into, std::size_t limit) const {
    while (true) {
        const ssize_t count = ::read(_fd, into, limit);
        if (count >= 0) return static_cast<std::size_t>(count);
        if (errno != EINTR) return failure(errno, "cannot read");
    }
}

bool isAcceptablePath(std::string_view name) {
    constexpr std::size_t maxPartBytes = 255;  // NAME_MAX of every file system that matters
    if (name.empty() || name.contains('\0')) return false;
    while (true) {
        const auto end = name.find('/');
        const auto part = name.substr(0, end);
        if (part.empty() || part == "." || part == ".." || part.size() > maxPartBytes) return false;
        if (end == name.npos) return true;
        name.remove_prefix(end + 1);
    }
}

bool isTemporaryName(std::string_view name) { return name.starts_with(".orvexd-") && name.ends_with(".tmp"); }

std::size_t removeTemporaries(Directory& directory) {
    std::size_t removed = 0;
    const auto names = directory.list();
    if (!names) return 0;
    for (const auto& name : *names)
        if (isTemporaryName(name) && directory.remove(name)) ++removed;
    return removed;
}

bool saysBrokenFile(const Failure& failure) {
    switch (failure.code) {
        case EFBIG:
        case EISDIR:
        case ELOOP:
        case ENXIO:
            return true;
        default:
            return false;
    }
}

bool setAside(Directory& directory, std::string_view name) {
    const std::string aside = std::string(name) + ".corrupt";
    const auto moved = directory.rename(name, aside);
    if (moved) return true;
    // A directory does not give way to a file, nor a file to a directory.
    if (moved.error().code != EISDIR && moved.error().code != ENOTDIR) return false;
    return directory.remove(aside) && directory.rename(name, aside);
}

}  // namespace orvex::platform
