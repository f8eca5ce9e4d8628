#include "platform/linux/file_manager.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "platform/linux/system_failure.h"

namespace orvex::platform {
namespace {

constexpr std::string_view ownDomain = "com.kelvar.orvexd";

std::optional<std::string> variable(const char* name) {
    const char* value = std::getenv(name);
    return value ? std::optional<std::string>(value) : std::nullopt;
}

std::optional<std::string> homeOfUserDatabase() {
    std::vector<char> buffer(16 * 1024);
    passwd entry{};
    passwd* found = nullptr;
    while (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found) == ERANGE && buffer.size() < 1 << 20)
        buffer.resize(buffer.size() * 2);
    if (!found || !found->pw_dir) return std::nullopt;
    return std::string(found->pw_dir);
}

bool usable(const std::optional<std::string>& path) { return path && path->starts_with('/'); }

std::optional<std::string> basePath(const std::optional<std::string>& base, const std::optional<std::string>& home,
                                    std::string_view belowHome) {
    if (usable(base)) return base;
    if (!usable(home)) return std::nullopt;
    return fmt::format("{}/{}", *home, belowHome);
}

/// Makes the directory and its parents where they are missing; an error shows when it is opened.
void makePath(const std::string& path) {
    for (auto end = path.find('/', 1);; end = path.find('/', end + 1)) {
        ::mkdir(path.substr(0, end).c_str(), 0700);
        if (end == path.npos) return;
    }
}

using WhenMissing = LinuxDirectory::WhenMissing;

Result<std::shared_ptr<LinuxDirectory>> openDomain(const std::optional<std::string>& base, std::string_view domain,
                                                   WhenMissing whenMissing) {
    if (!base) return failure(ENOENT, fmt::format("cannot open the directory {}: there is no home directory", domain));
    if (whenMissing == WhenMissing::make) makePath(*base);
    const FileDescriptor parent(::open(base->c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!parent.valid()) return systemFailure(errno, fmt::format("open the directory {}", *base));
    return LinuxDirectory::open(parent.get(), domain, fmt::format("{}/{}", *base, domain), whenMissing);
}

Result<std::shared_ptr<Directory>> openOwn(const std::optional<std::string>& base) {
    auto opened = openDomain(base, ownDomain, WhenMissing::make);
    if (!opened) return std::unexpected(opened.error());
    return std::shared_ptr<Directory>(std::move(*opened));
}

}  // namespace

LinuxFileManager::Environment LinuxFileManager::Environment::ofProcess() {
    auto home = variable("HOME");
    if (!usable(home)) home = homeOfUserDatabase();
    return {.home = std::move(home),
            .cacheHome = variable("XDG_CACHE_HOME"),
            .stateHome = variable("XDG_STATE_HOME"),
            .configHome = variable("XDG_CONFIG_HOME")};
}

Result<std::shared_ptr<Directory>> LinuxFileManager::cachesDirectory() {
    return openOwn(basePath(_environment.cacheHome, _environment.home, ".cache"));
}

Result<std::shared_ptr<Directory>> LinuxFileManager::stateDirectory() {
    return openOwn(basePath(_environment.stateHome, _environment.home, ".local/state"));
}

Result<std::shared_ptr<Directory>> LinuxFileManager::configurationDirectory() { return openOwn(_configurationBase()); }

Result<std::shared_ptr<LinuxDirectory>> LinuxFileManager::configurationDirectory(std::string_view domain) {
    return openDomain(_configurationBase(), domain, WhenMissing::make);
}

Result<std::shared_ptr<LinuxDirectory>> LinuxFileManager::existingConfigurationDirectory(std::string_view domain) {
    return openDomain(_configurationBase(), domain, WhenMissing::fail);
}

std::optional<std::string> LinuxFileManager::configurationPath(std::string_view domain) const {
    const auto base = _configurationBase();
    if (!base) return std::nullopt;
    return fmt::format("{}/{}", *base, domain);
}

std::unique_ptr<FileManager> fileManagerBelow(std::string home) {
    return std::make_unique<LinuxFileManager>(
        LinuxFileManager::Environment{.home = std::move(home), .cacheHome = {}, .stateHome = {}, .configHome = {}});
}

std::optional<std::string> LinuxFileManager::_configurationBase() const {
    return basePath(_environment.configHome, _environment.home, ".config");
}

}  // namespace orvex::platform
