#include "daemon/client_state_manager.h"

#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "platform/counters.h"
#include "platform/log_events.h"
#include "platform/user_defaults.h"
#include "query/client_state.h"
#include "query/query_cache.h"

namespace orvex {
namespace {

constexpr std::string_view identifierKey = "identifier";
constexpr std::string_view agentKey = "agent";

const platform::Logger& sessionLog() { return OrvexLogForCategory(OrvexLoggingCategory::session); }

/// The text under `key`; none when it is missing or of another type.
const std::string* textIn(const platform::PropertyDictionary& dictionary, std::string_view key) {
    const auto found = dictionary.find(key);
    return found == dictionary.end() ? nullptr : found->second.as<std::string>();
}

}  // namespace

ClientStateManager::ClientStateManager(Assembly& assembly)
    : _assembly(assembly),
      _persistSessions(assembly.userDefaults().boolean(setting::persistSessions)),
      _stateCacheQueue(assembly.dispatcher(), "com.kelvar.orvexd.stateCache") {
    if (!_persistSessions) return;
    _stateCacheQueue.sync([this] {
        _stateCacheQueue.assertCurrent();
        _loadState();
    });
}

ClientStateManager::~ClientStateManager() { _stateCacheQueue.close(); }

std::expected<std::shared_ptr<ClientState>, ClientStateManager::Refusal> ClientStateManager::stateForClientIdentifier(
    const std::string& identifier) {
    if (identifier.empty()) {
        sessionLog().fault("client session identifier cannot be nil or empty");
        return std::unexpected(Refusal::emptyIdentifier);
    }
    return _stateCacheQueue.sync([&]() -> std::expected<std::shared_ptr<ClientState>, Refusal> {
        _stateCacheQueue.assertCurrent();
        auto found = _stateCache.find(identifier);
        if (found == _stateCache.end()) {
            if (_stateCache.size() >= maxStates) {
                _assembly.counters().add("com.kelvar.orvexd.clientstates.refused");
                sessionLog()
                    .as(platform::LogEvent::clientRefused, {{"ORVEX_COUNT", _stateCache.size()}})
                    .error("too many client states {}, refusing {}", _stateCache.size(), identifier);
                return std::unexpected(Refusal::tooManyStates);
            }
            found = _stateCache.emplace(identifier, ClientState::create(identifier, _assembly)).first;
        }
        sessionLog().info("using client state: {}", identifier);
        return found->second;
    });
}

void ClientStateManager::_loadState() {
    const auto stored = _assembly.userDefaults().object(setting::sessions);
    const auto* elements = stored ? stored->as<platform::PropertyArray>() : nullptr;
    if (elements == nullptr) return;
    for (const auto& element : *elements) {
        const auto* session = element.as<platform::PropertyDictionary>();
        const std::string* identifier = session != nullptr ? textIn(*session, identifierKey) : nullptr;
        if (identifier == nullptr || identifier->empty()) continue;
        if (_stateCache.size() >= maxStates && !_stateCache.contains(*identifier)) {
            _assembly.counters().add("com.kelvar.orvexd.clientstates.refused");
            continue;
        }
        auto state = ClientState::create(*identifier, _assembly);
        if (const std::string* agent = textIn(*session, agentKey)) state->setUserAgent(*agent);
        _stateCache.insert_or_assign(*identifier, std::move(state));
    }
}

void ClientStateManager::saveState() {
    if (!_persistSessions) return;
    _stateCacheQueue.async([this] {
        _stateCacheQueue.assertCurrent();
        platform::PropertyArray elements;
        for (auto& session : _sessions()) {
            elements.emplace_back(platform::PropertyDictionary{
                {std::string(identifierKey), std::move(session.identifier)},
                {std::string(agentKey), std::move(session.agent)},
            });
        }
        const auto stored = _assembly.userDefaults().setObject(setting::sessions, std::move(elements));
        if (!stored) sessionLog().error("cannot keep the sessions: {}", stored.error().text);
    });
}

std::vector<ClientStateManager::Session> ClientStateManager::sessions() const {
    return _stateCacheQueue.sync([this] {
        _stateCacheQueue.assertCurrent();
        return _sessions();
    });
}

ClientStateManager::States ClientStateManager::_states() const {
    return _stateCacheQueue.sync([this] {
        _stateCacheQueue.assertCurrent();
        return _stateCache;
    });
}

std::vector<std::shared_ptr<ClientSessionManagerProtocol>> ClientStateManager::sessionManagers() const {
    std::vector<std::shared_ptr<ClientSessionManagerProtocol>> managers;
    for (const auto& [identifier, state] : _states()) {
        if (auto manager = state->sessionManager()) managers.push_back(std::move(manager));
    }
    return managers;
}

ClientStateManager::CacheUsage ClientStateManager::queryCacheUsage() const {
    CacheUsage sum;
    for (const auto& [identifier, state] : _states()) {
        if (!state->queryCache()) continue;
        const auto usage = state->queryCache()->usage();
        sum.entries += usage.entries;
        sum.cost += usage.cost;
    }
    return sum;
}

std::vector<ClientStateManager::Session> ClientStateManager::_sessions() const {
    std::vector<Session> sessions;
    for (const auto& [identifier, state] : _stateCache) {
        if (auto agent = state->userAgent()) sessions.push_back({identifier, *std::move(agent)});
    }
    return sessions;
}

}  // namespace orvex
