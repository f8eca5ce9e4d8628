#include "daemon/call_limit.h"

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
        {
            const platform::MutexLock lock(state->mutex);
            const auto entry = state->calls.find(client);
            if (--entry->second == 0) state->calls.erase(entry);
            --state->total;
        }
        if (answer) {
            reply.answer(*std::move(answer));
        } else {
            reply.fail(answer.error().name, answer.error().message);
        }
    });
}

std::size_t CallLimit::inFlight() const {
    const platform::MutexLock lock(_state->mutex);
    return _state->total;
}

}  // namespace orvex
