#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "platform/background_session.h"
#include "platform/linux/transfer_spool.h"
#include "platform/linux/transfer_store.h"

namespace orvex::platform {

/// How an attempt ended.
struct TransferAnswer {
    std::optional<URLResponse> response;
    std::optional<TransportError> error;

    /// Another attempt may bring another one.
    [[nodiscard]] bool isTemporary() const;
};

/// Runs attempts: one is a request over the session's HTTP session, its bodies in the spool. The HTTP session, and its
/// threads, are made with the first.
///
/// Threading: none of its own; the callbacks come on threads of the HTTP session.
class TransferRunner {
public:
    struct Order {
        std::uint64_t number = 0;
        TransferDirection direction = TransferDirection::upload;
        URLRequest request;                   ///< to send; its time-out is the longest silence
        std::chrono::nanoseconds timeLeft{};  ///< for the whole attempt
        std::function<void(BackgroundSessionDelegate::BodyProgress progress)> progress;  ///< now and then
        std::move_only_function<void(TransferAnswer answer)> ended;                      ///< once, unless cancelled
    };
    /// Progress is told when so much more has gone, and at the end of the body.
    static constexpr std::uint64_t progressBytes = 64u << 10;

    TransferRunner(URLSessionFactory& urlSessions, const BackgroundSessionConfiguration& configuration,
                   std::shared_ptr<TransferSpool> spool);

    /// A failure is the spool's: ENOENT when an upload's body is not there.
    [[nodiscard]] Result<std::shared_ptr<URLSessionTask>> start(Order order);

private:
    [[nodiscard]] Result<FileTransfer> _files(Order& order);

    // Constant after construction.
    URLSessionFactory& _urlSessions;
    const BackgroundSessionConfiguration& _configuration;
    const std::shared_ptr<TransferSpool> _spool;

    std::shared_ptr<URLSession> _urlSession;
};

}  // namespace orvex::platform
