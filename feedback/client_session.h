#pragma once

#include <boost/json/fwd.hpp>
#include <memory>
#include <string>
#include <vector>

#include "core/feedback_vocabulary.h"
#include "feedback/feedback_session.h"
#include "platform/dispatch.h"

namespace orvex {

class Assembly;
class CXClientSession;
class CXErrorFeedback;
class FileContainer;
struct ORXError;

/// The feedback records of one client agent and one user GUID between a start and an end that others decide.
///
///     open, writing to its file ──sessionComplete──▶ complete: the file waits for upload
///     read back from a file: complete from the start, and holds its records
///
/// An open session holds no records: they are in its file, and are read back from there when they are asked for. So it
/// takes the same memory however much it was told. Without a file (no storage, a full disk) its records fail.
///
/// Threading: callable from any thread. What it says of itself is constant once it is made; `getSessionFeedbacks` and
/// `sessionComplete` take turns on the session's queue, and the first waits for the storage's too.
class ClientSession final : public FeedbackSession {
public:
    /// Begins with `first`, which may be null. Counts the session for its client, and the client's first use of the
    /// day; writes the header of a new file, then the record.
    ClientSession(Assembly& assembly, std::unique_ptr<CXOrvexFeedback> first, RecordReceipt receipt,
                  SessionEndReason previousSessionEndReason = SessionEndReason::noPreviousSession);
    /// As `session` was read from its file, with its records.
    ClientSession(Assembly& assembly, CXClientSession session);
    ~ClientSession() override;

    /// A session of its own for one error of the daemon's, which has no session to go to; the caller completes it.
    /// Null: feedback is switched off, or, counted, there were too many of them in the last hour.
    static std::shared_ptr<ClientSession> createFeedbackSessionFromError(const ORXError& error, Assembly& assembly);
    static std::shared_ptr<ClientSession> createFeedbackSessionFromError(const CXErrorFeedback& error,
                                                                         Assembly& assembly);

    void addFeedback(std::unique_ptr<CXOrvexFeedback> record, RecordReceipt receipt) override;
    void enumerateSessionsUsingBlock(const std::function<void(ClientSession&)>& block) override { block(*this); }
    [[nodiscard]] std::vector<CXOrvexFeedback> getSessionFeedbacks() override;
    [[nodiscard]] const std::string& userGuid() const override;

    /// Hands its file to those that wait for upload. Once.
    void sessionComplete();

    /// The session as it is uploaded: the keys "agent", "base_time", "fb", "first_use", "previous_session_end_reason",
    /// "resource_versions" and "user_guid", sorted. Engagements of pages are screened first where a browser had it.
    [[nodiscard]] boost::json::object getFeedbacksToSend();

    [[nodiscard]] const std::string& agent() const;
    /// What the header of its file says, and the records of one that was read from its file.
    [[nodiscard]] const CXClientSession& backingStore() const { return *_backingStore; }
    /// Null for one that was read, and for one without a file.
    [[nodiscard]] const std::shared_ptr<FileContainer>& storageHandle() const { return _storageHandle; }

private:
    void _begin(const CXOrvexFeedback* first, SessionEndReason previousSessionEndReason);
    void _takeResourceVersions();
    void _write(const CXOrvexFeedback& record, RecordReceipt receipt);
    void _tellDifferentGUID(const CXOrvexFeedback& record);

    // Constant after construction.
    Assembly& _assembly;
    const std::unique_ptr<CXClientSession> _backingStore;
    std::shared_ptr<FileContainer> _storageHandle;

    // Synchronised by itself.
    platform::SerialQueue _sessionQueue;

    // On the queue.
    bool _complete ORX_GUARDED_BY(_sessionQueue) = false;
};

}  // namespace orvex
