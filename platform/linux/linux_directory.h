#pragma once

#include <chrono>

#include "platform/file_manager.h"

namespace orvex::platform {

/// A directory by its handle. It stays the same directory when it is renamed, and what is done in it fails with ENOENT
/// once it has been removed: ask the file manager again.
class LinuxDirectory final : public Directory {
public:
    enum class WhenMissing { make, fail };

    /// Takes an open directory. `path` is what logs call it.
    LinuxDirectory(FileDescriptor handle, std::string path) : _handle(std::move(handle)), _path(std::move(path)) {}

    /// The directory `name` in `parent`. It must be our own uid's; its mode is made 0700.
    static Result<std::shared_ptr<LinuxDirectory>> open(int parent, std::string_view name, std::string path,
                                                        WhenMissing whenMissing);

    [[nodiscard]] std::string path() const override { return _path; }
    [[nodiscard]] Result<std::string> read(std::string_view name, std::size_t maxBytes) const override;
    [[nodiscard]] Result<OpenFile> openFile(std::string_view name) const override;
    [[nodiscard]] Result<void> replace(std::string_view name, std::string_view bytes) override;
    [[nodiscard]] Result<std::shared_ptr<AppendFile>> createFile(std::string_view name) override;
    [[nodiscard]] Result<void> remove(std::string_view name) override;
    [[nodiscard]] Result<void> rename(std::string_view from, std::string_view to) override;
    [[nodiscard]] Result<void> makeDirectory(std::string_view name) override;
    [[nodiscard]] Result<FileAttributes> attributes(std::string_view name) const override;
    [[nodiscard]] Result<std::vector<std::string>> list(std::string_view name) const override;
    [[nodiscard]] Result<std::shared_ptr<Directory>> directory(std::string_view name) override;

    /// Takes flock(2), exclusive, on a file that is made when missing; it is given back with the descriptor. Blocks the
    /// caller for at most `limit`; EWOULDBLOCK when another holds it longer.
    [[nodiscard]] Result<FileDescriptor> lock(std::string_view name, std::chrono::milliseconds limit);

private:
    struct Place;  ///< a name's parent directory, open, and its last part

    [[nodiscard]] Result<FileDescriptor> _openToRead(std::string_view name) const;
    [[nodiscard]] Result<Place> _place(std::string_view name) const;
    [[nodiscard]] std::unexpected<Failure> _failed(int code, std::string_view verb, std::string_view name) const;

    // Constant after construction.
    const FileDescriptor _handle;
    const std::string _path;
};

}  // namespace orvex::platform
