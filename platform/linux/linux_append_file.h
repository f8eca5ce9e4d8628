#pragma once

#include <atomic>
#include <string>

#include "platform/append_file.h"
#include "platform/file_manager.h"

namespace orvex::platform {

/// An `AppendFile` over a descriptor opened with O_APPEND.
class LinuxAppendFile final : public AppendFile {
public:
    /// `directory` is where the file was made just now; `path` is what failures call the file.
    LinuxAppendFile(FileDescriptor file, FileDescriptor directory, std::string path)
        : _file(std::move(file)),
          _directory(std::move(directory)),
          _path(std::move(path)) {}

    [[nodiscard]] Result<void> append(std::string_view bytes) override;
    [[nodiscard]] Result<std::uint64_t> size() const override;
    [[nodiscard]] Result<void> truncate(std::uint64_t size) override;
    [[nodiscard]] Result<void> sync() override;

private:
    // Constant after construction.
    const FileDescriptor _file;
    const FileDescriptor _directory;
    const std::string _path;

    // Synchronised by itself.
    std::atomic<bool> _directorySynced = false;
};

}  // namespace orvex::platform
