#include "platform/linux/linux_directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "platform/linux/linux_append_file.h"
#include "platform/linux/open_beneath.h"
#include "platform/linux/read_descriptor.h"
#include "platform/linux/system_failure.h"
#include "platform/linux/write_descriptor.h"

// A file is opened first and looked at then, by its handle, so that nothing can change between the two. O_NONBLOCK lets
// the open of a FIFO return at once; a regular file does not know it.
//
// A replacement is written beside the file under a random name and renamed over it. The file is synced before the
// rename and the directory after it: the first keeps an empty file from appearing under the name, the second makes the
// rename itself last.

namespace orvex::platform {
namespace {

constexpr mode_t fileMode = 0600;
constexpr mode_t directoryMode = 0700;

/// Why a file of this kind and owner is not one that we read, or 0.
int refusal(mode_t mode, uid_t owner) {
    if (S_ISDIR(mode)) return EISDIR;
    if (S_ISLNK(mode)) return ELOOP;
    if (!S_ISREG(mode)) return ENXIO;
    return owner == ::geteuid() ? 0 : EPERM;
}

int refusal(const FileDescriptor& file) {
    struct stat status{};
    if (::fstat(file.get(), &status) != 0) return errno;
    return refusal(status.st_mode, status.st_uid);
}

WallTime wallTime(const struct statx_timestamp& time) {
    return wallTimeFromSeconds(static_cast<double>(time.tv_sec)) + std::chrono::nanoseconds(time.tv_nsec);
}

/// Of a file that we read; the error is an errno.
std::expected<FileAttributes, int> attributesOf(const FileDescriptor& file) {
    struct statx status{};
    constexpr unsigned int wanted = STATX_BASIC_STATS | STATX_BTIME;
    if (::statx(file.get(), "", AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW, wanted, &status) != 0)
        return std::unexpected(errno);
    if (const int code = refusal(status.stx_mode, status.stx_uid)) return std::unexpected(code);
    const bool hasBirth = (status.stx_mask & STATX_BTIME) != 0 && status.stx_btime.tv_sec != 0;
    return FileAttributes{.size = status.stx_size,
                          .created = wallTime(hasBirth ? status.stx_btime : status.stx_mtime),
                          .modified = wallTime(status.stx_mtime),
                          .permissions = status.stx_mode & 07777u};
}

/// A new file with these bytes, synced; 0 or the errno. A file that failed is gone.
int writeNewFile(int directory, const std::string& name, std::string_view bytes) {
    FileDescriptor file(
        ::openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, fileMode));
    if (!file.valid()) return errno;
    int code = writeAll(file.get(), bytes);
    if (code == 0 && ::fsync(file.get()) != 0) code = errno;
    if (::close(file.release()) != 0 && code == 0) code = errno;
    if (code != 0) ::unlinkat(directory, name.c_str(), 0);
    return code;
}

std::string newTemporaryName() {
    std::uint64_t random = 0;
    while (::getrandom(&random, sizeof random, 0) != sizeof random) continue;
    return fmt::format(".orvexd-{:016x}.tmp", random);
}

}  // namespace

struct LinuxDirectory::Place {
    FileDescriptor directory;
    std::string name;
};

Result<std::shared_ptr<LinuxDirectory>> LinuxDirectory::open(int parent, std::string_view name, std::string path,
                                                             WhenMissing whenMissing) {
    const auto failed = [&](int code) { return systemFailure(code, fmt::format("open the directory {}", path)); };
    if (whenMissing == WhenMissing::make && ::mkdirat(parent, std::string(name).c_str(), directoryMode) != 0 &&
        errno != EEXIST)
        return failed(errno);
    auto handle = openBeneath(parent, name, O_RDONLY | O_DIRECTORY);
    if (!handle) return failed(handle.error().code);
    struct stat status{};
    if (::fstat(handle->get(), &status) != 0) return failed(errno);
    if (status.st_uid != ::geteuid()) return failed(EPERM);
    if ((status.st_mode & 07777) != directoryMode && ::fchmod(handle->get(), directoryMode) != 0) return failed(errno);
    return std::make_shared<LinuxDirectory>(std::move(*handle), std::move(path));
}

Result<std::string> LinuxDirectory::read(std::string_view name, std::size_t maxBytes) const {
    const auto file = _openToRead(name);
    if (!file) return std::unexpected(file.error());
    auto bytes = readDescriptor(*file, maxBytes);
    if (!bytes) return _failed(bytes.error(), "read", name);
    return *std::move(bytes);
}

Result<OpenFile> LinuxDirectory::openFile(std::string_view name) const {
    auto file = _openToRead(name);
    if (!file) return std::unexpected(file.error());
    auto attributes = attributesOf(*file);
    if (!attributes) return _failed(attributes.error(), "read", name);
    return OpenFile{.descriptor = *std::move(file), .attributes = *attributes};
}

Result<void> LinuxDirectory::replace(std::string_view name, std::string_view bytes) {
    const auto place = _place(name);
    if (!place) return _failed(place.error().code, "write", name);
    const int directory = place->directory.get();
    const std::string temporary = newTemporaryName();
    if (const int code = writeNewFile(directory, temporary, bytes)) return _failed(code, "write", name);
    if (::renameat(directory, temporary.c_str(), directory, place->name.c_str()) != 0) {
        const int code = errno;
        ::unlinkat(directory, temporary.c_str(), 0);
        return _failed(code, "replace", name);
    }
    if (const int code = syncDirectory(directory)) return _failed(code, "sync the directory of", name);
    return {};
}

Result<std::shared_ptr<AppendFile>> LinuxDirectory::createFile(std::string_view name) {
    auto place = _place(name);
    if (!place) return _failed(place.error().code, "make", name);
    constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    FileDescriptor file(::openat(place->directory.get(), place->name.c_str(), flags, fileMode));
    if (!file.valid()) return _failed(errno, "make", name);
    return std::make_shared<LinuxAppendFile>(std::move(file), std::move(place->directory),
                                             fmt::format("{}/{}", _path, name));
}

Result<void> LinuxDirectory::remove(std::string_view name) {
    const auto place = _place(name);
    if (!place) return _failed(place.error().code, "remove", name);
    const int directory = place->directory.get();
    if (::unlinkat(directory, place->name.c_str(), 0) == 0) return {};
    if (errno != EISDIR) return _failed(errno, "remove", name);
    if (::unlinkat(directory, place->name.c_str(), AT_REMOVEDIR) != 0) return _failed(errno, "remove", name);
    return {};
}

Result<void> LinuxDirectory::rename(std::string_view from, std::string_view to) {
    const auto source = _place(from);
    if (!source) return _failed(source.error().code, "rename", from);
    const auto target = _place(to);
    if (!target) return _failed(target.error().code, "rename", to);
    if (::renameat(source->directory.get(), source->name.c_str(), target->directory.get(), target->name.c_str()) != 0)
        return _failed(errno, "rename", from);
    if (const int code = syncDirectory(target->directory.get())) return _failed(code, "sync the directory of", to);
    if (const int code = syncDirectory(source->directory.get())) return _failed(code, "sync the directory of", from);
    return {};
}

Result<void> LinuxDirectory::makeDirectory(std::string_view name) {
    const auto place = _place(name);
    if (!place) return _failed(place.error().code, "make the directory", name);
    const int parent = place->directory.get();
    if (::mkdirat(parent, place->name.c_str(), directoryMode) == 0) {
        if (const int code = syncDirectory(parent)) return _failed(code, "sync the directory of", name);
        return {};
    }
    if (errno != EEXIST) return _failed(errno, "make the directory", name);
    if (openBeneath(parent, place->name, O_PATH | O_DIRECTORY)) return {};
    return _failed(EEXIST, "make the directory", name);
}

Result<FileAttributes> LinuxDirectory::attributes(std::string_view name) const {
    const auto file = openBeneath(_handle.get(), name, O_PATH);
    if (!file) return _failed(file.error().code, "look at", name);
    const auto attributes = attributesOf(*file);
    if (!attributes) return _failed(attributes.error(), "look at", name);
    return *attributes;
}

Result<std::vector<std::string>> LinuxDirectory::list(std::string_view name) const {
    auto handle = openBeneath(_handle.get(), name, O_RDONLY | O_DIRECTORY);
    if (!handle) return _failed(handle.error().code, "list", name);
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::fdopendir(handle->get()), ::closedir);
    if (!entries) return _failed(errno, "list", name);
    handle->release();  // the stream's now
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* entry = ::readdir(entries.get())) {
        const std::string_view found = entry->d_name;
        if (found != "." && found != "..") names.emplace_back(found);
        errno = 0;
    }
    if (errno != 0) return _failed(errno, "list", name);
    std::ranges::sort(names);
    return names;
}

Result<std::shared_ptr<Directory>> LinuxDirectory::directory(std::string_view name) {
    const auto place = _place(name);
    if (!place) return _failed(place.error().code, "open the directory", name);
    auto opened = open(place->directory.get(), place->name, fmt::format("{}/{}", _path, name), WhenMissing::make);
    if (!opened) return std::unexpected(opened.error());
    return std::shared_ptr<Directory>(std::move(*opened));
}

Result<FileDescriptor> LinuxDirectory::lock(std::string_view name, std::chrono::milliseconds limit) {
    auto file = openBeneath(_handle.get(), name, O_RDWR | O_CREAT | O_NONBLOCK | O_NOCTTY, fileMode);
    if (!file) return _failed(file.error().code, "lock", name);
    if (const int code = refusal(*file)) return _failed(code, "lock", name);
    // flock has no time limit of its own, and a signal to end it would be the whole process's affair.
    constexpr std::chrono::milliseconds step(10);
    for (std::chrono::milliseconds waited(0); ::flock(file->get(), LOCK_EX | LOCK_NB) != 0; waited += step) {
        if (errno != EWOULDBLOCK && errno != EINTR) return _failed(errno, "lock", name);
        if (waited >= limit) return _failed(EWOULDBLOCK, "lock", name);
        const timespec pause{.tv_sec = 0, .tv_nsec = std::chrono::nanoseconds(step).count()};
        ::nanosleep(&pause, nullptr);
    }
    return std::move(*file);
}

Result<FileDescriptor> LinuxDirectory::_openToRead(std::string_view name) const {
    auto file = openBeneath(_handle.get(), name, O_RDONLY | O_NONBLOCK | O_NOCTTY);
    if (!file) return _failed(file.error().code, "read", name);
    if (const int code = refusal(*file)) return _failed(code, "read", name);
    return file;
}

Result<LinuxDirectory::Place> LinuxDirectory::_place(std::string_view name) const {
    if (!isAcceptablePath(name)) return failure(EINVAL, "not a path below a directory");
    const auto slash = name.rfind('/');
    const auto parent = slash == name.npos ? std::string_view(".") : name.substr(0, slash);
    auto directory = openBeneath(_handle.get(), parent, O_RDONLY | O_DIRECTORY);
    if (!directory) return std::unexpected(directory.error());
    return Place{std::move(*directory), std::string(name.substr(slash + 1))};  // npos + 1 is 0
}

std::unexpected<Failure> LinuxDirectory::_failed(int code, std::string_view verb, std::string_view name) const {
    return systemFailure(code, fmt::format("{} {}/{}", verb, _path, name));
}

}  // namespace orvex::platform
