#pragma once

#include <string>

namespace orvex {

/// The role of the owner of the user GUID: the anonymous identifier of one stretch of use.
/// Threading: callable from any thread.
class GUIDController {
public:
    virtual ~GUIDController() = default;
    /// Upper-case UUID text. Rolls first when it has expired.
    [[nodiscard]] virtual std::string currentUserGUID() = 0;
    virtual void reset() = 0;
};

}  // namespace orvex
