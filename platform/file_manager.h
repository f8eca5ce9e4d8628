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

/// One directory of ours and what lies below it. Every path is relative to it: `..`, absolute paths and symbolic links
/// are refused on the way, and so is a file that is not regular or not of our own uid.
///
/// Threading: callable from any thread. Nothing is remembered between calls.
class Directory {
public:
    virtual ~Directory() = default;

    [[nodiscard]] virtual std::string path() const = 0;  ///< for logs and for what takes only paths (SQLite)

    /// The whole file; code ENOENT when there is none, EFBIG when it is larger than `maxBytes`.
    [[nodiscard]] virtual Result<std::string> read(std::string_view name, std::size_t maxBytes) const = 0;

    /// Replaces the file as a whole, or leaves the old one: a new file beside it, synced, renamed, the directory
    /// synced. Durable when it returns without an error. Mode 0600.
    [[nodiscard]] virtual Result<void> replace(std::string_view name, std::string_view bytes) = 0;

    [[nodiscard]] virtual Result<void> remove(std::string_view name) = 0;  ///< ENOENT is an error too
    [[nodiscard]] virtual Result<void> rename(std::string_view from, std::string_view to) = 0;
    [[nodiscard]] virtual Result<void> makeDirectory(std::string_view name) = 0;  ///< mode 0700; existing is success
    [[nodiscard]] virtual Result<FileAttributes> attributes(std::string_view name) const = 0;
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

/// Moves a broken file aside as `NAME.corrupt` (the one before is lost) and returns whether there was one to move.
bool setAside(Directory& directory, std::string_view name);

}  // namespace orvex::platform
