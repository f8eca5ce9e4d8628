#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/orx_error.h"
#include "feedback/record_receipt.h"
#include "platform/dispatch.h"
#include "platform/result.h"

namespace orvex::platform {
class AppendFile;
}

namespace orvex {

class Assembly;
class CXClientSession;
class CXOrvexFeedback;

/// One session file: the session's header, then a record after the other, only ever appended. docs/session-file.md has
/// the format.
///
///     open ──closeFile, or a `read`──▶ finished
///     open ──what is written would reach the size limit──▶ full
///     open ──the header, or taking back a write that failed, failed──▶ broken
///
/// A file of an earlier run is finished from the start. A record for a file that is full or finished is dropped and
/// counted; one for a broken file fails.
///
/// Threading: callable from any thread, except where said otherwise. All file work runs on the storage's queue, which
/// every container shares; answers of receipts come there, and may not `read`.
/// Durability: a written record survives the process. It survives a power cut once it is synced, off the queue: after
/// `recordsUntilSync` records, `timeUntilSync`, or the end of the file, whichever is first.
class FileContainer : public std::enable_shared_from_this<FileContainer> {
public:
    static constexpr std::size_t recordsUntilSync = 64;
    static constexpr std::chrono::seconds timeUntilSync{5};

    struct Options {
        std::string name;     ///< in the caches directory
        std::string path;     ///< what logs call it
        std::string version;  ///< that a file must carry to be read
        std::uint64_t maxFileSize = 0;
    };
    using Queue = std::shared_ptr<platform::SerialQueue>;

    /// A file found on disk, of this size.
    static std::shared_ptr<FileContainer> create(Assembly& assembly, Queue queue, Options options, std::uint64_t size);
    /// A new file, open for writing.
    static std::shared_ptr<FileContainer> createForWriting(Assembly& assembly, Queue queue, Options options,
                                                           std::shared_ptr<platform::AppendFile> file);
    ~FileContainer();  ///< removes the file when `deleteWhenReleased` was called
    FileContainer(const FileContainer&) = delete;
    FileContainer& operator=(const FileContainer&) = delete;

    /// The session as it is now, without its records. Encoded on the caller's thread, written later.
    void writeSessionHeader(const CXClientSession& session);

    /// Encodes on the caller's thread, writes later. The receipt is let go when the record is written or was dropped,
    /// and fails when the write failed.
    void writeFeedback(const CXOrvexFeedback& record, RecordReceipt receipt);

    /// The session in a finished file; a file that is still open is finished first. None, logged: the file cannot be
    /// read, is too large, holds no session, or is of another version. What is damaged costs the records it lies in.
    [[nodiscard]] std::optional<CXClientSession> read();

    /// What was written so far, of whatever version, the file staying open. None as for `read`.
    [[nodiscard]] std::optional<CXClientSession> readOpen() const;

    /// For its storage, on the queue.
    void closeFile();
    /// For its storage, on the queue. The file is removed when the last reference to this goes; it stays readable until
    /// then.
    void deleteWhenReleased();

    [[nodiscard]] const std::string& path() const { return _options.path; }
    [[nodiscard]] std::uint64_t size() const { return _size; }  ///< bytes in the file, as far as written

private:
    enum class State : std::uint8_t { open, full, broken, finished };

    FileContainer(Assembly& assembly, Queue queue, Options options, std::shared_ptr<platform::AppendFile> file,
                  std::uint64_t size);

    platform::Result<void> _appendData(std::string_view bytes) ORX_REQUIRES(_queue);
    platform::Result<void> _writeAt(std::uint64_t offset, std::string_view bytes) ORX_REQUIRES(_queue);
    void _writeFrame(std::string_view frame, RecordReceipt receipt) ORX_REQUIRES(_queue);
    void _drop(RecordReceipt receipt) ORX_REQUIRES(_queue);
    void _break(std::string why) ORX_REQUIRES(_queue);
    void _closeFile(State state) ORX_REQUIRES(_queue);
    [[nodiscard]] std::optional<CXClientSession> _unarchiveObject() const ORX_REQUIRES(_queue);
    [[nodiscard]] std::optional<CXClientSession> _decode(std::string_view bytes) const;

    void _syncWhenDue() ORX_REQUIRES(_queue);
    void _sync() ORX_REQUIRES(_queue);
    void _synced(const platform::Result<void>& result) ORX_REQUIRES(_queue);

    // Constant after construction.
    Assembly& _assembly;
    const Options _options;
    const Queue _sharedQueue;

    // Synchronised by themselves.
    platform::SerialQueue& _queue;  ///< the shared one
    std::atomic<std::uint64_t> _size;

    // On the queue.
    State _state ORX_GUARDED_BY(_queue);
    std::shared_ptr<platform::AppendFile> _file ORX_GUARDED_BY(_queue);  ///< while open
    std::string _failure ORX_GUARDED_BY(_queue);                         ///< why it is broken
    bool _deleteWhenReleased ORX_GUARDED_BY(_queue) = false;
    bool _syncing ORX_GUARDED_BY(_queue) = false;
    std::size_t _unsynced ORX_GUARDED_BY(_queue) = 0;  ///< writes that no sync under way covers
    platform::MonotonicTime _unsyncedSince ORX_GUARDED_BY(_queue);
    platform::Timer _syncTimer ORX_GUARDED_BY(_queue);  ///< due with the oldest unsynced write
};

}  // namespace orvex
