#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "platform/file_manager.h"
#include "platform/result.h"

namespace orvex::platform {

/// The bodies of a session's tasks: what an upload sends ("N.body") and what a download has brought so far
/// ("N.download"), in the directory "spool" of the session's own.
///
/// Threading: callable from any thread, but not for one task from two.
class TransferSpool {
public:
    /// `place` is the session's directory as a path in the state directory; "spool" is made in it.
    static Result<std::unique_ptr<TransferSpool>> open(std::shared_ptr<Directory> state, const std::string& place);

    /// Takes `file`, a path in the state directory, as the body of task `number`, by renaming it; a file on another
    /// file system is copied. Durable when it returns. Returns its size.
    [[nodiscard]] Result<std::uint64_t> takeBody(std::uint64_t number, std::string_view file);
    /// Puts it back where it was.
    void giveBody(std::uint64_t number, std::string_view file);
    [[nodiscard]] Result<OpenFile> openBody(std::uint64_t number) const;

    /// An empty file to append to.
    [[nodiscard]] Result<FileDescriptor> makeDownload(std::uint64_t number);
    [[nodiscard]] Result<void> syncDownload(std::uint64_t number);
    [[nodiscard]] std::string downloadPath(std::uint64_t number) const;  ///< for the file system
    [[nodiscard]] Result<OpenFile> openDownload(std::uint64_t number) const;

    void removeBody(std::uint64_t number);
    void removeDownload(std::uint64_t number);
    /// What an earlier process left behind for no task.
    void removeAllBut(const std::set<std::uint64_t>& numbers);

private:
    TransferSpool(std::shared_ptr<Directory> state, std::string place, FileDescriptor handle);

    [[nodiscard]] Result<void> _copy(const OpenFile& source, const std::string& name);
    [[nodiscard]] std::string _inState(const std::string& name) const { return _place + "/" + name; }
    void _remove(const std::string& name);

    // Constant after construction.
    const std::shared_ptr<Directory> _state;
    const std::string _place;      ///< of the spool, in the state directory
    const FileDescriptor _handle;  ///< of the spool
};

}  // namespace orvex::platform
