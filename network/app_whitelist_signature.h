#pragma once

#include <optional>
#include <string>

namespace orvex {

/// The role of the one who knows which of the server's whitelisted applications are installed, as its peers see it.
class AppWhitelistSignature {
public:
    virtual ~AppWhitelistSignature() = default;

    /// The last one made, base64; none before the first. From any thread, without waiting.
    [[nodiscard]] virtual std::optional<std::string> whitelistSignature() const = 0;
};

}  // namespace orvex
