#pragma once

#include <httplib.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace orvex {

/// One accepted connection as the HTTP library reads and writes it, with or without TLS.
///
/// Output is gathered and leaves with `flush`, so that an answer is one segment. It is here that an answer can be held
/// up, cut short or replaced by a reset, since only here is the whole of it known. A request's line and headers may
/// have `maxHeadBytes`: the library itself would read an endless line for ever. Threading: its connection's thread,
/// `close` from any.
class HTTPConnection final : public httplib::Stream {
public:
    static constexpr std::size_t maxHeadBytes = 128u << 10;

    /// Takes `socket`, and speaks TLS when `tls` is given: then `handshake` comes first.
    HTTPConnection(int socket, SSL_CTX* tls);
    ~HTTPConnection() override;
    HTTPConnection(const HTTPConnection&) = delete;
    HTTPConnection& operator=(const HTTPConnection&) = delete;

    [[nodiscard]] bool handshake();
    [[nodiscard]] bool isSecure() const { return _tls != nullptr; }

    /// Waits for the first byte of the next request. False: the peer left, `close` was called, or `idle` passed.
    [[nodiscard]] bool awaitRequest(std::chrono::milliseconds idle);

    /// The head has been read: what follows is a body, whose size the library limits.
    void headIsRead() { _headBytesLeft = SIZE_MAX; }
    void resetAfter(std::size_t bytes) { _bytesUntilReset = bytes; }  ///< instead of reading on

    void flush();
    void flushAllBut(std::size_t bytes);  ///< the last `bytes` of the output never leave, nor does anything after
    void hold(std::chrono::milliseconds duration);  ///< ends early when the peer leaves or `close` is called
    void reset();                                   ///< RST at once; what was gathered is dropped
    void close();                                   ///< from any thread: ends every wait, and the connection

    bool is_readable() const override;
    bool is_writable() const override;
    ssize_t read(char* bytes, std::size_t size) override;
    ssize_t write(const char* bytes, std::size_t size) override;
    void get_remote_ip_and_port(std::string& ip, int& port) const override;
    void get_local_ip_and_port(std::string& ip, int& port) const override;
    socket_t socket() const override { return _socket; }

private:
    struct TLSRelease {
        void operator()(SSL* tls) const { SSL_free(tls); }
    };

    /// Whether one of `events` (of poll) came.
    [[nodiscard]] bool _waitFor(short events, std::chrono::milliseconds limit) const;
    [[nodiscard]] std::size_t _receive();
    [[nodiscard]] bool _send(std::string_view bytes);

    const int _socket;
    const std::unique_ptr<SSL, TLSRelease> _tls;

    std::string _input;  ///< received, and read up to `_inputRead`
    std::size_t _inputRead = 0;
    std::string _output;
    std::size_t _headBytesLeft = maxHeadBytes;
    std::size_t _bytesUntilReset = SIZE_MAX;
    bool _isBroken = false;
};

}  // namespace orvex
