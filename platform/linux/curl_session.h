#pragma once

#include <memory>

#include "platform/http_session.h"

namespace orvex::platform {

/// Sessions on libcurl, each with a transfer thread and a delivery thread that start when a task needs them
/// (curl_multi_thread.h), and with connections and a cache (url_cache.h) of its own. The cache is read on the thread
/// that resumes a task and written on the transfer thread; its answers complete on the delivery thread, as all do.
///
/// A session takes proxies from the environment as libcurl does, but never for a loopback host.
class CurlSessionFactory final : public URLSessionFactory {
public:
    std::shared_ptr<URLSession> makeSession(URLSessionConfiguration configuration) override;
};

}  // namespace orvex::platform
