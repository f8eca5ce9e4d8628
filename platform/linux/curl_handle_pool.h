#pragma once

#include <curl/curl.h>

#include <memory>
#include <vector>

namespace orvex::platform {

struct URLSessionConfiguration;

struct CurlEasyCleanup {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
using CurlEasyHandle = std::unique_ptr<CURL, CurlEasyCleanup>;

/// Easy handles of one session, set to what all of its requests have in common: protocols, limits of time, trust. A few
/// are kept, since setting one up costs as much as a round trip to a near host.
///
/// Threading: on the session's transfer thread only.
class CurlHandlePool {
public:
    explicit CurlHandlePool(const URLSessionConfiguration& session);  ///< which outlives it
    CurlHandlePool(const CurlHandlePool&) = delete;
    CurlHandlePool& operator=(const CurlHandlePool&) = delete;

    /// Throws std::bad_alloc, for libcurl fails these options for want of memory only.
    CurlEasyHandle take();

    /// For the next `take`. Every option that was set on it since is set anew by each request.
    void giveBack(CurlEasyHandle handle);

private:
    struct ShareCleanup {
        void operator()(CURLSH* handle) const { curl_share_cleanup(handle); }
    };

    [[nodiscard]] CurlEasyHandle _make() const;
    [[nodiscard]] CURLcode _setTrust(CURL* handle) const;

    // Constant after construction.
    const URLSessionConfiguration& _session;
    std::unique_ptr<CURLSH, ShareCleanup> _tlsSessions;  ///< null: none are kept; outlives all handles

    // On the transfer thread.
    std::vector<CurlEasyHandle> _idle;
};

}  // namespace orvex::platform
