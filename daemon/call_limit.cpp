#include "daemon/call_limit.h"

#include <utility>

#include "daemon/orvex_logging.h"
#include "platform/log_events.h"

namespace orvex {
namespace {

const platform::Logger& connectionLog() { return OrvexLogForCategory(OrvexLoggingCategory::connection); }

}  // namespace

std::optional<platform::BusReply> CallLimit::admit(const std::string& client, platform::BusReply& reply) {
    switch (_state->admit(client)) {
        case Admission::refusedFirst:
            connectionLog()
                .as(platform::LogEvent::callsRefused, {{"ORVEX_CLIENT", client}})
                .error("{} has {} calls in flight, further ones are refused", client, maxCallsInFlight);
            return std::nullopt;
        case Admission::refused:
            return std::nullopt;
        case Admission::admitted:
            break;
    }
    return platform::BusReply([state = _state, client, reply = std::move(reply)](
                                  std::expected<platform::BusArguments, platform::BusError> answer) mutable {
        state->beforeAnswer(client);
        if (answer) {
            reply.answer(*std::move(answer));
        } else {
            reply.fail(answer.error().name, answer.error().message);
        }
        state->afterAnswer();
    });
}

bool CallLimit::refusesSize(std::size_t bytes, platform::BusReply& reply) {
    if (bytes <= maxCallBytes) return false;
    reply.fail(platform::bus_error::limitsExceeded, "more than 1 MiB");
    return true;
}

CallLimit::Admission CallLimit::State::admit(const std::string& client) {
    const platform::MutexLock lock(mutex);
    auto& those = calls[client];
    if (those.inFlight >= maxCallsInFlight)
        return std::exchange(those.wereRefused, true) ? Admission::refused : Admission::refusedFirst;
    ++those.inFlight;
    ++total;
    return Admission::admitted;
}

void CallLimit::State::beforeAnswer(const std::string& client) {
    const platform::MutexLock lock(mutex);
    const auto entry = calls.find(client);
    if (--entry->second.inFlight == 0) calls.erase(entry);
}

void CallLimit::State::afterAnswer() {
    std::move_only_function<void()> handler;
    {
        const platform::MutexLock lock(mutex);
        if (--total == 0) handler = std::exchange(whenNone, nullptr);
    }
    if (handler) handler();
}

void CallLimit::whenNoneInFlight(std::move_only_function<void()> handler) {
    {
        const platform::MutexLock lock(_state->mutex);
        if (_state->total > 0) {
            _state->whenNone = std::move(handler);
            return;
        }
    }
    handler();
}

std::size_t CallLimit::inFlight() const {
    const platform::MutexLock lock(_state->mutex);
    return _state->total;
}

}  // namespace orvex
