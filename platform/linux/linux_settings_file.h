#pragma once

#include <memory>
#include <string>

#include "platform/linux/file_watcher.h"
#include "platform/settings_file.h"

namespace orvex::platform {

/// A settings file by its path. Believed is a regular file of our own uid or root's, not behind a symbolic link; it and
/// its directories may come later.
///
/// Threading: callable from any thread; the handler comes on the watcher's.
class LinuxSettingsFile final : public SettingsFile {
public:
    /// `directory` is an absolute path without a slash at its end.
    LinuxSettingsFile(FileWatcher& watcher, std::string directory, std::string name)
        : _watcher(watcher),
          _directory(std::move(directory)),
          _name(std::move(name)) {}

    [[nodiscard]] Result<std::string> read() const override;
    void setChangeHandler(std::function<void()> handler) override;

private:
    // Constant after construction.
    FileWatcher& _watcher;
    const std::string _directory;
    const std::string _name;

    std::unique_ptr<FileWatcher::Watch> _watch;  ///< once there is a handler
};

}  // namespace orvex::platform
