#pragma once

#include <functional>
#include <string>
#include <vector>

namespace orvex::platform {

struct InstalledApplication {
    std::string identifier;  ///< "org.gnome.Maps"
    std::string version;     ///< empty: it tells none
};

/// The applications that the user has.
///
/// Threading: callable from any thread.
class InstalledApplications {
public:
    virtual ~InstalledApplications() = default;

    /// Each identifier once. Reads many small files: for a background queue.
    [[nodiscard]] virtual std::vector<InstalledApplication> applications() const = 0;

    /// Once. The handler comes on a thread that must not be held up, after every installation and removal, one too many
    /// now and then.
    virtual void setChangeHandler(std::function<void()> handler) = 0;
};

}  // namespace orvex::platform
