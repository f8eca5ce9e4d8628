#include <fmt/core.h>

#include <cerrno>

#include "platform/counters.h"
#include "platform/linux/spooled_download.h"
#include "platform/linux/stored_background_session.h"
#include "platform/linux/stored_background_task.h"
#include "platform/log.h"
#include "platform/log_events.h"

// The session's attempts, and the ends that they lead to.

namespace orvex::platform {
namespace {

using State = BackgroundTaskState;

constexpr std::string_view retriedCounter = "com.kelvar.orvexd.transfer.retried";
constexpr std::string_view bodyLostCounter = "com.kelvar.orvexd.transfer.dropped.body";

}  // namespace

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
    // While the delegate thought, the network may have become metered, or the session have begun to back off.
    entry->task->moveTo(State::waiting);
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
                    if (task->state() == State::told) return;  // of an attempt that was given up
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
    _spool->removeDownload(entry.stored.number);  // the next attempt begins anew
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
    _spool->removeDownload(entry.stored.number);
    _services.counters.add(retriedCounter);
    // Without a network it is no server that fails, and the network's return is what is waited for.
    if (_services.conditions.current().isConnected) {
        const bool wasSteady = !_backOff.nextAttempt();
        _backOff.failed({.began = entry.attemptBegan, .failed = now, .retryAfter = asked});
        if (wasSteady) {
            defaultLogger()
                .as(LogEvent::transfersBackingOff,
                    {{"ORVEX_SESSION", _configuration.identifier}, {"ORVEX_REASON", entry.lastFailure}})
                .error("the transfers of {} are backing off: {}", _configuration.identifier, entry.lastFailure);
        }
    }
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
    defaultLogger()
        .as(LogEvent::transferDropped, {{"ORVEX_REASON", why}})
        .error("background task {} of {} is dropped: {}", entry.stored.number, _configuration.identifier, why);
    _end(entry,
         {.response = entry.lastAnswer,
          .error = TransportError{.code = TransportError::other, .reason = std::move(why), .isPermanent = true}});
}

void StoredBackgroundSession::_end(Entry& entry, StoredTransfer::End end) {
    const std::uint64_t number = entry.stored.number;
    const auto stored = _store->setEnd(number, end);
    if (!stored) defaultLogger().error("{}", stored.error().text);
    if (end.response) entry.task->setResponse(*end.response);
    entry.stored.end = std::move(end);
    entry.task->moveTo(State::ended);
    // An end that could not be stored comes once more after a restart, and needs the body for that.
    if (stored) _spool->removeBody(number);
    if (entry.stored.end->error) _spool->removeDownload(number);
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
                // No file: the delegate of a killed process took it, before it heard the end.
                const auto file = SpooledDownload::open(spool, task->identifier());
                if (file)
                    delegate->didFinishDownloading(task, **file);
                else if (file.error().code != ENOENT)
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
    if (const auto removed = _store->remove(number)) {
        _spool->removeBody(number);
        _spool->removeDownload(number);
    } else {
        defaultLogger().error("{}", removed.error().text);
    }
    _keepTransaction();
}

}  // namespace orvex::platform
