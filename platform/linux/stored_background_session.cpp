#include "platform/linux/stored_background_session.h"

#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "platform/counters.h"
#include "platform/file_manager.h"
#include "platform/linux/spooled_download.h"
#include "platform/linux/stored_background_task.h"
#include "platform/log.h"
#include "platform/url.h"

// What is on disk is always ahead of what is told: a task is stored before `resume` returns, its end before the
// delegate hears it, and it is forgotten after. So a kill at any moment leads to a task that is tried once more or told
// once more, never to one that is lost.

namespace orvex::platform {
namespace {

using State = BackgroundTaskState;
using namespace std::chrono_literals;

constexpr std::string_view retriedCounter = "com.kelvar.orvexd.transfer.retried";
constexpr std::string_view timedOutCounter = "com.kelvar.orvexd.transfer.dropped.timeout";
constexpr std::string_view tooManyCounter = "com.kelvar.orvexd.transfer.dropped.tasks";
constexpr std::string_view tooMuchCounter = "com.kelvar.orvexd.transfer.dropped.spool";
constexpr std::string_view bodyLostCounter = "com.kelvar.orvexd.transfer.dropped.body";

constexpr std::chrono::seconds usualWindow = std::chrono::days{1};

/// What the disk said, in the system's numbers: SQLite has its own.
std::unexpected<Failure> storingFailed(const Failure& why) {
    return failure(primaryCode(why.code) == SQLITE_FULL ? ENOSPC : EIO, why.text);
}

}  // namespace

std::shared_ptr<StoredBackgroundSession> StoredBackgroundSession::create(
    Services services, BackgroundSessionConfiguration configuration,
    std::weak_ptr<BackgroundSessionDelegate> delegate) {
    const std::shared_ptr<StoredBackgroundSession> session(
        new StoredBackgroundSession(std::move(services), std::move(configuration), std::move(delegate)));
    session->_observation = session->_services.conditions.observe([weak = std::weak_ptr(session)] {
        const auto self = weak.lock();
        if (!self) return;
        self->_queue.async([weak] {
            if (const auto again = weak.lock()) {
                again->_queue.assertCurrent();
                again->_conditionsChanged();
            }
        });
    });
    session->_queue.async([weak = std::weak_ptr(session)] {
        const auto self = weak.lock();
        if (!self) return;
        self->_queue.assertCurrent();
        (void)self->_open();
        self->_schedule();
    });
    return session;
}

StoredBackgroundSession::StoredBackgroundSession(Services services, BackgroundSessionConfiguration configuration,
                                                 std::weak_ptr<BackgroundSessionDelegate> delegate)
    : _services(std::move(services)),
      _configuration(std::move(configuration)),
      _delegate(std::move(delegate)),
      _rules{.waitsForMains = _configuration.discretionary,
             .waitsForUnmetered = !_configuration.allowsExpensiveNetworkAccess},
      _queue(_services.dispatcher, _configuration.identifier + ".transfers", Priority::background),
      _delegateQueue(_services.dispatcher, _configuration.identifier + ".delegate", Priority::background),
      _backOff(_services.draw),
      _timer(_queue) {}

StoredBackgroundSession::~StoredBackgroundSession() {
    _observation.reset();
    _queue.close();
    _delegateQueue.close();
}

// Taking up and taking in.

Result<void> StoredBackgroundSession::_open() {
    if (_store) return {};
    const auto failed = [](const Failure& why) {
        defaultLogger().error("no transfers can be kept: {}", why.text);
        return std::unexpected(why);
    };
    auto state = _services.files.stateDirectory();
    if (!state) return failed(state.error());
    auto spool = TransferSpool::open(*state, place(_configuration.identifier));
    if (!spool) return failed(spool.error());
    auto directory = (*state)->directory(place(_configuration.identifier));
    if (!directory) return failed(directory.error());
    auto store = std::make_unique<TransferStore>(*directory, _services.counters);
    auto stored = store->open();
    if (!stored) return failed({EIO, stored.error().text});

    _store = std::move(store);
    _spool = *std::move(spool);
    _runner = std::make_unique<TransferRunner>(_services.urlSessions, _configuration, _spool);
    _lastNumber = std::max(_lastNumber, _store->lastNumber());
    std::set<std::uint64_t> numbers;
    for (const auto& transfer : *stored) numbers.insert(transfer.number);
    _spool->removeAllBut(numbers);
    for (auto& transfer : *stored) _takeUp(std::move(transfer));
    return {};
}

void StoredBackgroundSession::_takeUp(StoredTransfer stored) {
    const auto state = stored.end ? State::ended : State::waiting;
    const std::uint64_t number = stored.number;
    auto task = std::make_shared<StoredBackgroundTask>(weak_from_this(), stored, std::string(), state);
    _add(std::move(task), std::move(stored));
    defaultLogger().info("background task {} of {} is taken up: {}", number, _configuration.identifier, name(state));
    if (state == State::ended && _mayTell) _deliver(_entries.at(number));
}

void StoredBackgroundSession::_add(std::shared_ptr<StoredBackgroundTask> task, StoredTransfer stored) {
    // In doubles and between limits: the dates may be any, and the clock may have been set since.
    const double wallNow = secondsSince1970(_services.dispatcher.wallNow());
    const auto moment = [&, now = _services.dispatcher.now()](double date, double atMost) {
        const std::chrono::duration<double> left(std::clamp(date - wallNow, 0.0, std::max(atMost, 0.0)));
        return now + std::chrono::duration_cast<std::chrono::nanoseconds>(left);
    };
    const double whole = static_cast<double>(_configuration.resourceTimeout.count());
    const double created = secondsSince1970(stored.created);
    const double begin = stored.earliestBegin ? secondsSince1970(*stored.earliestBegin) : created;
    const double window = static_cast<double>(stored.request.timeWindow.value_or(usualWindow).count());
    TransferMoments moments{.windowEnd = moment(begin + window, begin + window - created),
                            .deadline = moment(created + whole, whole)};
    if (stored.earliestBegin) moments.earliestBegin = moment(begin, std::min(begin - created, whole));
    const std::uint64_t number = stored.number;
    _entries[number] = Entry{.task = std::move(task), .stored = std::move(stored), .moments = moments};
}

std::shared_ptr<BackgroundTask> StoredBackgroundSession::_makeTask(TransferDirection direction, URLRequest request,
                                                                   std::string file) {
    StoredTransfer stored{.direction = direction, .request = std::move(request)};
    stored.number = _queue.sync([this] {
        _queue.assertCurrent();
        (void)_open();
        return ++_lastNumber;
    });
    return std::make_shared<StoredBackgroundTask>(weak_from_this(), stored, std::move(file), State::made);
}

std::shared_ptr<BackgroundTask> StoredBackgroundSession::uploadTask(URLRequest request, std::string file) {
    return _makeTask(TransferDirection::upload, std::move(request), std::move(file));
}

std::shared_ptr<BackgroundTask> StoredBackgroundSession::downloadTask(URLRequest request) {
    return _makeTask(TransferDirection::download, std::move(request), {});
}

Result<void> StoredBackgroundSession::accept(const std::shared_ptr<StoredBackgroundTask>& task) {
    const auto& request = task->originalRequest();
    if (const auto url = parseAcceptableURL(request.url); !url) return failure(EINVAL, url.error().text);
    if (const auto part = unsendablePart(request)) return failure(EINVAL, *part);
    auto accepted = _queue.sync([&] {
        _queue.assertCurrent();
        return _accept(task);
    });
    if (!accepted) return accepted;
    _queue.async([weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        self->_queue.assertCurrent();
        self->_keepQuota();
        self->_schedule();
    });
    return {};
}

Result<void> StoredBackgroundSession::_accept(const std::shared_ptr<StoredBackgroundTask>& task) {
    if (task->state() != State::made) return failure(EINVAL, "the task was resumed before");
    if (auto opened = _open(); !opened) return opened;
    StoredTransfer stored{.number = task->identifier(),
                          .direction = task->direction(),
                          .request = task->originalRequest(),
                          .created = _services.dispatcher.wallNow(),
                          .earliestBegin = task->earliestBegin(),
                          .numberOfFeedbacks = task->numberOfFeedbacks()};
    stored.request.body.clear();
    if (auto kept = _keep(stored, task->file()); !kept) return kept;
    task->moveTo(State::waiting);
    _add(task, std::move(stored));
    _keepTransaction();
    return {};
}

/// Body first, then the task: one without its body must not be found.
Result<void> StoredBackgroundSession::_keep(StoredTransfer& stored, const std::string& file) {
    const bool isUpload = stored.direction == TransferDirection::upload;
    if (isUpload) {
        const auto size = _spool->takeBody(stored.number, file);
        if (!size) return std::unexpected(size.error());
        stored.bodyBytes = *size;
    }
    const bool isTooLarge = stored.bodyBytes > _configuration.maxSpoolBytes;
    const auto inserted =
        isTooLarge ? failure(EFBIG, "the body is larger than all bodies may be") : _store->insert(stored);
    if (inserted) return {};
    if (isUpload) _spool->giveBody(stored.number, file);
    return isTooLarge ? std::unexpected(inserted.error()) : storingFailed(inserted.error());
}

void StoredBackgroundSession::_keepQuota() {
    std::size_t tasks = 0;
    std::uint64_t bytes = 0;
    for (const auto& [number, entry] : _entries) {
        if (entry.task->state() == State::ended) continue;
        ++tasks;
        bytes += entry.stored.bodyBytes;
    }
    for (auto& [number, entry] : _entries) {
        if (tasks <= _configuration.maxTasks && bytes <= _configuration.maxSpoolBytes) return;
        if (entry.task->state() == State::ended) continue;
        const bool tooMany = tasks > _configuration.maxTasks;
        --tasks;
        bytes -= entry.stored.bodyBytes;
        _giveUpAttempt(entry);
        _drop(entry, tooMany ? tooManyCounter : tooMuchCounter,
              tooMany ? "there are too many tasks" : "the bodies of all tasks are too large");
    }
}

// When a task may go.

StoredBackgroundSession::Entry* StoredBackgroundSession::_live(std::uint64_t number) {
    const auto found = _entries.find(number);
    return found == _entries.end() || found->second.task->state() >= State::ended ? nullptr : &found->second;
}

TransferSituation StoredBackgroundSession::_situation() const {
    const auto underWay = std::ranges::count_if(_entries, [](const auto& numbered) {
        const auto state = numbered.second.task->state();
        return state == State::beginning || state == State::running;
    });
    return {.now = _services.dispatcher.now(),
            .conditions = _services.conditions.current(),
            .underWay = static_cast<std::size_t>(underWay),
            .nextAttempt = _backOff.nextAttempt()};
}

void StoredBackgroundSession::_schedule() {
    _endOverdue();
    TransferSituation situation = _situation();
    for (auto& [number, entry] : _entries) {
        if (entry.task->state() != State::waiting) continue;
        entry.wait = transferWait(_rules, entry.moments, situation);
        if (entry.wait) continue;
        _begin(entry);
        situation = _situation();
        if (entry.task->state() == State::waiting) entry.wait = transferWait(_rules, entry.moments, situation);
    }
    _armTimer();
    _keepTransaction();
}

void StoredBackgroundSession::_endOverdue() {
    const auto now = _services.dispatcher.now();
    for (auto& [number, entry] : _entries) {
        if (entry.task->state() >= State::ended || entry.moments.deadline > now) continue;
        _services.counters.add(timedOutCounter);
        _giveUpAttempt(entry);
        _end(entry, {.response = entry.lastAnswer,
                     .error = TransportError{TransportError::timedOut, "no attempt came through in time"}});
    }
}

void StoredBackgroundSession::_armTimer() {
    std::optional<MonotonicTime> next;
    const auto consider = [&next](MonotonicTime moment) { next = next ? std::min(*next, moment) : moment; };
    for (const auto& [number, entry] : _entries) {
        const auto state = entry.task->state();
        if (state >= State::ended) continue;
        consider(entry.moments.deadline);
        if (state == State::waiting && entry.wait && entry.wait->until) consider(*entry.wait->until);
    }
    if (!next) return _timer.cancel();
    _timer.armAt(*next, [weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        self->_queue.assertCurrent();
        self->_schedule();
    });
}

void StoredBackgroundSession::_keepTransaction() {
    const auto now = _services.dispatcher.now();
    const bool isNeeded = std::ranges::any_of(_entries, [&](const auto& numbered) {
        const Entry& entry = numbered.second;
        if (entry.task->state() != State::waiting) return true;
        return !entry.wait || (entry.moments.earliestBegin && entry.wait->until == entry.moments.earliestBegin &&
                               *entry.wait->until <= now + soon);
    });
    if (!isNeeded)
        _transaction.end();
    else if (!_transaction.open())
        _transaction = _services.transactions->begin("com.kelvar.orvexd.transfer");
}

void StoredBackgroundSession::_conditionsChanged() {
    const bool mustStop = _rules.waitsForUnmetered && _services.conditions.current().isMetered;
    for (auto& [number, entry] : _entries) {
        if (!mustStop || entry.task->state() != State::running) continue;
        _giveUpAttempt(entry);
        entry.task->moveTo(State::waiting);
    }
    _schedule();
}

// An attempt.

void StoredBackgroundSession::_begin(Entry& entry) {
    if (!entry.stored.earliestBegin || entry.wasAsked) return _send(entry);
    entry.wasAsked = true;
    entry.task->moveTo(State::beginning);
    _askDelegate(entry);
}

void StoredBackgroundSession::_askDelegate(Entry& entry) {
    // Whoever lets go of the question unanswered answers it with that.
    struct Question {
        std::function<void(std::optional<URLRequest>)> answer;
        explicit Question(std::function<void(std::optional<URLRequest>)> to) : answer(std::move(to)) {}
        ~Question() {
            if (answer) answer(std::nullopt);
        }
        Question(const Question&) = delete;
        Question& operator=(const Question&) = delete;
    };
    const auto question = std::make_shared<Question>(
        [weak = weak_from_this(), number = entry.stored.number](std::optional<URLRequest> replacement) {
            const auto self = weak.lock();
            if (!self) return;
            self->_queue.async([weak, number, replacement = std::move(replacement)]() mutable {
                const auto again = weak.lock();
                if (!again) return;
                again->_queue.assertCurrent();
                again->_answered(number, std::move(replacement));
            });
        });
    _delegateQueue.async([delegate = _delegate, task = entry.task, question] {
        const auto listener = delegate.lock();
        if (!listener) return;
        listener->willBeginDelayedRequest(task, task->originalRequest(),
                                          [question](std::optional<URLRequest> replacement) {
                                              if (const auto answer = std::exchange(question->answer, nullptr))
                                                  answer(std::move(replacement));
                                          });
    });
}

void StoredBackgroundSession::_answered(std::uint64_t number, std::optional<URLRequest> replacement) {
    Entry* entry = _live(number);
    if (entry == nullptr || entry->task->state() != State::beginning) return;
    if (replacement) entry->task->setCurrentRequest(*std::move(replacement));
    _send(*entry);
    _schedule();
}

void StoredBackgroundSession::_send(Entry& entry) {
    entry.task->moveTo(State::running);
    entry.attemptBegan = _services.dispatcher.now();
    ++entry.attempt;
    ++entry.stored.attempts;
    if (const auto counted = _store->setAttempts(entry.stored.number, entry.stored.attempts); !counted)
        defaultLogger().error("{}", counted.error().text);
    auto transfer = _runner->start(_order(entry));
    if (transfer) {
        entry.transfer = *std::move(transfer);
    } else if (entry.stored.direction == TransferDirection::upload) {
        _drop(entry, bodyLostCounter, transfer.error().text);
    } else {
        _tryAgain(entry, {.error = TransportError{TransportError::other, transfer.error().text}});
    }
}

TransferRunner::Order StoredBackgroundSession::_order(const Entry& entry) {
    URLRequest request = entry.task->currentRequest();
    request.body.clear();
    return {
        .number = entry.stored.number,
        .direction = entry.stored.direction,
        .request = std::move(request),
        .timeLeft = entry.moments.deadline - entry.attemptBegan,
        .progress =
            [weak = weak_from_this(), task = entry.task](BackgroundSessionDelegate::BodyProgress progress) {
                const auto self = weak.lock();
                if (!self) return;
                self->_delegateQueue.async([delegate = self->_delegate, task, progress] {
                    if (const auto listener = delegate.lock()) listener->didSendBodyData(task, progress);
                });
            },
        .ended =
            [weak = weak_from_this(), number = entry.stored.number, attempt = entry.attempt](TransferAnswer answer) {
                const auto self = weak.lock();
                if (!self) return;
                self->_queue.async([weak, number, attempt, answer = std::move(answer)]() mutable {
                    const auto again = weak.lock();
                    if (!again) return;
                    again->_queue.assertCurrent();
                    again->_attemptEnded(number, attempt, std::move(answer));
                });
            }};
}

void StoredBackgroundSession::_giveUpAttempt(Entry& entry) {
    ++entry.attempt;
    if (const auto transfer = std::exchange(entry.transfer, nullptr)) transfer->cancel();
}

void StoredBackgroundSession::_attemptEnded(std::uint64_t number, std::uint64_t attempt, TransferAnswer answer) {
    Entry* entry = _live(number);
    if (entry == nullptr || entry->attempt != attempt) return;
    entry->transfer = nullptr;
    if (answer.isTemporary())
        _tryAgain(*entry, std::move(answer));
    else
        _finish(*entry, std::move(answer));
    _schedule();
}

void StoredBackgroundSession::_tryAgain(Entry& entry, TransferAnswer answer) {
    const auto now = _services.dispatcher.now();
    std::optional<std::chrono::seconds> asked;
    if (answer.response && !answer.error) asked = retryAfter(answer.response->headers, _services.dispatcher.wallNow());
    entry.lastFailure = answer.error ? answer.error->reason : fmt::format("status {}", answer.response->statusCode);
    if (answer.response) entry.lastAnswer = std::move(answer.response);
    entry.task->moveTo(State::waiting);
    _services.counters.add(retriedCounter);
    // Without a network it is no server that fails, and the network's return is what is waited for.
    if (_services.conditions.current().isConnected)
        _backOff.failed({.began = entry.attemptBegan, .failed = now, .retryAfter = asked});
    defaultLogger().debug("attempt {} of background task {} failed, it will be tried again: {}", entry.stored.attempts,
                          entry.stored.number, entry.lastFailure);
}

void StoredBackgroundSession::_finish(Entry& entry, TransferAnswer answer) {
    if (!answer.error && entry.stored.direction == TransferDirection::download) {
        if (const auto synced = _spool->syncDownload(entry.stored.number); !synced)
            return _tryAgain(entry, {.error = TransportError{TransportError::other, synced.error().text}});
    }
    if (!answer.error && answer.response->statusCode < 400) _backOff.succeeded();
    _end(entry, {.response = std::move(answer.response), .error = std::move(answer.error)});
}

// The end.

void StoredBackgroundSession::cancel(std::uint64_t number) {
    _queue.async([weak = weak_from_this(), number] {
        const auto self = weak.lock();
        if (!self) return;
        self->_queue.assertCurrent();
        Entry* entry = self->_live(number);
        if (entry == nullptr) return;
        self->_giveUpAttempt(*entry);
        self->_end(*entry, {.response = {}, .error = TransportError{TransportError::cancelled, "cancelled"}});
        self->_schedule();
    });
}

void StoredBackgroundSession::_drop(Entry& entry, std::string_view counter, std::string why) {
    _services.counters.add(counter);
    defaultLogger().error("background task {} of {} is dropped: {}", entry.stored.number, _configuration.identifier,
                          why);
    _end(entry,
         {.response = entry.lastAnswer,
          .error = TransportError{.code = TransportError::other, .reason = std::move(why), .isPermanent = true}});
}

void StoredBackgroundSession::_end(Entry& entry, StoredTransfer::End end) {
    const std::uint64_t number = entry.stored.number;
    if (const auto stored = _store->setEnd(number, end); !stored) defaultLogger().error("{}", stored.error().text);
    if (end.response) entry.task->setResponse(*end.response);
    entry.stored.end = std::move(end);
    entry.task->moveTo(State::ended);
    if (entry.stored.direction == TransferDirection::upload)
        _spool->removeBody(number);
    else if (entry.stored.end->error)
        _spool->removeDownload(number);
    if (_mayTell) _deliver(entry);
}

void StoredBackgroundSession::startUpIsThrough() {
    _queue.async([weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        self->_queue.assertCurrent();
        if (std::exchange(self->_mayTell, true)) return;
        for (const auto& [number, entry] : self->_entries)
            if (entry.task->state() == State::ended) self->_deliver(entry);
    });
}

void StoredBackgroundSession::_deliver(const Entry& entry) {
    _delegateQueue.async(
        [weak = weak_from_this(), spool = _spool, task = entry.task, error = entry.stored.end->error]() mutable {
            const auto self = weak.lock();
            const auto delegate = self ? self->_delegate.lock() : nullptr;
            if (!delegate) return;  // the next process tells it
            if (task->direction() == TransferDirection::download && !error) {
                if (const auto file = SpooledDownload::open(spool, task->identifier()))
                    delegate->didFinishDownloading(task, **file);
                else
                    error = TransportError{TransportError::other, file.error().text};
            }
            delegate->didComplete(task, std::move(error));
            task->moveTo(State::told);
            self->_queue.async([weak, number = task->identifier()] {
                const auto again = weak.lock();
                if (!again) return;
                again->_queue.assertCurrent();
                again->_forget(number);
            });
        });
}

void StoredBackgroundSession::_forget(std::uint64_t number) {
    _entries.erase(number);
    if (const auto removed = _store->remove(number); !removed) defaultLogger().error("{}", removed.error().text);
    _spool->removeBody(number);
    _spool->removeDownload(number);
    _keepTransaction();
}

// What is asked.

void StoredBackgroundSession::getAllTasks(std::move_only_function<void(BackgroundTasks tasks)> completion) {
    _queue.async([weak = weak_from_this(), completion = std::move(completion)]() mutable {
        const auto self = weak.lock();
        if (!self) return;
        self->_queue.assertCurrent();
        BackgroundTasks tasks;
        for (const auto& [number, entry] : self->_entries)
            if (entry.task->state() < State::ended) tasks.push_back(entry.task);
        self->_delegateQueue.async(
            [completion = std::move(completion), tasks = std::move(tasks)]() mutable { completion(std::move(tasks)); });
    });
}

std::vector<PendingTransfer> StoredBackgroundSession::pendingTransfers() const {
    return _queue.sync([this] {
        _queue.assertCurrent();
        std::vector<PendingTransfer> pending;
        for (const auto& [number, entry] : _entries) pending.push_back(_pending(entry));
        return pending;
    });
}

PendingTransfer StoredBackgroundSession::_pending(const Entry& entry) const {
    const auto state = entry.task->state();
    PendingTransfer pending{.identifier = fmt::format("{}/{}", _configuration.identifier, entry.stored.number),
                            .direction = entry.stored.direction,
                            .url = entry.task->currentRequest().url,
                            .bytes = entry.stored.bodyBytes,
                            .created = entry.stored.created,
                            .attempts = entry.stored.attempts,
                            .nextAttempt = {},
                            .why = std::string(name(state))};
    if (entry.stored.direction == TransferDirection::download)
        if (const auto file = _spool->openDownload(entry.stored.number)) pending.bytes = file->attributes.size;
    if (state == State::waiting && entry.wait) {
        pending.why = fmt::format("waits for {}", entry.wait->why);
        if (entry.wait->until)
            pending.nextAttempt = _services.dispatcher.wallNow() + (*entry.wait->until - _services.dispatcher.now());
    }
    if (!entry.lastFailure.empty()) pending.why += "; last failure: " + entry.lastFailure;
    return pending;
}

}  // namespace orvex::platform
