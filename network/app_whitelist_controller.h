#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "network/app_whitelist_signature.h"
#include "platform/dispatch.h"
#include "platform/thread_annotations.h"

namespace orvex {

class Assembly;

/// Makes the signature of the installed whitelisted applications: at start when none is stored, when a new whitelist
/// was downloaded, and 60 s after applications came or went, so that a burst of changes makes one. One generation runs
/// at a time; what asks for one meanwhile gets that one.
///
/// Threading: callable from any thread. Generations run on the pool at background priority.
/// Durability: the last signature is in the user defaults, under "ORXAppWhitelistSignature"; when the whitelist or the
/// applications give none it is removed there.
class AppWhitelistController final : public AppWhitelistSignature,
                                     public std::enable_shared_from_this<AppWhitelistController> {
public:
    static constexpr std::chrono::seconds changeDelay{60};

    static std::shared_ptr<AppWhitelistController> create(Assembly& assembly);
    ~AppWhitelistController() override;

    [[nodiscard]] std::optional<std::string> whitelistSignature() const override;

private:
    explicit AppWhitelistController(Assembly& assembly);

    void _applicationsChanged();
    void _generateSoon();
    void _generateWhitelistSignature();
    [[nodiscard]] std::optional<std::string> _generate() const;

    // Constant after construction.
    Assembly& _assembly;

    // Synchronised by themselves.
    const platform::GlobalQueue _backgroundQueue;
    platform::Timer _timer;
    std::atomic<bool> _generating = false;
    mutable platform::Mutex _mutex;
    std::optional<std::string> _whitelistSignature ORX_GUARDED_BY(_mutex);
};

}  // namespace orvex
