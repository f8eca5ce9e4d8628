#include "feedback/client_session_shared.h"

#include <iterator>

#include "core/feedback_records.pb.h"
#include "daemon/assembly.h"
#include "feedback/client_session.h"
#include "platform/counters.h"

namespace orvex {

ClientSessionShared::ClientSessionShared(Assembly& assembly, std::unique_ptr<CXOrvexFeedback> first,
                                         RecordReceipt receipt, SessionEndReason previousSessionEndReason)
    : _assembly(assembly),
      _userGuid(first->user_guid()),
      _previousSessionEndReason(previousSessionEndReason),
      _sessionQueue(assembly.dispatcher(), "com.kelvar.orvexd.clientSessionSharedQueue") {
    _sessionQueue.sync([&] {
        _sessionQueue.assertCurrent();
        _open(std::move(first), std::move(receipt));
    });
}

ClientSessionShared::~ClientSessionShared() = default;

void ClientSessionShared::addFeedback(std::unique_ptr<CXOrvexFeedback> record, RecordReceipt receipt) {
    _sessionQueue.async(
        [self = shared_from_this(), record = std::move(record), receipt = std::move(receipt)]() mutable {
            self->_sessionQueue.assertCurrent();
            self->_addFeedback(std::move(record), std::move(receipt));
        });
}

void ClientSessionShared::_addFeedback(std::unique_ptr<CXOrvexFeedback> record, RecordReceipt receipt) {
    if (!record->has_user_agent()) {
        _assembly.counters().add("com.kelvar.orvexd.feedbackdropped.noagent");
        return;
    }
    const auto found = _sessionMap.find(record->user_agent());
    if (found == _sessionMap.end()) return _open(std::move(record), std::move(receipt));
    found->second->addFeedback(std::move(record), std::move(receipt));
}

void ClientSessionShared::_open(std::unique_ptr<CXOrvexFeedback> first, RecordReceipt receipt) {
    std::string agent = first->user_agent();
    _sessionMap[std::move(agent)] =
        std::make_shared<ClientSession>(_assembly, std::move(first), std::move(receipt), _previousSessionEndReason);
}

void ClientSessionShared::enumerateSessionsUsingBlock(const std::function<void(ClientSession&)>& block) {
    _sessionQueue.sync([&] {
        _sessionQueue.assertCurrent();
        for (const auto& [agent, session] : _sessionMap) block(*session);
    });
}

std::vector<CXOrvexFeedback> ClientSessionShared::getSessionFeedbacks() {
    std::vector<CXOrvexFeedback> all;
    enumerateSessionsUsingBlock([&all](ClientSession& session) {
        auto records = session.getSessionFeedbacks();
        all.insert(all.end(), std::move_iterator(records.begin()), std::move_iterator(records.end()));
    });
    return all;
}

}  // namespace orvex
