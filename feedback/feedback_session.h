#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "feedback/record_receipt.h"

namespace orvex {

class ClientSession;
class CXOrvexFeedback;

/// The open session of a session manager: one client's, or one that clients share.
class FeedbackSession {
public:
    virtual ~FeedbackSession() = default;

    /// The receipt is let go when the record is in its file or was dropped by a rule; it fails when writing failed.
    virtual void addFeedback(std::unique_ptr<CXOrvexFeedback> record, RecordReceipt receipt) = 0;

    /// Calls `block` with each session of one agent, on the caller's thread, behind what was added before.
    virtual void enumerateSessionsUsingBlock(const std::function<void(ClientSession&)>& block) = 0;

    /// The records so far, read back from their files; of each agent by time.
    [[nodiscard]] virtual std::vector<CXOrvexFeedback> getSessionFeedbacks() = 0;

    /// Under which it was begun; empty when the first record had none.
    [[nodiscard]] virtual const std::string& userGuid() const = 0;
};

}  // namespace orvex
