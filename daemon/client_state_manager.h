#pragma once

#include <cstdint>
#include <expected>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/dispatch.h"

namespace orvex {

class Assembly;
class ClientSessionManagerProtocol;
class ClientState;

/// The registry of client states: one for each client identifier, made on first use and kept until the process exits,
/// so that a client that comes back finds its bag and its caches.
///
/// Persistence, only with the user default "ORXPersistSessions" (read once): the states that have a user agent are kept
/// under the user default "sessions" and made again at start.
/// Threading: callable from any thread but its own queue.
class ClientStateManager {
public:
    static constexpr std::size_t maxStates = 1024;

    enum class Refusal {
        emptyIdentifier,
        tooManyStates,  ///< counted as "com.kelvar.orvexd.clientstates.refused"
    };
    struct Session {
        std::string identifier;
        std::string agent;
    };

    explicit ClientStateManager(Assembly& assembly);
    ~ClientStateManager();

    [[nodiscard]] std::expected<std::shared_ptr<ClientState>, Refusal> stateForClientIdentifier(
        const std::string& identifier);

    /// Writes the persisted form, later on the queue; a failure is logged and the old form stays.
    void saveState();

    /// What the query caches of all states hold together.
    struct CacheUsage {
        std::uint64_t entries = 0;
        std::uint64_t cost = 0;
    };
    [[nodiscard]] CacheUsage queryCacheUsage() const;

    /// Every state that has a user agent, by identifier.
    [[nodiscard]] std::vector<Session> sessions() const;

    /// Those of all states; the shared one once for each.
    [[nodiscard]] std::vector<std::shared_ptr<ClientSessionManagerProtocol>> sessionManagers() const;

private:
    using States = std::map<std::string, std::shared_ptr<ClientState>>;  ///< by identifier

    [[nodiscard]] States _states() const;  ///< a copy, taken on the queue
    void _loadState() ORX_REQUIRES(_stateCacheQueue);
    [[nodiscard]] std::vector<Session> _sessions() const ORX_REQUIRES(_stateCacheQueue);

    // Constant after construction.
    Assembly& _assembly;
    const bool _persistSessions;

    // Synchronised by itself.
    mutable platform::SerialQueue _stateCacheQueue;

    // On the queue.
    States _stateCache ORX_GUARDED_BY(_stateCacheQueue);
};

}  // namespace orvex
