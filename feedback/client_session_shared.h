#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/feedback_vocabulary.h"
#include "feedback/feedback_session.h"
#include "platform/dispatch.h"

namespace orvex {

class Assembly;

/// The open session of all clients together: a session of each agent, begun with that agent's first record.
///
/// The first record of all may have no agent and then begins a session of the agent "". Every later one without an
/// agent is dropped, counted.
/// Threading: callable from any thread. Records are added on its queue, asynchronously; enumerating and reading wait
/// for it, and must not be asked for from within a block of an enumeration.
class ClientSessionShared final : public FeedbackSession, public std::enable_shared_from_this<ClientSessionShared> {
public:
    ClientSessionShared(Assembly& assembly, std::unique_ptr<CXOrvexFeedback> first, RecordReceipt receipt,
                        SessionEndReason previousSessionEndReason);
    ~ClientSessionShared() override;

    void addFeedback(std::unique_ptr<CXOrvexFeedback> record, RecordReceipt receipt) override;
    /// In the order of the agents.
    void enumerateSessionsUsingBlock(const std::function<void(ClientSession&)>& block) override;
    [[nodiscard]] std::vector<CXOrvexFeedback> getSessionFeedbacks() override;
    [[nodiscard]] const std::string& userGuid() const override { return _userGuid; }

private:
    void _addFeedback(std::unique_ptr<CXOrvexFeedback> record, RecordReceipt receipt) ORX_REQUIRES(_sessionQueue);
    void _open(std::unique_ptr<CXOrvexFeedback> first, RecordReceipt receipt) ORX_REQUIRES(_sessionQueue);

    // Constant after construction.
    Assembly& _assembly;
    const std::string _userGuid;
    const SessionEndReason _previousSessionEndReason;

    // Synchronised by itself.
    platform::SerialQueue _sessionQueue;

    // On the queue.
    std::map<std::string, std::shared_ptr<ClientSession>, std::less<>> _sessionMap ORX_GUARDED_BY(_sessionQueue);
};

}  // namespace orvex
