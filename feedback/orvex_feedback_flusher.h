#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/dispatch.h"
#include "platform/transactions.h"

namespace orvex::platform {
class BackgroundActivity;
}
namespace orvex {

class Assembly;
class ClientSession;
class FileContainer;

/// One flush: makes uploads of the finished session files.
///
/// A forced flush takes one file after the other: read, off the list, to its upload dictionary, compressed, handed to
/// the upload session, shown to a tool that listens. The next file is taken only when that upload is stored, or will
/// never be, and the session's file is gone; so a kill at any moment repeats one upload at most and loses none. It
/// takes no file while 100 uploads are pending, while there is no bag yet and no tool listens, nor while the user
/// default "ORXFeedbackDisabled" is on: those wait for the next flush. A file that another flush has taken meanwhile is
/// left to it. A file that cannot be read is deleted without upload, counted
/// ("com.kelvar.orvexd.sessions.dropped.unreadable").
///
/// Life cycle: made for one flush; its own work holds it until the end, and a transaction holds the daemon. Threading:
/// callable from any thread, but `flushToWireSync` not from a callback of this object.
class OrvexFeedbackFlusher : public std::enable_shared_from_this<OrvexFeedbackFlusher> {
public:
    using Session = std::shared_ptr<ClientSession>;
    using Uploads = std::vector<std::string>;  ///< compressed, as they go to the server

    static std::shared_ptr<OrvexFeedbackFlusher> create(Assembly& assembly);
    ~OrvexFeedbackFlusher();

    /// Buffers a session; `callback` comes on the buffer's queue.
    void flush(Session session, std::move_only_function<void()> callback);
    void flushSyncFromArray(std::vector<Session> sessions);
    /// Sends what is buffered; its uploads are returned when a completion is given, on the buffer's queue.
    void flushToWireAsync(std::move_only_function<void(Uploads)> completion);
    /// As above, before it returns; `uploads` may be null. `held` is let go when the uploads are stored or never will.
    void flushToWireSync(Uploads* uploads, std::shared_ptr<const void> held = nullptr);

    [[nodiscard]] std::size_t countOfDatabuffer() const;
    [[nodiscard]] std::vector<Session> sessionBuffer() const;

    /// Takes the activity on, forces a flush, and ends the activity with it.
    void performPeriodicFlushActivity(std::shared_ptr<platform::BackgroundActivity> activity);
    /// `completion` may be none; it comes on the flusher's queue.
    void forceFlushWithCompletion(std::move_only_function<void()> completion);

private:
    explicit OrvexFeedbackFlusher(Assembly& assembly);

    Uploads _flushToWire(bool returningObjects, const std::shared_ptr<const void>& held) ORX_REQUIRES(_queueBuffer);
    [[nodiscard]] Session _readFeedbackFromDisk(const std::shared_ptr<FileContainer>& file) const;
    [[nodiscard]] bool _mayTakeFiles() const;
    void _takeNextFile();
    void _takeFile(std::size_t pendingUploads) ORX_REQUIRES(_flusherQueue);
    void _upload(const std::shared_ptr<FileContainer>& file) ORX_REQUIRES(_flusherQueue);
    void _complete() ORX_REQUIRES(_flusherQueue);

    // Constant after construction.
    Assembly& _assembly;

    // Synchronised by themselves.
    mutable platform::SerialQueue _queueBuffer;
    platform::SerialQueue _flusherQueue;

    // On the buffer's queue.
    std::vector<Session> _sessionBuffer ORX_GUARDED_BY(_queueBuffer);

    // On the flusher's queue.
    std::deque<std::shared_ptr<FileContainer>> _files ORX_GUARDED_BY(_flusherQueue);  ///< those still to be taken
    std::move_only_function<void()> _completion ORX_GUARDED_BY(_flusherQueue);
    platform::Transaction _transaction ORX_GUARDED_BY(_flusherQueue);
};

}  // namespace orvex
