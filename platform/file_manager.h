#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "platform/result.h"

namespace orvex::platform {

class AppendFile;

/// A descriptor that is closed with its owner.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : _fd(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : _fd(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    ~FileDescriptor() { reset(); }

    [[nodiscard]] int get() const { return _fd; }
    [[nodiscard]] bool valid() const { return _fd >= 0; }
    /// The next bytes, at most `limit`; 0 at the end.
    [[nodiscard]] Result<std::size_t> read(char* into, std::size_t limit) const;

    int release() noexcept {
        const int fd = _fd;
        _fd = -1;
        return fd;
    }
    void reset() noexcept;

private:
    int _fd = -1;
};

struct FileAttributes {
    std::uint64_t size = 0;
    WallTime created;  ///< birth time, or the modification time on a file system that keeps none
    WallTime modified;
    std::uint32_t permissions = 0;  ///< the lower twelve bits of the mode
};

/// A file to be read from its beginning, and what it was like when it was opened.
struct OpenFile {
    FileDescriptor descriptor;
    FileAttributes attributes;
};

/// One directory of ours and what lies below it. A name is a path relative to it; one that is absolute, or has an empty
/// part, `.` or `..`, is refused (EINVAL), and so is a symbolic link on the way (ELOOP or ENOTDIR).
///
/// What is read must be a regular file of our own uid: code EISDIR for a directory, ELOOP for a symbolic link, ENXIO
/// for a FIFO, socket or device (none of which is waited for), EPERM for a file of another uid. What stands under a
/// name may be replaced, renamed or removed whatever its kind; a link is never followed.
///
/// Threading: callable from any thread. Nothing is remembered between calls.
class Directory {
public:
    virtual ~Directory() = default;

    [[nodiscard]] virtual std::string path() const = 0;  ///< for logs and for what takes only paths (SQLite)

    /// The whole file; code ENOENT when there is none, EFBIG when it is larger than `maxBytes`.
    [[nodiscard]] virtual Result<std::string> read(std::string_view name, std::size_t maxBytes) const = 0;

    /// The file as it is now: once opened, it stays the same whatever replaces it under its name. Fails as `read`.
    [[nodiscard]] virtual Result<OpenFile> openFile(std::string_view name) const = 0;

    /// Replaces the file as a whole, or leaves the old one: a new file beside it, synced, renamed, the directory
    /// synced. Durable when it returns without an error. Mode 0600. A crash may leave the new file under a name that
    /// `isTemporaryName` knows. EISDIR when the name is a directory's.
    [[nodiscard]] virtual Result<void> replace(std::string_view name, std::string_view bytes) = 0;

    /// A new, empty file, mode 0600, open; EEXIST when anything stands under the name, a link too.
    [[nodiscard]] virtual Result<std::shared_ptr<AppendFile>> createFile(std::string_view name) = 0;

    /// A file, or a directory that is empty (else ENOTEMPTY). ENOENT is an error too.
    [[nodiscard]] virtual Result<void> remove(std::string_view name) = 0;
    /// Replaces what stands under `to`; a directory replaces only an empty directory. Durable when it returns.
    [[nodiscard]] virtual Result<void> rename(std::string_view from, std::string_view to) = 0;
    [[nodiscard]] virtual Result<void> makeDirectory(std::string_view name) = 0;  ///< mode 0700; existing is success
    [[nodiscard]] virtual Result<FileAttributes> attributes(std::string_view name) const = 0;
    /// Names of every kind, sorted, leftovers of `replace` among them; "." is this directory.
    [[nodiscard]] virtual Result<std::vector<std::string>> list(std::string_view name = ".") const = 0;

    /// A directory below this one, made when missing.
    [[nodiscard]] virtual Result<std::shared_ptr<Directory>> directory(std::string_view name) = 0;
};

/// Where the daemon's files are. Each directory is made on first use, with its parents, mode 0700; a failure is
/// answered anew at each call, so a home that comes later is found.
class FileManager {
public:
    virtual ~FileManager() = default;
    [[nodiscard]] virtual Result<std::shared_ptr<Directory>> cachesDirectory() = 0;  ///< …/com.kelvar.orvexd
    [[nodiscard]] virtual Result<std::shared_ptr<Directory>> stateDirectory() = 0;
    [[nodiscard]] virtual Result<std::shared_ptr<Directory>> configurationDirectory() = 0;
};

/// The operating system's directories, all of them below `home` whatever the environment says. Defined in
/// platform/linux.
[[nodiscard]] std::unique_ptr<FileManager> fileManagerBelow(std::string home);

/// Whether `name` is one that a `Directory` takes: relative, no empty part, no `.` or `..`, no zero byte, parts of at
/// most 255 bytes.
[[nodiscard]] bool isAcceptablePath(std::string_view name);

/// Whether this is the name of a new file that `replace` had not yet put in its place: `.orvexd-` and `.tmp`.
[[nodiscard]] bool isTemporaryName(std::string_view name);

/// Removes what a crash left under such names; returns how many. For the owner of the directory, when it starts.
std::size_t removeTemporaries(Directory& directory);

/// Whether this failure of `read` says that what stands under the name is no file to be read (not: that the system
/// failed to). Such a file is broken for good.
[[nodiscard]] bool saysBrokenFile(const Failure& failure);

/// Moves a broken file aside as `NAME.corrupt` (the one before is lost) and returns whether there was one to move.
bool setAside(Directory& directory, std::string_view name);

}  // namespace orvex::platform
