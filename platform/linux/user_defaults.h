#pragma once

#include <memory>

#include "platform/defaults_layers.h"
#include "platform/linux/file_manager.h"
#include "platform/linux/file_watcher.h"
#include "platform/thread_annotations.h"
#include "platform/user_defaults.h"

namespace orvex::platform {

/// User defaults kept in `defaults.plist` of the domain's configuration directory, an XML property list of mode 0600.
///
/// Writing: a writer, of whatever program, holds flock(2) on `defaults.plist.lock`, reads the file again, changes its
/// key and replaces the file whole, so that no change is lost. It waits at most three seconds for another one.
/// Reading: from memory. The file is read at construction, by each writer, and when the watcher tells of a change.
/// Failure: a file that is no property list with a dictionary is set aside as `defaults.plist.corrupt` and logged, and
/// nothing counts as stored. One that the system fails to read is logged and what was known before stays.
///
/// Threading: callable from any thread; a change by another is read on the watcher's thread.
class LinuxUserDefaults final : public UserDefaults {
public:
    LinuxUserDefaults(LinuxFileManager& files, FileWatcher& watcher, std::string domain = "com.kelvar.orvexd");

    void registerDefaults(PropertyDictionary values) override;
    void overrideForThisRun(std::string key, std::string text) override;
    [[nodiscard]] std::optional<PropertyValue> object(std::string_view key) const override;
    [[nodiscard]] std::optional<std::string> string(std::string_view key) const override;
    [[nodiscard]] Result<void> setObject(std::string_view key, PropertyValue value) override;
    [[nodiscard]] Result<void> removeObject(std::string_view key) override;

    /// What is stored, without what is registered or put over.
    [[nodiscard]] PropertyDictionary stored() const;

private:
    void _reload();
    /// Takes none for the value of a key that is to go.
    Result<void> _change(std::string_view key, std::optional<PropertyValue> value);
    std::uint64_t _generation() const;

    // Constant after construction.
    LinuxFileManager& _files;
    const std::string _domain;

    mutable Mutex _mutex;
    DefaultsLayers _layers ORX_GUARDED_BY(_mutex);
    std::uint64_t _installed ORX_GUARDED_BY(_mutex) = 0;  ///< counts the stored values that were put in place

    std::unique_ptr<FileWatcher::Watch> _watch;  ///< last: nothing is told once the rest is going
};

}  // namespace orvex::platform
