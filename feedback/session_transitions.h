#pragma once

#include <cstdint>
#include <optional>

#include "core/feedback_vocabulary.h"
#include "feedback/client_session_manager_protocol.h"

namespace orvex {

/// What can happen to a session manager.
enum class SessionEvent : std::uint8_t {
    ordinaryRecord = 0,
    softLimit = 1,            ///< the session has reached its soft limit
    maximumTime = 2,          ///< and its greatest age
    flushRequest = 3,         ///< from outside
    recordAfterIdle = 4,      ///< a record after the idle time
    guidChanged = 5,          ///< a record under another user GUID than the session's
    sessionEndingRecord = 6,  ///< a record that suggests the end
};

/// What a session manager does about it, in the order of the members.
struct SessionTransition {
    bool addsRecord = false;                ///< to the open session
    std::optional<SessionEndReason> flush;  ///< ends the open session, if any
    bool resetsGUID = false;                ///< and the record gets the new one
    bool startsSession = false;             ///< with the record
    SessionState next = SessionState::noSession;

    bool operator==(const SessionTransition&) const = default;
};

/// The table of a session manager's states; ClientSessionManager draws it.
[[nodiscard]] SessionTransition sessionTransition(SessionEvent event, SessionState state);

}  // namespace orvex
