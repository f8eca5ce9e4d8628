#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "feedback/record_receipt.h"

namespace orvex {

class Assembly;
class CXOrvexFeedback;
class GUIDController;

/// The states of a session manager, as `Diagnostics.Status` shows them.
enum class SessionState : std::uint32_t {
    beforeSoftLimit = 0,  ///< a session is open, before its soft limit
    afterSoftLimit = 1,   ///< a session is open and its soft limit has passed
    noSession = 2,        ///< no session is open; the first state
};

/// The role of the session manager: it takes every feedback record and decides to which session it belongs.
/// Threading: callable from any thread, except `currentSessionRecords`, never from a `flushSession` callback.
class ClientSessionManagerProtocol {
public:
    using Flushed = std::move_only_function<void(bool flushed)>;

    virtual ~ClientSessionManagerProtocol() = default;

    /// Returns at once. The receipt is let go when the record is in its session's file or was dropped by a rule.
    virtual void addOrvexFeedback(std::unique_ptr<CXOrvexFeedback> record, RecordReceipt receipt) = 0;
    void addOrvexFeedback(std::unique_ptr<CXOrvexFeedback> record);

    /// Ends the open session, if any; `done` comes on the manager's queue, with or without one.
    virtual void flushSession(std::move_only_function<void()> done) = 0;
    /// A connection of this agent went away. Shared: records it and answers false; individual: flushes, answers true.
    virtual void flushSessionInvalidation(const std::string& agent, Flushed done) = 0;

    /// The records of the open session by time, of every agent if it is shared; read back from their files. Blocks on
    /// the manager's, the session's and the storage's queues. Empty when none is open.
    [[nodiscard]] virtual std::vector<CXOrvexFeedback> currentSessionRecords() = 0;

    [[nodiscard]] virtual SessionState currentState() const = 0;
    /// Given to the open session so far; 0 when none is open. Waits for nothing.
    [[nodiscard]] virtual std::uint64_t openRecords() const = 0;
    [[nodiscard]] virtual const std::shared_ptr<GUIDController>& guidController() const = 0;
};

/// A manager of one's own, for a client that does not share the assembly's.
std::shared_ptr<ClientSessionManagerProtocol> makeClientSessionManager(Assembly& assembly,
                                                                       std::shared_ptr<GUIDController> guidController,
                                                                       std::string identifier);

/// An error of the daemon's own as a record, through the assembly's session manager. Nothing without one.
void reportErrorAsOrvexdFeedback(const ORXError& error, Assembly& assembly);

}  // namespace orvex
