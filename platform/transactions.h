#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

class Dispatcher;
class Transactions;

/// Keeps the daemon alive while it exists. Moves; ends once, with its destructor or `end`.
class Transaction {
public:
    Transaction() = default;
    Transaction(Transaction&& other) noexcept;
    Transaction& operator=(Transaction&& other) noexcept;
    ~Transaction() { end(); }

    void end();
    [[nodiscard]] bool open() const { return _owner != nullptr; }

private:
    friend class Transactions;
    Transaction(std::shared_ptr<Transactions> owner, std::uint64_t id) : _owner(std::move(owner)), _id(id) {}

    std::shared_ptr<Transactions> _owner;
    std::uint64_t _id = 0;
};

/// The open transactions by name: reasons why the daemon must not leave now. Outlived by nothing: a `Transaction` holds
/// its registry.
///
/// Threading: callable from any thread; the handler is called on the thread that made the change, without a lock.
class Transactions : public std::enable_shared_from_this<Transactions> {
public:
    explicit Transactions(Dispatcher& dispatcher);

    [[nodiscard]] Transaction begin(std::string name);
    [[nodiscard]] std::vector<std::string> openNames() const;  ///< one entry a transaction, sorted
    [[nodiscard]] std::size_t count() const;

    /// Since when none has been open; none while one is. At first the time of construction.
    [[nodiscard]] std::optional<MonotonicTime> idleSince() const;

    /// `handler(idle)` is called when the last one ends (true) and when the first one begins (false). Two calls from
    /// two threads may overtake each other: what holds now is what `idleSince` says. The handler must not hold the
    /// registry.
    void setIdleHandler(std::function<void(bool idle)> handler);

private:
    friend class Transaction;
    void _end(std::uint64_t id);

    Dispatcher& _dispatcher;
    mutable Mutex _mutex;
    std::map<std::uint64_t, std::string> _open ORX_GUARDED_BY(_mutex);
    std::uint64_t _lastId ORX_GUARDED_BY(_mutex) = 0;
    std::optional<MonotonicTime> _idleSince ORX_GUARDED_BY(_mutex);
    std::function<void(bool)> _onIdle ORX_GUARDED_BY(_mutex);
};

}  // namespace orvex::platform
