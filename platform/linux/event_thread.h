#pragma once

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "platform/dispatch.h"
#include "platform/file_manager.h"
#include "platform/linux/sd_bus_handles.h"
#include "platform/result.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

/// A thread that runs an sd_event loop, and is left work by other threads.
///
///     made ──start──▶ running ──stop──▶ stopped
///
/// Between making and starting, the event loop belongs to the thread that made it; after stopping, to the one that
/// stopped it. It is a capability: what belongs to the thread is `ORX_GUARDED_BY(_thread)`, and every block that runs
/// on it begins with `assertCurrent()`.
class ORX_CAPABILITY("thread") EventThread {
public:
    /// Where work for the thread is left, from any thread. It outlives the thread; what comes after the end is
    /// destroyed unrun.
    class Mailbox {
    public:
        /// Runs `work` on the thread, in the order of posting. On the thread itself it runs before this returns, after
        /// all that was posted earlier; from within such work it runs right after it.
        void run(Work work);
        [[nodiscard]] bool isCurrent() const {
            return _owner.load(std::memory_order_relaxed) == std::this_thread::get_id();
        }

    private:
        friend class EventThread;
        explicit Mailbox(FileDescriptor wakeUp) : _wakeUp(std::move(wakeUp)) {}
        bool _post(Work work);  ///< whether the mailbox was empty
        void _drain();
        void _close();

        const FileDescriptor _wakeUp;  ///< an eventfd, watched edge-triggered: it is never read

        std::atomic<std::thread::id> _owner;
        Mutex _mutex;

        std::vector<Work> _posted ORX_GUARDED_BY(_mutex);
        bool _closed ORX_GUARDED_BY(_mutex) = false;

        // On the thread.
        std::vector<Work> _batch;
        bool _draining = false;
    };

    [[nodiscard]] static Result<std::unique_ptr<EventThread>> create(const char* name);
    ~EventThread();  ///< stops
    EventThread(const EventThread&) = delete;
    EventThread& operator=(const EventThread&) = delete;

    void start();

    /// Runs what has been posted, then ends the thread and waits for it. Not on the thread itself.
    void stop();

    [[nodiscard]] const std::shared_ptr<Mailbox>& mailbox() const { return _mailbox; }
    [[nodiscard]] sd_event* event() const { return _event.get(); }

    void run(Work work) { _mailbox->run(std::move(work)); }

    /// Runs `work` on the thread and waits for its result; on the thread itself, or before `start`, at once. Code
    /// ESHUTDOWN when the thread has ended.
    [[nodiscard]] Result<void> sync(std::move_only_function<Result<void>()> work);

    /// Aborts on another thread while the loop runs.
    void assertCurrent() const ORX_ASSERT_CAPABILITY(this);

private:
    EventThread(const char* name, SdHandle<sd_event> event, std::shared_ptr<Mailbox> mailbox);
    void _loop();

    const char* const _name;
    const SdHandle<sd_event> _event;
    const std::shared_ptr<Mailbox> _mailbox;

    std::thread _thread;
    bool _stopping = false;  ///< on the thread
};

}  // namespace orvex::platform
