#pragma once

#include <curl/curl.h>

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "platform/linux/curl_handle_pool.h"
#include "platform/linux/curl_task.h"
#include "platform/linux/curl_url.h"

namespace orvex::platform {

/// One request under way: an easy handle set up for it, the answer as far as it has come, and the redirects, which are
/// followed here and not by libcurl. Between `begin`, and each `next` that says so, and the following `next`, the
/// handle is in the session's multi handle.
///
/// Threading: on the session's transfer thread only.
/// Limits: `maxRedirects`; headers of an answer `maxHeaderBytes`; its body the session's `maxBodyBytes`, decoded.
class CurlTransfer {
public:
    static constexpr int maxRedirects = 5;
    static constexpr std::size_t maxHeaderBytes = 256u << 10;
    static constexpr std::chrono::seconds defaultTimeout{60};

    /// Takes a handle of `handles`, which outlives it, and gives it back at its end.
    CurlTransfer(std::shared_ptr<CurlTask> task, CurlHandlePool& handles, const URLSessionConfiguration& session,
                 URLCache& cache);
    ~CurlTransfer();
    CurlTransfer(const CurlTransfer&) = delete;
    CurlTransfer& operator=(const CurlTransfer&) = delete;

    [[nodiscard]] CURL* handle() const { return _handle.get(); }
    [[nodiscard]] const std::shared_ptr<CurlTask>& task() const { return _task; }

    /// Checks the request and sets the handle up. An outcome: it is over before it began.
    std::optional<CurlOutcome> begin();

    /// libcurl ended with `code`. None: there is another handle, set up for the target of a redirect.
    std::optional<CurlOutcome> next(CURLcode code);

private:
    struct HeaderListFree {
        void operator()(curl_slist* list) const { curl_slist_free_all(list); }
    };

    CURLcode _setUp();
    void _setMethod();
    void _setFiles();
    void _setHeaders();
    void _setProxy();
    template <class Value>
    void _set(CURLoption option, Value value);

    std::optional<CurlOutcome> _prepare();
    std::optional<CurlOutcome> _follow(const std::string& location);
    void _rewriteMethod(long status);
    [[nodiscard]] CurlOutcome _answer();
    [[nodiscard]] CurlOutcome _failed(TransportError error);
    [[nodiscard]] CurlOutcome _refused(std::string reason);
    [[nodiscard]] bool _follows(long status) const;
    [[nodiscard]] bool _sendsFile() const { return _settings.files && _settings.files->body.valid(); }
    [[nodiscard]] bool _storeInFile(std::string_view bytes);
    [[nodiscard]] TransportError _transportError(CURLcode code) const;
    [[nodiscard]] URLResponse _response() const;
    [[nodiscard]] std::chrono::milliseconds _remaining() const;
    void _measure();

    static std::size_t _onHeader(char* bytes, std::size_t size, std::size_t count, void* self);
    static std::size_t _onBody(char* bytes, std::size_t size, std::size_t count, void* self);
    static std::size_t _onRead(char* bytes, std::size_t size, std::size_t count, void* self);
    static int _onSeek(void* self, curl_off_t offset, int origin);
    static int _onProgress(void* self, curl_off_t toReceive, curl_off_t received, curl_off_t toSend, curl_off_t sent);

    // Constant after construction.
    const std::shared_ptr<CurlTask> _task;
    const URLSessionConfiguration& _session;
    const CurlTask::Settings _settings;
    CurlHandlePool& _handles;
    URLCache& _cache;

    // On the transfer thread.
    CurlEasyHandle _handle;
    bool _isPlain = true;  ///< the handle has only such options as every request sets
    std::unique_ptr<curl_slist, HeaderListFree> _headerList;
    std::array<char, CURL_ERROR_SIZE> _errorText{};
    CURLcode _setUpResult = CURLE_OK;
    AcceptedURL _target;        ///< of this hop
    std::string _method;        ///< of this hop
    bool _sendsHeaders = true;  ///< false once a redirect left the host
    bool _sendsBody = true;
    int _redirects = 0;
    std::shared_ptr<std::string> _body = std::make_shared<std::string>();
    std::size_t _bodyBytes = 0;        ///< received; more than kept for a pre-connect
    std::uint64_t _fileBytesRead = 0;  ///< of the body that is a file
    std::size_t _headerBytes = 0;
    bool _answered = false;                 ///< the final answer's headers are complete
    std::optional<TransportError> _ownEnd;  ///< why we ended it ourselves
    CurlTiming _timing;
};

}  // namespace orvex::platform
