#pragma once

#include <optional>

#include "platform/file_manager.h"
#include "platform/linux/linux_directory.h"

namespace orvex::platform {

/// The daemon's directories by the XDG base directory rules: below `$XDG_CACHE_HOME`, `$XDG_STATE_HOME` and
/// `$XDG_CONFIG_HOME`, else below `.cache`, `.local/state` and `.config` in the home directory. A variable that is
/// empty or not absolute counts as unset. The base itself may lie behind symbolic links, our own directory may not be
/// one.
///
/// Threading: callable from any thread. Each call opens the directory anew, so one that was removed is made again.
class LinuxFileManager final : public FileManager {
public:
    /// Where to look, as the environment has it.
    struct Environment {
        std::optional<std::string> home;  ///< of the user database when HOME is not set
        std::optional<std::string> cacheHome;
        std::optional<std::string> stateHome;
        std::optional<std::string> configHome;

        static Environment ofProcess();
    };

    explicit LinuxFileManager(Environment environment) : _environment(std::move(environment)) {}

    [[nodiscard]] Result<std::shared_ptr<Directory>> cachesDirectory() override;
    [[nodiscard]] Result<std::shared_ptr<Directory>> stateDirectory() override;
    [[nodiscard]] Result<std::shared_ptr<Directory>> configurationDirectory() override;

    /// The configuration directory of a settings domain: our own is "com.kelvar.orvexd".
    [[nodiscard]] Result<std::shared_ptr<LinuxDirectory>> configurationDirectory(std::string_view domain);
    /// The same without making it: ENOENT when it is missing.
    [[nodiscard]] Result<std::shared_ptr<LinuxDirectory>> existingConfigurationDirectory(std::string_view domain);
    /// Its path, whether it is there or not; none without a home.
    [[nodiscard]] std::optional<std::string> configurationPath(std::string_view domain) const;

private:
    [[nodiscard]] std::optional<std::string> _configurationBase() const;

    // Constant after construction.
    const Environment _environment;
};

}  // namespace orvex::platform
