#include "platform/linux/curl_handle_pool.h"

#include <openssl/ssl.h>

#include <chrono>
#include <new>

#include "platform/http_session.h"

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t maxIdleHandles = 8;
constexpr std::chrono::seconds connectTimeout = 20s;
constexpr std::chrono::seconds lowSpeedTime = 60s;  // a request that may take longer ends when nothing came for so long

CURLcode clearNoTicket(CURL*, void* context, void*) {
    SSL_CTX_clear_options(static_cast<SSL_CTX*>(context), SSL_OP_NO_TICKET);
    return CURLE_OK;
}

/// Sets options until one fails.
class Setter {
public:
    explicit Setter(CURL* handle) : _handle(handle) {}

    template <class Value>
    Setter& set(CURLoption option, Value value) {
        if (_result == CURLE_OK) _result = curl_easy_setopt(_handle, option, value);
        return *this;
    }
    [[nodiscard]] CURLcode result() const { return _result; }

private:
    CURL* const _handle;
    CURLcode _result = CURLE_OK;
};

}  // namespace

CurlHandlePool::CurlHandlePool(const URLSessionConfiguration& session) : _session(session) {
    if (!session.allowsFastOpen) return;
    _tlsSessions.reset(curl_share_init());
    if (!_tlsSessions) throw std::bad_alloc();
    curl_share_setopt(_tlsSessions.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
}

CurlEasyHandle CurlHandlePool::take() {
    if (_idle.empty()) return _make();
    CurlEasyHandle handle = std::move(_idle.back());
    _idle.pop_back();
    return handle;
}

void CurlHandlePool::giveBack(CurlEasyHandle handle) {
    if (_idle.size() < maxIdleHandles) _idle.push_back(std::move(handle));
}

CurlEasyHandle CurlHandlePool::_make() const {
    CurlEasyHandle handle(curl_easy_init());
    if (!handle) throw std::bad_alloc();
    const CURLcode common = Setter(handle.get())
                                .set(CURLOPT_PROTOCOLS_STR, "http,https")
                                .set(CURLOPT_FOLLOWLOCATION, 0L)
                                .set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_2TLS})
                                .set(CURLOPT_ACCEPT_ENCODING, "gzip, deflate")
                                .set(CURLOPT_NOSIGNAL, 1L)
                                .set(CURLOPT_QUICK_EXIT, 1L)
                                .set(CURLOPT_CONNECTTIMEOUT, static_cast<long>(connectTimeout.count()))
                                .set(CURLOPT_LOW_SPEED_LIMIT, 1L)
                                .set(CURLOPT_LOW_SPEED_TIME, static_cast<long>(lowSpeedTime.count()))
                                .result();
    if (common != CURLE_OK || _setTrust(handle.get()) != CURLE_OK) throw std::bad_alloc();
    return handle;
}

CURLcode CurlHandlePool::_setTrust(CURL* handle) const {
    // One of the two, never both: a directory beside a file makes each new connection read all of it.
    static const curl_version_info_data* const version = curl_version_info(CURLVERSION_NOW);
    const bool own = !_session.certificateAuthorityFile.empty();
    const char* directory = own ? nullptr : version->capath;
    const char* file = own ? _session.certificateAuthorityFile.c_str() : (directory ? nullptr : version->cainfo);
    Setter setter(handle);
    setter.set(CURLOPT_CAINFO, file)
        .set(CURLOPT_CAPATH, directory)
        .set(CURLOPT_PROXY_CAINFO, file)
        .set(CURLOPT_PROXY_CAPATH, directory)
        .set(CURLOPT_SSL_SESSIONID_CACHE, _tlsSessions ? 1L : 0L);
    if (_tlsSessions) setter.set(CURLOPT_SHARE, _tlsSessions.get()).set(CURLOPT_SSL_CTX_FUNCTION, &clearNoTicket);
    if (_session.allowsFastOpen) setter.set(CURLOPT_TCP_FASTOPEN, 1L);
    return setter.result();
}

}  // namespace orvex::platform
