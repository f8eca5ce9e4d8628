#include "platform/linux/curl_transfer.h"

#include <fmt/core.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <limits>

// Each hop sets a handle up that is new or reset. That costs a few microseconds and leaves no option behind that the
// next request did not ask for.

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;

constexpr auto connectTimeout = 20s;
constexpr auto lowSpeedTime = 60s;  // a request that may take longer ends when nothing has come for this long
constexpr std::size_t largestReserve = 1u << 20;  // of what an answer claims its length to be

CURLcode clearNoTicket(CURL*, void* context, void*) {
    SSL_CTX_clear_options(static_cast<SSL_CTX*>(context), SSL_OP_NO_TICKET);
    return CURLE_OK;
}

TransportError::Code errorCode(CURLcode code) {
    switch (code) {
        case CURLE_OPERATION_TIMEDOUT:
            return TransportError::timedOut;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return TransportError::cannotFindHost;
        case CURLE_COULDNT_CONNECT:
        case CURLE_PROXY:
            return TransportError::cannotConnect;
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
        case CURLE_WRITE_ERROR:
            return TransportError::connectionLost;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_ENGINE_NOTFOUND:
        case CURLE_SSL_ENGINE_SETFAILED:
        case CURLE_SSL_ENGINE_INITFAILED:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_USE_SSL_FAILED:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_CRL_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_INVALIDCERTSTATUS:
        case CURLE_SSL_CLIENTCERT:
            return TransportError::secureConnectionFailed;
        default:
            return TransportError::other;
    }
}

bool isRedirect(long status) {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

std::string_view asText(const char* bytes, std::size_t size) { return {bytes, size}; }

}  // namespace

CurlTransfer::CurlTransfer(std::shared_ptr<CurlTask> task, CurlEasyHandle handle,
                           const URLSessionConfiguration& session, CURLSH* tlsSessions)
    : _task(std::move(task)),
      _session(session),
      _settings(_task->settings()),
      _tlsSessions(tlsSessions),
      _handle(std::move(handle)),
      _method(_task->originalRequest().method) {}

CurlTransfer::~CurlTransfer() = default;

std::optional<CurlOutcome> CurlTransfer::begin() {
    const URLRequest& request = _task->originalRequest();
    auto url = parseAcceptableURL(request.url);
    if (!url) return _failed(TransportError::other, url.error().text);
    if (auto reason = unsendablePart(request)) return _failed(TransportError::other, *reason);
    if (_settings.proxyURL) {
        const auto proxy = parseAcceptableURL(*_settings.proxyURL);
        if (!proxy) return _failed(TransportError::other, "the proxy: " + proxy.error().text);
    }
    _url = *std::move(url);
    return _prepare();
}

std::optional<CurlOutcome> CurlTransfer::next(CURLcode code) {
    _measure();
    if (code != CURLE_OK) {
        const TransportError error = _transportError(code);
        return _failed(error.code, error.reason);
    }
    long status = 0;
    curl_easy_getinfo(_handle.get(), CURLINFO_RESPONSE_CODE, &status);
    curl_header* location = nullptr;
    if (isRedirect(status) &&
        curl_easy_header(_handle.get(), "Location", 0, CURLH_HEADER, -1, &location) == CURLHE_OK) {
        auto ended = _follow(location->value);
        if (ended) return ended;
        _rewriteMethod(status);
        curl_easy_reset(_handle.get());
        return _prepare();
    }
    Body data = _body->empty() ? nullptr : std::move(_body);
    return CurlOutcome{.data = std::move(data), .response = _response(), .timing = _timing};
}

CurlEasyHandle CurlTransfer::releaseHandle() {
    curl_easy_reset(_handle.get());
    return std::move(_handle);
}

std::optional<CurlOutcome> CurlTransfer::_prepare() {
    if (_remaining() <= 0ms) return _failed(TransportError::timedOut, "the request's time is over");
    _body->clear();
    _bodyBytes = 0;
    _headerBytes = 0;
    _answered = false;
    _errorText[0] = '\0';
    if (const CURLcode code = _setUp(); code != CURLE_OK)
        return _failed(TransportError::other, curl_easy_strerror(code));
    return std::nullopt;
}

std::optional<CurlOutcome> CurlTransfer::_follow(const std::string& location) {
    if (++_redirects > maxRedirects)
        return _failed(TransportError::other, fmt::format("more than {} redirects", maxRedirects));
    auto target = resolveRedirect(_url, location);
    if (!target) return _failed(TransportError::other, "the redirect: " + target.error().text);
    // What was left out once stays out: the other host could send us back with an address of its own making.
    if (target->host != _url.host) _sendsHeaders = false;
    _url = *std::move(target);
    return std::nullopt;
}

void CurlTransfer::_rewriteMethod(long status) {
    const bool becomesGet = (status == 303 && _method != "HEAD") || (status <= 302 && _method == "POST");
    if (!becomesGet) return;
    _method = "GET";
    _sendsBody = false;
}

CurlOutcome CurlTransfer::_failed(TransportError::Code code, std::string reason) {
    CurlOutcome outcome{.error = TransportError{code, std::move(reason)}, .timing = _timing};
    if (_answered) outcome.response = _response();
    return outcome;
}

TransportError CurlTransfer::_transportError(CURLcode code) const {
    if (!_limitExceeded.empty()) return {TransportError::connectionLost, _limitExceeded};
    const std::string text = _errorText.data();
    return {errorCode(code), text.empty() ? curl_easy_strerror(code) : text};
}

URLResponse CurlTransfer::_response() const {
    URLResponse response{.url = _url.absoluteString()};
    long status = 0;
    curl_easy_getinfo(_handle.get(), CURLINFO_RESPONSE_CODE, &status);
    response.statusCode = status;
    curl_header* header = nullptr;
    while ((header = curl_easy_nextheader(_handle.get(), CURLH_HEADER, -1, header)))
        response.headers.emplace_back(header->name, header->value);
    return response;
}

std::chrono::milliseconds CurlTransfer::_remaining() const {
    const std::chrono::nanoseconds whole = _task->originalRequest().timeout.value_or(defaultTimeout);
    // In doubles, so that no wish of a caller overflows.
    const std::chrono::duration<double, std::milli> left =
        std::chrono::duration<double, std::nano>(whole) - (std::chrono::steady_clock::now() - _settings.resumed);
    return std::chrono::ceil<std::chrono::milliseconds>(
        std::min(left, std::chrono::duration<double, std::milli>(std::numeric_limits<int>::max())));
}

void CurlTransfer::_measure() {
    const double before = _timing.total;  // the hops before this one
    const auto seconds = [this](CURLINFO what) {
        curl_off_t microseconds = 0;
        curl_easy_getinfo(_handle.get(), what, &microseconds);
        return static_cast<double>(microseconds) / 1e6;
    };
    const double tls = seconds(CURLINFO_APPCONNECT_TIME_T);
    _timing.nameLookup = before + seconds(CURLINFO_NAMELOOKUP_TIME_T);
    _timing.connect = before + seconds(CURLINFO_CONNECT_TIME_T);
    _timing.tls = tls > 0 ? before + tls : 0;
    _timing.firstByte = before + seconds(CURLINFO_STARTTRANSFER_TIME_T);
    _timing.total = before + seconds(CURLINFO_TOTAL_TIME_T);
    long connections = 0;
    curl_easy_getinfo(_handle.get(), CURLINFO_NUM_CONNECTS, &connections);
    _timing.connections += connections;
}

template <class Value>
void CurlTransfer::_set(CURLoption option, Value value) {
    const CURLcode code = curl_easy_setopt(_handle.get(), option, value);
    if (_setUpResult == CURLE_OK) _setUpResult = code;
}

CURLcode CurlTransfer::_setUp() {
    _setUpResult = CURLE_OK;
    _set(CURLOPT_URL, _url.absoluteString().c_str());
    _set(CURLOPT_PRIVATE, this);
    _set(CURLOPT_PROTOCOLS_STR, "http,https");
    _set(CURLOPT_PATH_AS_IS, 1L);
    _set(CURLOPT_DISALLOW_USERNAME_IN_URL, 1L);
    _set(CURLOPT_FOLLOWLOCATION, 0L);
    _set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_2TLS});
    _set(CURLOPT_ACCEPT_ENCODING, "gzip, deflate");
    _set(CURLOPT_NOSIGNAL, 1L);
    _set(CURLOPT_QUICK_EXIT, 1L);
    _set(CURLOPT_TIMEOUT_MS, static_cast<long>(_remaining().count()));
    _set(CURLOPT_CONNECTTIMEOUT, static_cast<long>(connectTimeout.count()));
    _set(CURLOPT_LOW_SPEED_LIMIT, 1L);
    _set(CURLOPT_LOW_SPEED_TIME, static_cast<long>(lowSpeedTime.count()));
    _set(CURLOPT_ERRORBUFFER, _errorText.data());
    _set(CURLOPT_HEADERFUNCTION, &CurlTransfer::_onHeader);
    _set(CURLOPT_HEADERDATA, this);
    _set(CURLOPT_WRITEFUNCTION, &CurlTransfer::_onBody);
    _set(CURLOPT_WRITEDATA, this);
    _setMethod();
    _setHeaders();
    _setTrust();
    _setProxy();
    return _setUpResult;
}

void CurlTransfer::_setMethod() {
    const std::string& body = _task->originalRequest().body;
    const bool withBody = _sendsBody && !body.empty();
    if (withBody || _method == "POST" || _method == "PUT") {
        _set(CURLOPT_POST, 1L);
        _set(CURLOPT_POSTFIELDS, withBody ? body.data() : "");
        _set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(withBody ? body.size() : 0));
        if (_method != "POST") _set(CURLOPT_CUSTOMREQUEST, _method.c_str());
    } else if (_method == "HEAD") {
        _set(CURLOPT_NOBODY, 1L);
    } else if (_method != "GET") {
        _set(CURLOPT_CUSTOMREQUEST, _method.c_str());
    }
}

void CurlTransfer::_setHeaders() {
    _headerList.reset();
    const auto append = [this](const std::string& line) {
        curl_slist* grown = curl_slist_append(_headerList.get(), line.c_str());
        if (!grown) {
            _setUpResult = CURLE_OUT_OF_MEMORY;
            return;
        }
        static_cast<void>(_headerList.release());
        _headerList.reset(grown);
    };
    const HTTPHeaders& headers = _task->originalRequest().headers;
    if (_sendsHeaders) {
        for (const auto& [name, value] : headers) {
            // "Name:" would take the header away; "Name;" sends it empty.
            const bool blank = value.find_first_not_of(' ') == std::string::npos;
            append(blank ? name + ";" : name + ": " + value);
        }
    }
    if (!_sendsHeaders || !headerValue(headers, "Content-Type")) append("Content-Type:");
    append("Expect:");  // no round trip before a body
    _set(CURLOPT_HTTPHEADER, _headerList.get());
}

void CurlTransfer::_setTrust() {
    // One of the two, never both: a directory beside a file makes each new connection read all of it.
    static const curl_version_info_data* const version = curl_version_info(CURLVERSION_NOW);
    const bool own = !_session.certificateAuthorityFile.empty();
    const char* directory = own ? nullptr : version->capath;
    const char* file = own ? _session.certificateAuthorityFile.c_str() : (directory ? nullptr : version->cainfo);
    _set(CURLOPT_CAINFO, file);
    _set(CURLOPT_CAPATH, directory);
    _set(CURLOPT_PROXY_CAINFO, file);
    _set(CURLOPT_PROXY_CAPATH, directory);
    _set(CURLOPT_SSL_SESSIONID_CACHE, _tlsSessions ? 1L : 0L);
    if (_tlsSessions) {
        _set(CURLOPT_SHARE, _tlsSessions);
        _set(CURLOPT_SSL_CTX_FUNCTION, &clearNoTicket);
    }
    if (_session.allowsFastOpen) _set(CURLOPT_TCP_FASTOPEN, 1L);
}

void CurlTransfer::_setProxy() {
    if (_settings.proxyURL) {
        _set(CURLOPT_PROXY, _settings.proxyURL->c_str());
        _set(CURLOPT_NOPROXY, "");
        _set(CURLOPT_HTTPPROXYTUNNEL, 1L);
        _set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    } else if (isLoopbackHost(_url.host)) {
        _set(CURLOPT_NOPROXY, "*");
    }
}

std::size_t CurlTransfer::_onHeader(char* bytes, std::size_t size, std::size_t count, void* self) {
    auto& transfer = *static_cast<CurlTransfer*>(self);
    const std::size_t length = size * count;
    transfer._headerBytes += length;
    if (transfer._headerBytes > maxHeaderBytes) {
        transfer._limitExceeded = fmt::format("headers of more than {} bytes", maxHeaderBytes);
        return 0;
    }
    const std::string_view line = asText(bytes, length);
    if (line != "\r\n" && line != "\n") return length;

    long status = 0;
    curl_easy_getinfo(transfer._handle.get(), CURLINFO_RESPONSE_CODE, &status);
    transfer._answered = status >= 200;
    curl_off_t claimed = 0;
    curl_easy_getinfo(transfer._handle.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &claimed);
    if (claimed > 0 && !transfer._settings.preconnect)
        transfer._body->reserve(std::min(static_cast<std::size_t>(claimed), largestReserve));
    return length;
}

std::size_t CurlTransfer::_onBody(char* bytes, std::size_t size, std::size_t count, void* self) {
    auto& transfer = *static_cast<CurlTransfer*>(self);
    const std::size_t length = size * count;
    transfer._bodyBytes += length;
    if (transfer._bodyBytes > transfer._session.maxBodyBytes) {
        transfer._limitExceeded = fmt::format("a body of more than {} bytes", transfer._session.maxBodyBytes);
        return CURL_WRITEFUNC_ERROR;
    }
    if (!transfer._settings.preconnect) transfer._body->append(bytes, length);
    return length;
}

}  // namespace orvex::platform
