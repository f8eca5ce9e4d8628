#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "platform/result.h"

namespace orvex::platform {

inline constexpr std::size_t maxSettingsFileBytes = 1 << 20;

/// A small file in which others say something about the device or its user.
///
/// Threading: callable from any thread.
class SettingsFile {
public:
    virtual ~SettingsFile() = default;

    /// The whole of it: ENOENT when there is none, EFBIG beyond `maxSettingsFileBytes`, EPERM when it is not from one
    /// who may say so.
    [[nodiscard]] virtual Result<std::string> read() const = 0;

    /// Once. The handler comes on a thread that must not be held up, after every change, one too many now and then.
    virtual void setChangeHandler(std::function<void()> handler) = 0;
};

}  // namespace orvex::platform
