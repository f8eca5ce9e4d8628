#include "platform/transactions.h"

#include <algorithm>

#include "platform/dispatch.h"

namespace orvex::platform {

Transaction::Transaction(Transaction&& other) noexcept
    : _owner(std::move(other._owner)),
      _id(std::exchange(other._id, 0)) {}

Transaction& Transaction::operator=(Transaction&& other) noexcept {
    if (this == &other) return *this;
    end();
    _owner = std::move(other._owner);
    _id = std::exchange(other._id, 0);
    return *this;
}

void Transaction::end() {
    if (const auto owner = std::exchange(_owner, nullptr)) owner->_end(std::exchange(_id, 0));
}

Transactions::Transactions(Dispatcher& dispatcher) : _dispatcher(dispatcher), _idleSince(dispatcher.now()) {}

Transaction Transactions::begin(std::string name) {
    std::function<void(bool)> onIdle;
    std::uint64_t id = 0;
    {
        const MutexLock lock(_mutex);
        id = ++_lastId;
        if (_open.empty()) onIdle = _onIdle;
        _open.emplace(id, std::move(name));
        _idleSince.reset();
    }
    if (onIdle) onIdle(false);
    return {shared_from_this(), id};
}

void Transactions::_end(std::uint64_t id) {
    const auto now = _dispatcher.now();
    std::function<void(bool)> onIdle;
    {
        const MutexLock lock(_mutex);
        _open.erase(id);
        if (!_open.empty()) return;
        _idleSince = now;
        onIdle = _onIdle;
    }
    if (onIdle) onIdle(true);
}

std::vector<std::string> Transactions::openNames() const {
    std::vector<std::string> names;
    {
        const MutexLock lock(_mutex);
        for (const auto& [id, name] : _open) names.push_back(name);
    }
    std::ranges::sort(names);
    return names;
}

std::size_t Transactions::count() const {
    const MutexLock lock(_mutex);
    return _open.size();
}

std::optional<MonotonicTime> Transactions::idleSince() const {
    const MutexLock lock(_mutex);
    return _idleSince;
}

void Transactions::setIdleHandler(std::function<void(bool)> handler) {
    const MutexLock lock(_mutex);
    _onIdle.swap(handler);  // the earlier one is destroyed by the caller, after the lock
}

}  // namespace orvex::platform
