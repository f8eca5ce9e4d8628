#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/installed_dictionaries.h"
#include "platform/linux/file_watcher.h"

namespace orvex::platform {

/// Dictionaries as packages install them: hunspell's, `LANGUAGE_REGION.dic`, and dictd's indexes, of which those that
/// name their languages count, `NAME-LANGUAGE-LANGUAGE.index` with ISO 639 codes of two or three letters: the first is
/// what is looked up.
///
/// Threading: callable from any thread; the handler comes on the watcher's.
class DictionaryDirectories final : public InstalledDictionaries {
public:
    struct Directories {
        std::string hunspell = "/usr/share/hunspell";
        std::string dictd = "/usr/share/dictd";
    };

    DictionaryDirectories(FileWatcher& watcher, Directories directories)
        : _watcher(watcher),
          _directories(std::move(directories)) {}

    [[nodiscard]] std::vector<std::string> languages() const override;
    void setChangeHandler(std::function<void()> handler) override;

private:
    // Constant after construction.
    FileWatcher& _watcher;
    const Directories _directories;

    std::vector<std::unique_ptr<FileWatcher::Watch>> _watches;  ///< once there is a handler
};

}  // namespace orvex::platform
