#include "daemon/call_limit.h"

#include <utility>

namespace orvex {

std::optional<platform::BusReply> CallLimit::admit(const std::string& client, platform::BusReply& reply) {
    {
        const platform::MutexLock lock(_state->mutex);
        auto& count = _state->calls[client];
        if (count >= maxCallsInFlight) return std::nullopt;
        ++count;
        ++_state->total;
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

void CallLimit::State::beforeAnswer(const std::string& client) {
    const platform::MutexLock lock(mutex);
    const auto entry = calls.find(client);
    if (--entry->second == 0) calls.erase(entry);
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
