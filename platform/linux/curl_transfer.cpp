#include "platform/linux/curl_transfer.h"

#include <fmt/core.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

// Each hop sets every option on its handle that a plain request has and the pool has not set. A handle that was given
// more than those, a method or a proxy, is not given back, so no option is left behind for another request.

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t largestReserve = 1u << 20;  // of what an answer claims its length to be

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

bool keepsMethod(long status) { return status == 307 || status == 308; }

bool isRedirect(long status) { return (status >= 301 && status <= 303) || keepsMethod(status); }

std::string_view asText(const char* bytes, std::size_t size) { return {bytes, size}; }

}  // namespace

CurlTransfer::CurlTransfer(std::shared_ptr<CurlTask> task, CurlHandlePool& handles,
                           const URLSessionConfiguration& session, URLCache& cache)
    : _task(std::move(task)),
      _session(session),
      _settings(_task->settings()),
      _handles(handles),
      _cache(cache),
      _handle(_handles.take()),
      _method(_task->originalRequest().method) {}

CurlTransfer::~CurlTransfer() {
    if (!_isPlain) return;
    // libcurl keeps pointers to what ends here.
    _set(CURLOPT_CURLU, static_cast<CURLU*>(nullptr));
    _set(CURLOPT_ERRORBUFFER, static_cast<char*>(nullptr));
    _set(CURLOPT_HTTPHEADER, static_cast<curl_slist*>(nullptr));
    _handles.giveBack(std::move(_handle));
}

std::optional<CurlOutcome> CurlTransfer::begin() {
    const URLRequest& request = _task->originalRequest();
    auto target = acceptURL(request.url);
    if (!target) return _refused(target.error().text);
    if (auto reason = unsendablePart(request)) return _refused(*reason);
    if (_settings.proxyURL) {
        const auto proxy = parseAcceptableURL(*_settings.proxyURL);
        if (!proxy) return _refused("the proxy: " + proxy.error().text);
    }
    _target = *std::move(target);
    return _prepare();
}

std::optional<CurlOutcome> CurlTransfer::next(CURLcode code) {
    _measure();
    if (code != CURLE_OK) return _failed(_transportError(code));
    long status = 0;
    curl_easy_getinfo(_handle.get(), CURLINFO_RESPONSE_CODE, &status);
    curl_header* location = nullptr;
    if (_follows(status) && curl_easy_header(_handle.get(), "Location", 0, CURLH_HEADER, -1, &location) == CURLHE_OK) {
        auto ended = _follow(location->value);
        if (ended) return ended;
        _rewriteMethod(status);
        _handle = _handles.take();
        _isPlain = true;
        return _prepare();
    }
    return _answer();
}

std::optional<CurlOutcome> CurlTransfer::_prepare() {
    if (_remaining() <= 0ms) return _failed({TransportError::timedOut, "the request's time is over"});
    _body->clear();
    _bodyBytes = 0;
    _fileBytesRead = 0;
    if (_settings.files && _settings.files->answer.valid() && ::ftruncate(_settings.files->answer.get(), 0) != 0)
        return _failed({TransportError::other, "cannot empty the file of the answer"});
    _headerBytes = 0;
    _answered = false;
    _errorText[0] = '\0';
    if (const CURLcode code = _setUp(); code != CURLE_OK)
        return _failed({TransportError::other, curl_easy_strerror(code)});
    return std::nullopt;
}

bool CurlTransfer::_follows(long status) const { return _sendsFile() ? keepsMethod(status) : isRedirect(status); }

std::optional<CurlOutcome> CurlTransfer::_follow(const std::string& location) {
    if (++_redirects > maxRedirects) return _refused(fmt::format("more than {} redirects", maxRedirects));
    auto target = acceptRedirect(_target.url, location);
    if (!target) return _refused("the redirect: " + target.error().text);
    // What was left out once stays out: the other host could send us back with an address of its own making.
    if (target->url.host != _target.url.host) _sendsHeaders = false;
    _target = *std::move(target);
    return std::nullopt;
}

void CurlTransfer::_rewriteMethod(long status) {
    const bool becomesGet = (status == 303 && _method != "HEAD") || (status <= 302 && _method == "POST");
    if (!becomesGet) return;
    _method = "GET";
    _sendsBody = false;
}

CurlOutcome CurlTransfer::_answer() {
    HTTPAnswer answer{_response(), _body->empty() ? nullptr : std::move(_body)};
    if (!_settings.passesCache()) {
        answer = _cache.accept({.request = _task->originalRequest(),
                                .validated = _settings.validates,
                                .wasRedirected = _redirects > 0,
                                .requested = MonotonicTime(_settings.resumed.time_since_epoch()),
                                .arrived = cacheNow()},
                               std::move(answer));
    }
    return {.data = std::move(answer.body), .response = std::move(answer.response), .timing = _timing};
}

CurlOutcome CurlTransfer::_failed(TransportError error) {
    CurlOutcome outcome{.error = std::move(error), .timing = _timing};
    if (_answered) outcome.response = _response();
    return outcome;
}

CurlOutcome CurlTransfer::_refused(std::string reason) {
    return _failed({.code = TransportError::other, .reason = std::move(reason), .isPermanent = true});
}

TransportError CurlTransfer::_transportError(CURLcode code) const {
    if (_ownEnd) return *_ownEnd;
    const std::string text = _errorText.data();
    return {errorCode(code), text.empty() ? curl_easy_strerror(code) : text};
}

URLResponse CurlTransfer::_response() const {
    URLResponse response{.url = _target.url.absoluteString()};
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
    _set(CURLOPT_CURLU, _target.handle.get());
    _set(CURLOPT_PRIVATE, this);
    _set(CURLOPT_TIMEOUT_MS, static_cast<long>(_remaining().count()));
    _set(CURLOPT_ERRORBUFFER, _errorText.data());
    _set(CURLOPT_HEADERFUNCTION, &CurlTransfer::_onHeader);
    _set(CURLOPT_HEADERDATA, this);
    _set(CURLOPT_WRITEFUNCTION, &CurlTransfer::_onBody);
    _set(CURLOPT_WRITEDATA, this);
    _setMethod();
    _setFiles();
    _setHeaders();
    _setProxy();
    return _setUpResult;
}

void CurlTransfer::_setMethod() {
    if (_sendsFile()) return;
    const std::string& body = _task->originalRequest().body;
    const bool withBody = _sendsBody && !body.empty();
    if (_method != "GET" || withBody) _isPlain = false;
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

void CurlTransfer::_setFiles() {
    if (!_settings.files) return;
    _isPlain = false;
    _set(CURLOPT_LOW_SPEED_TIME, static_cast<long>(_settings.files->longestSilence.count()));
    if (_settings.files->progress) {
        _set(CURLOPT_NOPROGRESS, 0L);
        _set(CURLOPT_XFERINFOFUNCTION, &CurlTransfer::_onProgress);
        _set(CURLOPT_XFERINFODATA, this);
    }
    if (!_sendsFile()) return;
    _set(CURLOPT_POST, 1L);
    if (_method != "POST") _set(CURLOPT_CUSTOMREQUEST, _method.c_str());
    _set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(_settings.files->bodyBytes));
    _set(CURLOPT_READFUNCTION, &CurlTransfer::_onRead);
    _set(CURLOPT_READDATA, this);
    _set(CURLOPT_SEEKFUNCTION, &CurlTransfer::_onSeek);
    _set(CURLOPT_SEEKDATA, this);
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
    if (_settings.validates && _redirects == 0)
        for (const auto& [name, value] : _settings.validates->conditions()) append(name + ": " + value);
    if (!_sendsHeaders || !headerValue(headers, "Content-Type")) append("Content-Type:");
    append("Expect:");  // no round trip before a body
    _set(CURLOPT_HTTPHEADER, _headerList.get());
}

void CurlTransfer::_setProxy() {
    if (_settings.proxyURL) {
        _isPlain = false;
        _set(CURLOPT_PROXY, _settings.proxyURL->c_str());
        _set(CURLOPT_NOPROXY, "");
        _set(CURLOPT_HTTPPROXYTUNNEL, 1L);
        _set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    } else {
        _set(CURLOPT_NOPROXY, isLoopbackHost(_target.url.host) ? "*" : nullptr);
    }
}

std::size_t CurlTransfer::_onHeader(char* bytes, std::size_t size, std::size_t count, void* self) {
    auto& transfer = *static_cast<CurlTransfer*>(self);
    const std::size_t length = size * count;
    transfer._headerBytes += length;
    if (transfer._headerBytes > maxHeaderBytes) {
        transfer._ownEnd = TransportError{.code = TransportError::connectionLost,
                                          .reason = fmt::format("headers of more than {} bytes", maxHeaderBytes),
                                          .isPermanent = true};
        return 0;
    }
    const std::string_view line = asText(bytes, length);
    if (line != "\r\n" && line != "\n") return length;

    long status = 0;
    curl_easy_getinfo(transfer._handle.get(), CURLINFO_RESPONSE_CODE, &status);
    transfer._answered = status >= 200;
    curl_off_t claimed = 0;
    curl_easy_getinfo(transfer._handle.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &claimed);
    if (claimed > 0 && !transfer._settings.passesCache())
        transfer._body->reserve(std::min(static_cast<std::size_t>(claimed), largestReserve));
    return length;
}

std::size_t CurlTransfer::_onBody(char* bytes, std::size_t size, std::size_t count, void* self) {
    auto& transfer = *static_cast<CurlTransfer*>(self);
    const std::size_t length = size * count;
    transfer._bodyBytes += length;
    if (transfer._bodyBytes > transfer._session.maxBodyBytes) {
        transfer._ownEnd =
            TransportError{.code = TransportError::connectionLost,
                           .reason = fmt::format("a body of more than {} bytes", transfer._session.maxBodyBytes),
                           .isPermanent = true};
        return CURL_WRITEFUNC_ERROR;
    }
    if (!transfer._storeInFile(asText(bytes, length))) return CURL_WRITEFUNC_ERROR;
    if (!transfer._settings.passesCache()) transfer._body->append(bytes, length);
    return length;
}

bool CurlTransfer::_storeInFile(std::string_view bytes) {
    if (!_settings.files || !_settings.files->answer.valid()) return true;
    while (!bytes.empty()) {
        const ssize_t written = ::write(_settings.files->answer.get(), bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) {
            _ownEnd = TransportError{TransportError::other,
                                     fmt::format("cannot write the answer: {}", strerrordesc_np(errno))};
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

std::size_t CurlTransfer::_onRead(char* bytes, std::size_t size, std::size_t count, void* self) {
    auto& transfer = *static_cast<CurlTransfer*>(self);
    const FileTransfer& files = *transfer._settings.files;
    const std::uint64_t wanted = std::min<std::uint64_t>(size * count, files.bodyBytes - transfer._fileBytesRead);
    if (wanted == 0) return 0;
    const ssize_t read = ::pread(files.body.get(), bytes, wanted, static_cast<off_t>(transfer._fileBytesRead));
    if (read <= 0) {
        transfer._ownEnd = TransportError{TransportError::other, "the file of the body cannot be read to its end"};
        return CURL_READFUNC_ABORT;
    }
    transfer._fileBytesRead += static_cast<std::uint64_t>(read);
    return static_cast<std::size_t>(read);
}

int CurlTransfer::_onSeek(void* self, curl_off_t offset, int origin) {
    auto& transfer = *static_cast<CurlTransfer*>(self);
    if (origin != SEEK_SET || offset < 0) return CURL_SEEKFUNC_CANTSEEK;
    transfer._fileBytesRead = std::min(static_cast<std::uint64_t>(offset), transfer._settings.files->bodyBytes);
    return CURL_SEEKFUNC_OK;
}

int CurlTransfer::_onProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t sent) {
    const auto& transfer = *static_cast<CurlTransfer*>(self);
    transfer._settings.files->progress(static_cast<std::uint64_t>(sent), transfer._bodyBytes);
    return 0;
}

}  // namespace orvex::platform
