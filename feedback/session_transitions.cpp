#include "feedback/session_transitions.h"

namespace orvex {
namespace {

constexpr auto beforeSoftLimit = SessionState::beforeSoftLimit;
constexpr auto afterSoftLimit = SessionState::afterSoftLimit;
constexpr auto noSession = SessionState::noSession;

SessionTransition flushed(SessionEndReason reason) { return {.flush = reason, .next = noSession}; }

}  // namespace

SessionTransition sessionTransition(SessionEvent event, SessionState state) {
    const SessionTransition nothing{.flush = std::nullopt, .next = state};
    switch (event) {
        case SessionEvent::ordinaryRecord:
            if (state == noSession) return {.flush = std::nullopt, .startsSession = true, .next = beforeSoftLimit};
            return {.addsRecord = true, .flush = std::nullopt, .next = state};
        case SessionEvent::softLimit:
            if (state == beforeSoftLimit) return {.flush = std::nullopt, .next = afterSoftLimit};
            return nothing;
        case SessionEvent::maximumTime:
            return state == afterSoftLimit ? flushed(SessionEndReason::maxSessionTimePassed) : nothing;
        case SessionEvent::flushRequest:
            return flushed(SessionEndReason::externalRequest);
        case SessionEvent::recordAfterIdle:
            if (state != afterSoftLimit) return nothing;
            return {.flush = SessionEndReason::sessionIdle,
                    .resetsGUID = true,
                    .startsSession = true,
                    .next = beforeSoftLimit};
        case SessionEvent::guidChanged:
            if (state == noSession) return nothing;
            return {.flush = SessionEndReason::guidChanged, .startsSession = true, .next = beforeSoftLimit};
        case SessionEvent::sessionEndingRecord:
            if (state != afterSoftLimit) return nothing;
            return {.addsRecord = true,
                    .flush = SessionEndReason::engagementReceived,
                    .resetsGUID = true,
                    .next = noSession};
    }
    return nothing;
}

}  // namespace orvex
