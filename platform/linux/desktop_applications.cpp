#include "platform/linux/desktop_applications.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <ranges>
#include <set>
#include <string_view>

#include "platform/linux/appstream_metainfo.h"
#include "platform/linux/read_descriptor.h"

namespace orvex::platform {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view entryExtension = ".desktop";

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r");
    if (first == text.npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

/// Whether a desktop entry is that of an application that is there: only its first group is looked at.
bool isApplication(std::string_view entry) {
    bool inGroup = false;
    bool application = false;
    for (const auto range : std::views::split(entry, '\n')) {
        const auto line = trimmed(std::string_view(range.begin(), range.end()));
        if (line.starts_with('[')) {
            if (inGroup) break;
            inGroup = line == "[Desktop Entry]";
            if (!inGroup) return false;
        } else if (const auto equals = line.find('='); inGroup && equals != line.npos) {
            const auto key = trimmed(line.substr(0, equals));
            const auto value = trimmed(line.substr(equals + 1));
            if (key == "Type") application = value == "Application";
            if (key == "Hidden" && value == "true") return false;
        }
    }
    return application;
}

/// The paths of the files below `directory` that end like that, sorted; the relative ones.
std::vector<std::string> filesBelow(const std::string& directory, std::string_view extension, int maxDepth) {
    std::vector<std::string> files;
    std::error_code error;
    fs::recursive_directory_iterator file(directory, fs::directory_options::skip_permission_denied, error);
    for (const fs::recursive_directory_iterator end;
         !error && file != end && files.size() < DesktopApplications::maxFiles; file.increment(error)) {
        if (file.depth() >= maxDepth) file.disable_recursion_pending();
        const std::string& path = file->path().native();
        if (path.ends_with(extension)) files.push_back(path.substr(directory.size() + 1));
    }
    std::ranges::sort(files);
    return files;
}

/// "kde/viewer.desktop" is "kde-viewer".
std::string desktopFileID(std::string path) {
    path.resize(path.size() - entryExtension.size());
    std::ranges::replace(path, '/', '-');
    return path;
}

/// Versions by identifier, of one data directory; the first file that names an application counts.
void collectVersions(std::map<std::string, std::string>& versions, const std::string& directory) {
    for (const auto& name : filesBelow(directory, ".xml", 0)) {
        const auto xml = readSystemFile(directory + '/' + name, DesktopApplications::maxFileBytes);
        const auto metainfo = xml ? parseAppstreamMetainfo(*xml) : std::nullopt;
        if (!metainfo || metainfo->version.empty()) continue;
        for (const auto& identifier : metainfo->applications) versions.try_emplace(identifier, metainfo->version);
    }
}

void appendList(std::vector<std::string>& directories, std::string_view list) {
    for (const auto range : std::views::split(list, ':')) {
        std::string_view directory(range.begin(), range.end());
        while (directory.size() > 1 && directory.ends_with('/')) directory.remove_suffix(1);
        if (directory.starts_with('/') && std::ranges::find(directories, directory) == directories.end())
            directories.emplace_back(directory);
    }
}

std::string_view variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

}  // namespace

std::vector<std::string> DesktopApplications::dataDirectoriesOfProcess() {
    std::vector<std::string> directories;
    if (const auto home = variable("XDG_DATA_HOME"); home.starts_with('/')) {
        directories.emplace_back(home);
    } else if (const auto userHome = variable("HOME"); userHome.starts_with('/')) {
        directories.push_back(std::string(userHome) + "/.local/share");
    }
    const auto listed = variable("XDG_DATA_DIRS");
    appendList(directories, listed.empty() ? "/usr/local/share:/usr/share" : listed);
    return directories;
}

std::vector<InstalledApplication> DesktopApplications::applications() const {
    std::map<std::string, std::string> versions;
    for (const auto& data : _dataDirectories)
        for (const auto* kind : {"/metainfo", "/appdata"}) collectVersions(versions, data + kind);

    std::vector<InstalledApplication> found;
    std::set<std::string> seen;
    for (const auto& data : _dataDirectories) {
        const auto directory = data + "/applications";
        for (const auto& name : filesBelow(directory, entryExtension, maxDepth)) {
            const auto identifier = desktopFileID(name);
            if (!seen.insert(identifier).second) continue;
            const auto entry = readSystemFile(directory + '/' + name, maxFileBytes);
            if (!entry || !isApplication(*entry)) continue;
            const auto version = versions.find(identifier);
            found.push_back({identifier, version == versions.end() ? std::string() : version->second});
        }
    }
    return found;
}

void DesktopApplications::setChangeHandler(std::function<void()> handler) {
    for (const auto& data : _dataDirectories)
        for (const auto* kind : {"/applications", "/metainfo", "/appdata"})
            _watches.push_back(_watcher.watch(data + kind, "", handler));
}

}  // namespace orvex::platform
