#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/bus.h"
#include "platform/thread_annotations.h"

namespace orvex {

/// Counts the calls of each bus client between arrival and answer, so that no client can fill the daemon.
/// Threading: callable from any thread; a leaf lock. A reply may outlive the limit that counts it.
class CallLimit {
public:
    static constexpr std::size_t maxCallsInFlight = 256;               ///< of one client, of any method
    static constexpr std::size_t maxCallBytes = std::size_t{1} << 20;  ///< of a request dictionary or a payload

    /// The same reply, counted until it is answered; none, with `reply` untouched, when the client has its share
    /// already.
    [[nodiscard]] std::optional<platform::BusReply> admit(const std::string& client, platform::BusReply& reply);

    /// Fails `reply` if `bytes` are over `maxCallBytes`; true when it has.
    [[nodiscard]] static bool refusesSize(std::size_t bytes, platform::BusReply& reply);

    [[nodiscard]] std::size_t inFlight() const;  ///< of all clients

    /// Calls `handler` once when no call of anyone is in flight: at once, or on the thread that gives the last answer.
    void whenNoneInFlight(std::move_only_function<void()> handler);

private:
    enum class Admission { admitted, refused, refusedFirst };

    /// Of one client; gone with its last answer.
    struct Calls {
        std::size_t inFlight = 0;
        bool wereRefused = false;  ///< which is said once
    };

    struct State {
        mutable platform::Mutex mutex;
        std::map<std::string, Calls> calls ORX_GUARDED_BY(mutex);
        std::size_t total ORX_GUARDED_BY(mutex) = 0;
        std::move_only_function<void()> whenNone ORX_GUARDED_BY(mutex);

        Admission admit(const std::string& client);
        void beforeAnswer(const std::string& client);  ///< else a client quick to call again would find itself over
        void afterAnswer();                            ///< whoever waits for none in flight wants the answers gone
    };
    const std::shared_ptr<State> _state = std::make_shared<State>();
};

}  // namespace orvex
