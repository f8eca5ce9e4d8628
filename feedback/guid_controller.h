#pragma once

#include <memory>
#include <string>

namespace orvex {

class Assembly;

/// The role of the owner of the user GUID: the anonymous identifier of one stretch of use.
/// Threading: callable from any thread.
class GUIDController {
public:
    virtual ~GUIDController() = default;
    /// Upper-case UUID text. Rolls first when it has expired.
    [[nodiscard]] virtual std::string currentUserGUID() = 0;
    virtual void reset() = 0;
};

/// A controller of one's own, for a client that does not share the assembly's.
std::shared_ptr<GUIDController> makeUserGUIDController(Assembly& assembly);

}  // namespace orvex
