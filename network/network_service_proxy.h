#pragma once

#include <boost/json/fwd.hpp>
#include <string>

#include "platform/result.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {
class URLSessionTask;
}

namespace orvex {

/// The proxy through which queries go when the server's configuration asks for it (HTTPS over CONNECT).
///
/// Threading: callable from any thread.
class NetworkServiceProxy {
public:
    /// Takes over `{"appRule": {"enable": {"Enabled": b}}, "proxy_url": s}`. Fails when it is enabled without a proxy
    /// URL that the URL rule accepts (platform/url.h).
    platform::Result<void> configure(const boost::json::object& configuration);

    [[nodiscard]] bool enabled() const;

    /// Sends `task`, which is not resumed yet, through the proxy; returns the proxy's URL. Fails where there is none.
    platform::Result<std::string> enableForTask(platform::URLSessionTask& task) const;

private:
    mutable platform::Mutex _mutex;
    bool _enabled ORX_GUARDED_BY(_mutex) = false;
    std::string _proxyURL ORX_GUARDED_BY(_mutex);  ///< empty: none
};

}  // namespace orvex
