#include "feedback/file_container.h"

#include <exception>
#include <utility>

#include "core/feedback_records.pb.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "feedback/session_file.h"
#include "platform/append_file.h"
#include "platform/counters.h"
#include "platform/file_manager.h"
#include "platform/log_events.h"
#include "platform/mapped_file.h"
#include "platform/transactions.h"

// A write either has its bytes in the file or leaves the file as it was: after one that failed, in the middle perhaps,
// the file is cut back to where it ended before. Where that fails too the end is unknown, and nothing more may follow
// it.
//
// A sync may take long, so it runs on the pool, one at a time for each file. What is written meanwhile counts for the
// next. The last one holds the file until it is done, which is when its descriptor is closed. It does not hold the
// container: one that is deleted must not stay for it.

namespace orvex {
namespace {

const platform::Logger& log() { return OrvexLogForCategory(OrvexLoggingCategory::feedbackStorage); }

}  // namespace

std::shared_ptr<FileContainer> FileContainer::create(Assembly& assembly, Queue queue, Options options,
                                                     std::uint64_t size) {
    return std::shared_ptr<FileContainer>(
        new FileContainer(assembly, std::move(queue), std::move(options), nullptr, size));
}

std::shared_ptr<FileContainer> FileContainer::createForWriting(Assembly& assembly, Queue queue, Options options,
                                                               std::shared_ptr<platform::AppendFile> file) {
    return std::shared_ptr<FileContainer>(
        new FileContainer(assembly, std::move(queue), std::move(options), std::move(file), 0));
}

FileContainer::FileContainer(Assembly& assembly, Queue queue, Options options,
                             std::shared_ptr<platform::AppendFile> file, std::uint64_t size)
    : _assembly(assembly),
      _options(std::move(options)),
      _sharedQueue(std::move(queue)),
      _queue(*_sharedQueue),
      _size(size),
      _state(file ? State::open : State::finished),
      _file(std::move(file)),
      _syncTimer(_queue) {}

FileContainer::~FileContainer() {
    if (!_deleteWhenReleased) return;
    log().debug("delete file url {}", path());
    auto directory = _assembly.fileManager().cachesDirectory();
    if (directory && (*directory)->remove(_options.name))
        _assembly.counters().add("com.kelvar.orvexd.filedeleted");
    else
        log().error("File {} delete failed", path());
}

void FileContainer::writeSessionHeader(const CXClientSession& session) {
    _queue.async([self = shared_from_this(), header = encodeSessionHeader(session)] {
        self->_queue.assertCurrent();
        const auto written = self->_appendData(header);
        if (written) return;
        log().error("Could not write session to file.");
        self->_break(written.error().text);
    });
}

void FileContainer::writeFeedback(const CXOrvexFeedback& record, RecordReceipt receipt) {
    _queue.async(
        [self = shared_from_this(), frame = encodeSessionRecord(record), receipt = std::move(receipt)]() mutable {
            self->_queue.assertCurrent();
            self->_writeFrame(frame, std::move(receipt));
        });
}

std::optional<CXClientSession> FileContainer::read() {
    return _queue.sync([this]() -> std::optional<CXClientSession> {
        _queue.assertCurrent();
        log().debug("reading file url {}", path());
        if (_state == State::open) {
            log().fault("file is already open closing it {}", path());
            _closeFile(State::finished);
        }
        auto session = _unarchiveObject();
        if (!session || session->version() == _options.version) return session;
        _assembly.counters().add("com.kelvar.orvexd.fileversionmismatch");
        log().debug("Discarding feedback because of version mismatch. File version {} not equal to current version {}.",
                    session->version(), _options.version);
        return std::nullopt;
    });
}

std::optional<CXClientSession> FileContainer::readOpen() const {
    return _queue.sync([this] {
        _queue.assertCurrent();
        return _unarchiveObject();
    });
}

void FileContainer::closeFile() {
    _queue.assertCurrent();
    _closeFile(State::finished);
}

void FileContainer::deleteWhenReleased() {
    _queue.assertCurrent();
    _deleteWhenReleased = true;
}

platform::Result<void> FileContainer::_appendData(std::string_view bytes) {
    const auto transaction = _assembly.transactions().begin("archiveObject");
    if (!_file) {
        log().log("file handle nil");
        return platform::failure(0, "the session's file is closed");
    }
    const auto offset = _file->size();
    if (!offset) {
        log().error("{}", offset.error().text);
        return std::unexpected(offset.error());
    }
    if (bytes.size() >= _options.maxFileSize || *offset >= _options.maxFileSize - bytes.size()) {
        _assembly.counters().add("com.kelvar.orvexd.filesizeexceeded");
        log().error("bytes written ({}) + feedback ({}) exceeds max session size ({})", *offset, bytes.size(),
                    _options.maxFileSize);
        _closeFile(State::full);
        return platform::failure(0, "the session's file is full");
    }
    return _writeAt(*offset, bytes);
}

platform::Result<void> FileContainer::_writeAt(std::uint64_t offset, std::string_view bytes) {
    auto written = _file->append(bytes);
    if (written) {
        _size = offset + bytes.size();
        if (_unsynced++ == 0) _unsyncedSince = _queue.dispatcher().now();
        _syncWhenDue();
        return written;
    }
    _assembly.counters().add("com.kelvar.orvexd.filewritefailed");
    log()
        .as(platform::LogEvent::writeFailed, {{"ORVEX_FILE", path()}, {"ORVEX_REASON", written.error().text}})
        .error("{}", written.error().text);
    if (const auto cut = _file->truncate(offset); !cut) {
        log().error("{}", cut.error().text);
        _break(written.error().text);
    }
    return written;
}

void FileContainer::_break(std::string why) {
    if (_state != State::open) return;
    _failure = std::move(why);
    _closeFile(State::broken);
}

void FileContainer::_writeFrame(std::string_view frame, RecordReceipt receipt) {
    if (_state != State::open) return _drop(std::move(receipt));
    const auto written = _appendData(frame);
    if (written) return;
    if (_state == State::full) return _drop(std::move(receipt));
    receipt.fail(ORXError(ORXErrorCode::internal, written.error().text));
}

void FileContainer::_drop(RecordReceipt receipt) {
    switch (_state) {
        case State::open:
            break;
        case State::full:
            _assembly.counters().add("com.kelvar.orvexd.feedbackdropped.filefull");
            break;
        case State::finished:
            _assembly.counters().add("com.kelvar.orvexd.feedbackdropped.sessionfinished");
            break;
        case State::broken:
            receipt.fail(ORXError(ORXErrorCode::internal, _failure));
            break;
    }
}

void FileContainer::_closeFile(State state) {
    log().debug("close file url {}", path());
    if (!_file) return;
    if (_unsynced > 0) _sync();
    _file = nullptr;
    _state = state;
}

std::optional<CXClientSession> FileContainer::_unarchiveObject() const {
    const auto directory = _assembly.fileManager().cachesDirectory();
    const auto attributes = directory ? (*directory)->attributes(_options.name) : std::unexpected(directory.error());
    if (!attributes) {
        log().error("Attribute fetch error {}", attributes.error().text);
        return std::nullopt;
    }
    if (attributes->size > _options.maxFileSize) {
        _assembly.counters().add("com.kelvar.orvexd.filetoolarge");
        log().error("Session too big to process");
        return std::nullopt;
    }
    const auto file = (*directory)->openFile(_options.name);
    if (!file) {
        log().error("Could not open file for reading {}", file.error().text);
        return std::nullopt;
    }
    log().debug("unarchive {}", path());
    if (file->attributes.size == 0) {  // cannot be mapped
        log().error("found empty session file");
        return std::nullopt;
    }
    const auto mapped = platform::mmapFileHandle(file->descriptor);
    if (!mapped) {
        log().error("mmap: {}", mapped.error().text);
        return std::nullopt;
    }
    return _decode(mapped->bytes());
}

std::optional<CXClientSession> FileContainer::_decode(std::string_view bytes) const {
    try {
        CXClientSession session;
        const auto damaged = decodeSessionFile(bytes, session);
        if (damaged == 0) return session;
        _assembly.counters().add("com.kelvar.orvexd.filedamaged", static_cast<std::int64_t>(damaged));
        if (session.feedbacks_size() == 0) {
            log().error("File contents did not deserialize into a _CXClientSession.");
            return std::nullopt;
        }
        log().error("{} is damaged in {} places, {} records are left", path(), damaged, session.feedbacks_size());
        return session;
    } catch (const std::exception& exception) {
        log().error("exception reading session archive {}", exception.what());
        return std::nullopt;
    }
}

void FileContainer::_syncWhenDue() {
    if (!_file || _syncing || _unsynced == 0) return;
    if (_unsynced >= recordsUntilSync) return _sync();
    if (_syncTimer.armed()) return;
    _syncTimer.armAt(_unsyncedSince + timeUntilSync, [weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        self->_queue.assertCurrent();
        if (self->_file && !self->_syncing && self->_unsynced > 0) self->_sync();
    });
}

void FileContainer::_sync() {
    _syncing = true;
    _unsynced = 0;
    _syncTimer.cancel();
    const platform::GlobalQueue background(_queue.dispatcher(), platform::Priority::background);
    background.async([weak = weak_from_this(), queue = _sharedQueue, file = _file] {
        queue->async([weak, result = file->sync()] {
            const auto self = weak.lock();
            if (!self) return;
            self->_queue.assertCurrent();
            self->_synced(result);
        });
    });
}

void FileContainer::_synced(const platform::Result<void>& result) {
    if (!result) {
        _assembly.counters().add("com.kelvar.orvexd.filesyncfailed");
        log().error("{}", result.error().text);
    }
    _syncing = false;
    _syncWhenDue();
}

}  // namespace orvex
