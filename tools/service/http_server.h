#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/result.h"
#include "platform/url.h"

namespace orvex {

/// A request as it came. Header names compare without case.
struct ServerRequest {
    std::string method;
    std::string path;                          ///< as written, without the query
    std::string rawQuery;                      ///< as written
    std::vector<platform::QueryItem> items;    ///< in the order of the query
    std::vector<platform::QueryItem> headers;  ///< by name; those of one name in their order
    std::string body;                          ///< not decoded, whatever its Content-Encoding
    bool isSecure = false;

    [[nodiscard]] std::optional<std::string_view> item(std::string_view name) const;
    [[nodiscard]] std::optional<std::string_view> header(std::string_view name) const;
};

/// What happens to an answer on its way out, instead of arriving whole and at once.
struct WireFault {
    std::chrono::milliseconds holdFor{0};  ///< silence before it; over at once when the peer leaves
    bool reset = false;                    ///< after the silence, a reset instead of the answer
    std::optional<std::size_t> bodyBytes;  ///< only so many of the body's bytes, although Content-Length promises all
};

struct ServerAnswer {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string contentType = "application/json";
    std::string body;
    WireFault fault;
};

/// An HTTP/1.1 server on 127.0.0.1, with TLS when it is given a certificate: one thread a connection, connections kept
/// alive, at most `Options::maxConnections` of them (further ones are closed at once).
///
/// Limits: 8 KiB for the request line's target and for one header (414, 400), 128 KiB for line and headers together,
/// `Options::maxBodyBytes` (413).
/// Threading: `answer` and `cut` are called on the connections' threads, many at a time. `stop` may be called from any
/// thread.
class HTTPServer {
public:
    struct Options {
        std::uint16_t port = 0;   ///< 0: any
        std::string certificate;  ///< a PEM file, the chain after it; empty: plain HTTP
        std::string key;
        std::size_t maxConnections = 512;
        std::size_t maxBodyBytes = 64u << 20;
        std::chrono::seconds keepAlive{300};
    };
    using AnswerFor = std::function<ServerAnswer(const ServerRequest&)>;
    /// Asked once the head of a POST has been read: after how many bytes of its body the connection is reset, if so.
    using CutFor = std::function<std::optional<std::size_t>(const ServerRequest& head)>;

    /// Listens from here on; connections wait until `run`.
    static platform::Result<std::unique_ptr<HTTPServer>> listen(const Options& options, AnswerFor answer, CutFor cut);
    ~HTTPServer();  ///< `run` has returned

    [[nodiscard]] std::uint16_t port() const;
    [[nodiscard]] std::uint64_t connectionsAccepted() const;

    void run();   ///< serves until `stop`; then every connection is closed and its thread has ended
    void stop();  ///< callable more than once, before `run` too

private:
    class Implementation;
    explicit HTTPServer(std::unique_ptr<Implementation> implementation);

    const std::unique_ptr<Implementation> _implementation;
};

}  // namespace orvex
