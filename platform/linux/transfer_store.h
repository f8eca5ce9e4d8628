#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/background_session.h"
#include "platform/result.h"
#include "platform/sqlite_database.h"

namespace orvex::platform {

class Counters;

/// A task as it is on disk.
struct StoredTransfer {
    struct End {
        std::optional<URLResponse> response;
        std::optional<TransportError> error;
    };

    std::uint64_t number = 0;
    TransferDirection direction = TransferDirection::upload;
    URLRequest request;  ///< the original one, without its body
    WallTime created;
    std::optional<WallTime> earliestBegin;
    std::uint64_t numberOfFeedbacks = 0;
    std::uint64_t bodyBytes = 0;  ///< of an upload
    std::uint32_t attempts = 0;
    std::optional<End> end;  ///< it is over, and its delegate was not told for sure
};

/// The tasks of one session in an SQLite file, "tasks.db" in the session's directory.
///
/// A file that is damaged, or not ours to read, is set aside as *.corrupt and made anew, empty
/// ("com.kelvar.orvexd.transfer.dropped.store"); a row that cannot be read is left out and deleted.
/// Durability: what returned without a failure survives a power cut.
/// Limits: 64 MiB. Threading: none of its own.
class TransferStore {
public:
    TransferStore(std::shared_ptr<Directory> directory, Counters& counters);

    /// All tasks, by number.
    [[nodiscard]] Result<std::vector<StoredTransfer>> open();
    /// Whether there is a task; a file that cannot be read counts as one, so that its session mends it.
    [[nodiscard]] bool holdsTasks();

    /// The highest number that was ever stored.
    [[nodiscard]] std::uint64_t lastNumber() const { return _lastNumber; }

    [[nodiscard]] Result<void> insert(const StoredTransfer& transfer);
    [[nodiscard]] Result<void> setAttempts(std::uint64_t number, std::uint32_t attempts);
    [[nodiscard]] Result<void> setEnd(std::uint64_t number, const StoredTransfer::End& end);
    [[nodiscard]] Result<void> remove(std::uint64_t number);

private:
    [[nodiscard]] Result<std::vector<StoredTransfer>> _openOnce();
    [[nodiscard]] Result<std::string> _readyFile();
    [[nodiscard]] Result<std::vector<StoredTransfer>> _readAll();
    void _setAside();
    [[nodiscard]] Result<void> _answer(const char* what, int code);

    // Constant after construction.
    const std::shared_ptr<Directory> _directory;
    Counters& _counters;

    SQLiteDatabase _database;
    std::uint64_t _lastNumber = 0;
};

}  // namespace orvex::platform
