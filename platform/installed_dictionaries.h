#pragma once

#include <functional>
#include <string>
#include <vector>

namespace orvex::platform {

/// The dictionaries on the device.
///
/// Threading: callable from any thread.
class InstalledDictionaries {
public:
    virtual ~InstalledDictionaries() = default;

    /// ISO 639 codes, sorted, each once. Reads directories.
    [[nodiscard]] virtual std::vector<std::string> languages() const = 0;

    /// Once. The handler comes on a thread that must not be held up, after every change, one too many now and then.
    virtual void setChangeHandler(std::function<void()> handler) = 0;
};

}  // namespace orvex::platform
