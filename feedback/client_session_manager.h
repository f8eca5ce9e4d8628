#pragma once

#include <atomic>
#include <boost/json/fwd.hpp>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "feedback/client_session_manager_protocol.h"
#include "feedback/session_transitions.h"
#include "platform/clock.h"
#include "platform/dispatch.h"

namespace orvex::platform {
class UserDefaults;
}

namespace orvex {

class FeedbackSession;

/// Takes the feedback records of the clients that share it, or of one client, and decides to which session each
/// belongs, when a session ends, and why. sessionTransition is this table:
///
///     event \ state            beforeSoftLimit       afterSoftLimit                  noSession
///     ordinaryRecord           add                   add                             start ▶ beforeSoftLimit
///     softLimit                ▶ afterSoftLimit      -                               -
///     maximumTime              -                     flush(4) ▶ noSession            -
///     flushRequest             flush(2) ▶ noSession  flush(2) ▶ noSession            flush(2), which answers
///     recordAfterIdle          -                     flush(3), new GUID, start       -
///                                                    ▶ beforeSoftLimit
///     guidChanged              flush(5), start       flush(5), start                 -
///                              ▶ beforeSoftLimit     ▶ beforeSoftLimit
///     sessionEndingRecord      -                     add, flush(7), new GUID         -
///                                                    ▶ noSession
///
/// A flush adds a record with its reason to each session that is open, and completes them; the reason is what the next
/// session says of its predecessor. The soft limit comes `softLimitDelay` after a session's start, the maximum time
/// `Limits::maxTime` after that, both counted on the monotonic clock, as the idle time is. A timer that finds another
/// session than the one it was set for leaves that session alone.
///
/// Threading: as the role says; everything happens on the manager's queue, which waits for the GUID controller's.
/// Durability: FileContainer's. What a session is and when it ends is lost with the process: its file then waits as it
/// is, and the next start begins anew.
class ClientSessionManager final : public ClientSessionManagerProtocol,
                                   public std::enable_shared_from_this<ClientSessionManager> {
public:
    struct Limits {
        std::chrono::seconds softLimitTime{600};
        std::chrono::seconds idleTime{180};
        std::chrono::seconds maxTime{300};

        bool operator==(const Limits&) const = default;
    };
    /// From "ORXSessionSoftLimitOverride" and "ORXSessionIdleTimeOverride"; what they cannot be is logged as an error,
    /// and the default holds.
    [[nodiscard]] static Limits limitsFrom(const platform::UserDefaults& userDefaults);

    /// Whatever the limits are: they only tell when the maximum time is over.
    static constexpr std::chrono::seconds softLimitDelay{600};

    /// `identifier` is "orvex" for the assembly's, else the client's. Whether the session is shared is the assembly's
    /// `sharedSession` at this moment.
    static std::shared_ptr<ClientSessionManager> create(Assembly& assembly,
                                                        std::shared_ptr<GUIDController> guidController,
                                                        std::string identifier);
    ~ClientSessionManager() override;

    using ClientSessionManagerProtocol::addOrvexFeedback;
    void addOrvexFeedback(std::unique_ptr<CXOrvexFeedback> record, RecordReceipt receipt) override;
    void flushSession(std::move_only_function<void()> done) override;
    void flushSessionInvalidation(const std::string& agent, Flushed done) override;
    [[nodiscard]] std::vector<CXOrvexFeedback> currentSessionRecords() override;
    [[nodiscard]] SessionState currentState() const override { return _currentState; }
    [[nodiscard]] std::uint64_t openRecords() const override { return _openRecords; }
    [[nodiscard]] const std::shared_ptr<GUIDController>& guidController() const override { return _guidController; }

    /// The open session; null when none is. Waits for the queue.
    [[nodiscard]] std::shared_ptr<FeedbackSession> session() const;

private:
    /// What comes with an event.
    struct Occasion {
        std::unique_ptr<CXOrvexFeedback> record = {};
        RecordReceipt receipt = {};
        std::move_only_function<void()> flushed = nullptr;  ///< called when all is done
    };

    ClientSessionManager(Assembly& assembly, std::shared_ptr<GUIDController> guidController, std::string identifier);

    void _accept(std::unique_ptr<CXOrvexFeedback> record, RecordReceipt receipt) ORX_REQUIRES(_sessionQueue);
    [[nodiscard]] SessionEvent _eventOf(const CXOrvexFeedback& record) const ORX_REQUIRES(_sessionQueue);
    void _showToListener(const CXOrvexFeedback& record) const;
    [[nodiscard]] bool _isFeedbackEnabled(const std::string& userAgent) ORX_REQUIRES(_sessionQueue);

    /// The one place where the state changes.
    void _updateState(SessionEvent event, Occasion occasion) ORX_REQUIRES(_sessionQueue);
    void _enter(SessionState state) ORX_REQUIRES(_sessionQueue);
    void _setNewSession(std::unique_ptr<CXOrvexFeedback> first, RecordReceipt receipt) ORX_REQUIRES(_sessionQueue);
    void _flushSessionWithReason(SessionEndReason reason) ORX_REQUIRES(_sessionQueue);
    void _logFlush(SessionEndReason reason) const;

    /// Calls `fired` with the id of the present session after `delay`, on the queue.
    void _schedule(std::chrono::seconds delay, void (ClientSessionManager::*fired)(std::uint64_t session))
        ORX_REQUIRES(_sessionQueue);
    void _softLimitTimerFired(std::uint64_t session) ORX_REQUIRES(_sessionQueue);
    void _onUserGuidSoftLimitReached() ORX_REQUIRES(_sessionQueue);
    void _maxTimerFired(std::uint64_t session) ORX_REQUIRES(_sessionQueue);

    // Constant after construction.
    Assembly& _assembly;
    const std::shared_ptr<GUIDController> _guidController;
    const std::string _identifier;
    const Limits _limits;
    const bool _shared;

    // Synchronised by themselves.
    mutable platform::SerialQueue _sessionQueue;
    std::atomic<SessionState> _currentState = SessionState::noSession;  ///< changed on the queue
    std::atomic<std::uint64_t> _openRecords = 0;                        ///< changed on the queue

    // On the queue.
    std::shared_ptr<FeedbackSession> _session ORX_GUARDED_BY(_sessionQueue);  ///< null: none is open
    std::uint64_t _sessionCounter ORX_GUARDED_BY(_sessionQueue) = 0;          ///< and the present session's id
    SessionEndReason _flushReason ORX_GUARDED_BY(_sessionQueue) = SessionEndReason::unknown;  ///< of the last flush
    std::optional<platform::MonotonicTime> _expirationTime ORX_GUARDED_BY(_sessionQueue);     ///< when it has been idle
    /// What the bag with this dictionary says for the agents that asked: making a view of it for each record is slow.
    std::shared_ptr<const boost::json::object> _rawBag ORX_GUARDED_BY(_sessionQueue);
    std::map<std::string, bool, std::less<>> _feedbackEnabled ORX_GUARDED_BY(_sessionQueue);
};

}  // namespace orvex
