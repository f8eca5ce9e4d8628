#include "platform/linux/stored_background_session.h"

#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "platform/age.h"
#include "platform/counters.h"
#include "platform/file_manager.h"
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

constexpr std::string_view timedOutCounter = "com.kelvar.orvexd.transfer.dropped.timeout";
constexpr std::string_view tooManyCounter = "com.kelvar.orvexd.transfer.dropped.tasks";
constexpr std::string_view tooMuchCounter = "com.kelvar.orvexd.transfer.dropped.spool";

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
    const WallTime date = _services.dispatcher.wallNow();
    const double wallNow = secondsSince1970(date);
    const auto moment = [&, now = _services.dispatcher.now()](double when, double atMost) {
        const std::chrono::duration<double> left(std::clamp(when - wallNow, 0.0, std::max(atMost, 0.0)));
        return now + std::chrono::duration_cast<std::chrono::nanoseconds>(left);
    };
    const double whole = static_cast<double>(_configuration.resourceTimeout.count());
    const double created = wallNow - ageOf(stored.created, date).count();
    const double delay =
        stored.earliestBegin ? secondsSince1970(*stored.earliestBegin) - secondsSince1970(stored.created) : 0;
    const double begin = created + delay;
    const double window = static_cast<double>(stored.request.timeWindow.value_or(usualWindow).count());
    TransferMoments moments{.windowEnd = moment(begin + window, std::min(delay + window, whole)),
                            .deadline = moment(created + whole, whole)};
    if (stored.earliestBegin) moments.earliestBegin = moment(begin, std::min(delay, whole));
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
    // Made while the store could not be opened, it may have a number that a stored task has.
    if (_entries.contains(task->identifier())) return failure(EEXIST, "the task's number is taken");
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
        if (entry.task->state() >= State::ended) continue;
        ++tasks;
        bytes += entry.stored.bodyBytes;
    }
    for (auto& [number, entry] : _entries) {
        if (tasks <= _configuration.maxTasks && bytes <= _configuration.maxSpoolBytes) return;
        if (entry.task->state() >= State::ended) continue;
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
