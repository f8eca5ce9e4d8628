#include <arpa/inet.h>
#include <libpsl.h>

#include "platform/text.h"
#include "platform/url.h"

namespace orvex::platform {
namespace {

bool isIPAddress(const std::string& host) {
    in_addr v4{};
    return host.starts_with('[') || inet_pton(AF_INET, host.c_str(), &v4) == 1;
}

/// The newer of the system's list and the library's own. Read on first use, kept as long as the process lives.
const psl_ctx_t* publicSuffixes() {
    static const psl_ctx_t* const list = psl_latest(nullptr);
    return list;
}

}  // namespace

std::optional<std::string> registrableDomain(std::string_view host) {
    if (host.ends_with('.')) host.remove_suffix(1);
    const auto name = lowercased(host);
    if (isIPAddress(name)) return std::nullopt;
    const char* domain = psl_registrable_domain(publicSuffixes(), name.c_str());
    return domain != nullptr ? std::optional<std::string>(domain) : std::nullopt;
}

}  // namespace orvex::platform
