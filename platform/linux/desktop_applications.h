#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "platform/installed_applications.h"
#include "platform/linux/file_watcher.h"

namespace orvex::platform {

/// Applications as packages install them: desktop entries (freedesktop.org, version 1.5), known by their desktop
/// file IDs without ".desktop", with the version that AppStream's metainfo tells. An entry counts when it is of type
/// Application and not hidden; of several with one ID that of the first directory counts.
///
/// Threading: callable from any thread; the handler comes on the watcher's.
/// Limits: a change is noticed in a data directory's `applications`, `metainfo` and `appdata`, not in directories below
/// them. Larger files are passed over, and so is what lies deeper or is more.
class DesktopApplications final : public InstalledApplications {
public:
    static constexpr std::size_t maxFileBytes = std::size_t{2} << 20;
    static constexpr std::size_t maxFiles = 20'000;  ///< of either kind, in one directory
    static constexpr int maxDepth = 8;               ///< of directories below `applications`

    /// `dataDirectories` by precedence; what is missing may come later.
    DesktopApplications(FileWatcher& watcher, std::vector<std::string> dataDirectories)
        : _watcher(watcher),
          _dataDirectories(std::move(dataDirectories)) {}

    /// `$XDG_DATA_HOME`, then `$XDG_DATA_DIRS`, with their defaults (XDG base directory rules).
    [[nodiscard]] static std::vector<std::string> dataDirectoriesOfProcess();

    [[nodiscard]] std::vector<InstalledApplication> applications() const override;
    void setChangeHandler(std::function<void()> handler) override;

private:
    // Constant after construction.
    FileWatcher& _watcher;
    const std::vector<std::string> _dataDirectories;

    std::vector<std::unique_ptr<FileWatcher::Watch>> _watches;  ///< once there is a handler
};

}  // namespace orvex::platform
