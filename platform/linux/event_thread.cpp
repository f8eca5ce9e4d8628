#include "platform/linux/event_thread.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <systemd/sd-event.h>

#include <cstdlib>
#include <future>
#include <system_error>

#include "platform/log.h"

// A post costs one write to the eventfd, and only when the mailbox was empty: whatever is posted until the thread has
// taken it travels with that one wake-up. The descriptor is watched edge-triggered, so the thread needs no read either.

namespace orvex::platform {
namespace {

std::string errorText(int code) { return std::generic_category().message(code); }

}  // namespace

void EventThread::Mailbox::run(Work work) {
    if (!isCurrent()) {
        if (_post(std::move(work))) ::eventfd_write(_wakeUp.get(), 1);
        return;
    }
    if (_draining) {
        _post(std::move(work));
        return;
    }
    _drain();
    work();
}

bool EventThread::Mailbox::_post(Work work) {
    const MutexLock lock(_mutex);
    if (_closed) return false;
    _posted.push_back(std::move(work));
    return _posted.size() == 1;
}

void EventThread::Mailbox::_drain() {
    _draining = true;
    for (;;) {
        {
            const MutexLock lock(_mutex);
            _batch.swap(_posted);
        }
        if (_batch.empty()) break;
        for (auto& work : _batch) {
            work();
            work = nullptr;  // what it held goes before the next one runs
        }
        _batch.clear();
    }
    _draining = false;
}

void EventThread::Mailbox::_close() {
    std::vector<Work> dropped;  // destroyed without the lock: it may post
    const MutexLock lock(_mutex);
    _closed = true;
    dropped.swap(_posted);
}

Result<std::unique_ptr<EventThread>> EventThread::create(const char* name) {
    sd_event* made = nullptr;
    if (const int r = sd_event_new(&made); r < 0) return failure(-r, std::string("no event loop: ") + errorText(-r));
    SdHandle<sd_event> event(made);

    FileDescriptor wakeUp(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wakeUp.valid()) return failure(errno, std::string("no eventfd: ") + errorText(errno));
    const int descriptor = wakeUp.get();
    std::shared_ptr<Mailbox> mailbox(new Mailbox(std::move(wakeUp)));

    const auto drain = [](sd_event_source*, int, std::uint32_t, void* userdata) {
        static_cast<Mailbox*>(userdata)->_drain();
        return 0;
    };
    // A floating source: the loop owns it.
    const int r = sd_event_add_io(event.get(), nullptr, descriptor, EPOLLIN | EPOLLET, drain, mailbox.get());
    if (r < 0) return failure(-r, std::string("the eventfd cannot be watched: ") + errorText(-r));
    return std::unique_ptr<EventThread>(new EventThread(name, std::move(event), std::move(mailbox)));
}

EventThread::EventThread(const char* name, SdHandle<sd_event> event, std::shared_ptr<Mailbox> mailbox)
    : _name(name),
      _event(std::move(event)),
      _mailbox(std::move(mailbox)) {}

EventThread::~EventThread() { stop(); }

void EventThread::start() {
    _thread = std::thread([this] { _loop(); });
}

void EventThread::stop() {
    if (!_thread.joinable()) return;
    _mailbox->run([this] { _stopping = true; });
    _thread.join();
}

Result<void> EventThread::sync(std::move_only_function<Result<void>()> work) {
    if (!_thread.joinable() || _mailbox->isCurrent()) return work();
    std::promise<Result<void>> promise;
    auto result = promise.get_future();
    _mailbox->run([&work, promise = std::move(promise)]() mutable { promise.set_value(work()); });
    try {
        return result.get();
    } catch (const std::future_error&) {  // destroyed unrun
        return failure(ESHUTDOWN, std::string("the thread ") + _name + " has ended");
    }
}

void EventThread::_loop() {
    ::pthread_setname_np(::pthread_self(), _name);
    _mailbox->_owner = std::this_thread::get_id();
    while (!_stopping) {
        const int r = sd_event_run(_event.get(), UINT64_MAX);
        if (r >= 0 || r == -EINTR) continue;
        defaultLogger().fault("the event loop of {} failed: {}", _name, errorText(-r));
        break;
    }
    _mailbox->_owner = std::thread::id();
    _mailbox->_close();
}

void EventThread::assertCurrent() const {
    if (_mailbox->isCurrent() || !_thread.joinable()) return;
    defaultLogger().fault("work of the thread {} runs on another one", _name);
    std::abort();
}

}  // namespace orvex::platform
