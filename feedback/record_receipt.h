#pragma once

#include <functional>
#include <optional>
#include <utility>

#include "core/orx_error.h"
#include "platform/transactions.h"

namespace orvex {

/// Travels with a record from whoever reported it to where its road ends, and tells them then how it ended.
///
/// The road ends where the receipt is let go: written, or dropped by a rule (which counts the drop), which is a
/// success; or `fail`, when writing failed. So no queue waits for another, and none can forget to answer. It also holds
/// the record's transaction, if it has one: the daemon does not leave with a record under way. Moves only; callable
/// from the queue that holds it; the answer is called there, once.
class RecordReceipt {
public:
    using Answer = std::move_only_function<void(std::optional<ORXError>)>;

    RecordReceipt() = default;  ///< nobody waits
    explicit RecordReceipt(Answer answer) : _answer(std::move(answer)) {}
    RecordReceipt(RecordReceipt&& other) noexcept
        : _transaction(std::move(other._transaction)),
          _answer(std::exchange(other._answer, nullptr)) {}
    RecordReceipt& operator=(RecordReceipt&& other) noexcept {
        if (this == &other) return *this;
        _end(std::nullopt);
        _transaction = std::move(other._transaction);
        _answer = std::exchange(other._answer, nullptr);
        return *this;
    }
    ~RecordReceipt() { _end(std::nullopt); }

    void hold(platform::Transaction transaction) { _transaction = std::move(transaction); }
    void fail(ORXError why) { _end(std::move(why)); }

private:
    void _end(std::optional<ORXError> error) {
        if (auto answer = std::exchange(_answer, nullptr)) answer(std::move(error));
        _transaction.end();
    }

    platform::Transaction _transaction;
    Answer _answer;
};

}  // namespace orvex
