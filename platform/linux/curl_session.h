#pragma once

#include <memory>

#include "platform/http_session.h"

namespace orvex::platform {

/// Sessions on libcurl, each with a transfer thread and a delivery thread that start with its first task
/// (curl_multi_thread.h) and connections of its own. Every `cacheMemoryCapacity` is accepted; the sessions cache
/// nothing, and `purgeMemoryCache` is false.
///
/// A session takes proxies from the environment as libcurl does, but never for a loopback host.
class CurlSessionFactory final : public URLSessionFactory {
public:
    std::shared_ptr<URLSession> makeSession(URLSessionConfiguration configuration) override;
};

}  // namespace orvex::platform
