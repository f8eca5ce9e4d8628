#include "network/network_service_proxy.h"

#include <boost/json.hpp>

#include "core/json.h"
#include "platform/http_session.h"
#include "platform/url.h"

namespace orvex {
namespace {

const boost::json::object* objectMember(const boost::json::object* object, std::string_view name) {
    const auto* member = object ? object->if_contains(name) : nullptr;
    return member ? member->if_object() : nullptr;
}

bool isEnabled(const boost::json::object& configuration) {
    const auto* enable = objectMember(objectMember(&configuration, "appRule"), "enable");
    const auto* flag = enable ? enable->if_contains("Enabled") : nullptr;
    return flag && flag->is_bool() && flag->get_bool();
}

}  // namespace

platform::Result<void> NetworkServiceProxy::configure(const boost::json::object& configuration) {
    const bool enabled = isEnabled(configuration);
    auto url = stringMember(configuration, "proxy_url").value_or("");
    const auto accepted = platform::parseAcceptableURL(url);
    if (!accepted) url.clear();

    const platform::MutexLock lock(_mutex);
    _enabled = enabled;
    _proxyURL = std::move(url);
    if (enabled && !accepted) return std::unexpected(accepted.error());
    return {};
}

bool NetworkServiceProxy::enabled() const {
    const platform::MutexLock lock(_mutex);
    return _enabled;
}

platform::Result<std::string> NetworkServiceProxy::enableForTask(platform::URLSessionTask& task) const {
    std::string url;
    {
        const platform::MutexLock lock(_mutex);
        url = _proxyURL;
    }
    if (url.empty()) return platform::failure(0, "no proxy is configured");
    task.setProxy(url);
    return url;
}

}  // namespace orvex
