#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "platform/background_session.h"
#include "platform/device_conditions.h"
#include "platform/dispatch.h"
#include "platform/linux/transfer_runner.h"
#include "platform/linux/transfer_spool.h"
#include "platform/linux/transfer_store.h"
#include "platform/session_back_off.h"
#include "platform/thread_annotations.h"
#include "platform/transactions.h"
#include "platform/transfer_schedule.h"

namespace orvex::platform {

class Counters;
class StoredBackgroundTask;

/// The background session: keeps its tasks in a store and a spool, and runs their attempts on an HTTP session of its
/// own, which is made with the first. The states of a task are BackgroundTaskState's; here is what changes them:
///
///     accept ─▶ waiting ──_schedule finds nothing to wait for──▶ _begin: beginning, if it was delayed
///     _send ─▶ running ──_attemptEnded──▶ _tryAgain: waiting, or _end: ended ──_deliver──▶ told, _forget
///
/// `_schedule` follows every event, and sets the one timer to the next moment that could change its mind; while tasks
/// wait for an event there is none.
///
/// Threading: callable from any thread. Its queue never waits for another; delegates are called on a second one.
class StoredBackgroundSession final : public BackgroundSession,
                                      public std::enable_shared_from_this<StoredBackgroundSession> {
public:
    struct Services {
        Dispatcher& dispatcher;
        FileManager& files;
        URLSessionFactory& urlSessions;
        DeviceConditions& conditions;
        Counters& counters;
        std::shared_ptr<Transactions> transactions;
        SessionBackOff::Draw draw;
    };
    /// "com.kelvar.orvexd.transfer" while a task is under way, or may be within `soon`.
    static constexpr std::chrono::seconds soon{120};

    static std::shared_ptr<StoredBackgroundSession> create(Services services,
                                                           BackgroundSessionConfiguration configuration,
                                                           std::weak_ptr<BackgroundSessionDelegate> delegate);
    ~StoredBackgroundSession() override;

    /// Where the tasks of `identifier` are, as a path in the state directory.
    static std::string place(std::string_view identifier) { return "transfers/" + std::string(identifier); }

    std::shared_ptr<BackgroundTask> uploadTask(URLRequest request, std::string file) override;
    std::shared_ptr<BackgroundTask> downloadTask(URLRequest request) override;
    void getAllTasks(std::move_only_function<void(BackgroundTasks tasks)> completion) override;
    [[nodiscard]] std::vector<PendingTransfer> pendingTransfers() const override;

    void startUpIsThrough();

    // For its tasks.
    [[nodiscard]] Result<void> accept(const std::shared_ptr<StoredBackgroundTask>& task);
    void cancel(std::uint64_t number);

private:
    struct Entry {
        std::shared_ptr<StoredBackgroundTask> task;
        StoredTransfer stored;
        TransferMoments moments;
        bool wasAsked = false;      ///< its delegate, for the request to send
        std::uint64_t attempt = 0;  ///< changes when an attempt is given up: what it still tells is not heard
        std::shared_ptr<URLSessionTask> transfer;
        MonotonicTime attemptBegan;
        std::optional<URLResponse> lastAnswer;
        std::string lastFailure;
        std::optional<TransferWait> wait;
    };

    StoredBackgroundSession(Services services, BackgroundSessionConfiguration configuration,
                            std::weak_ptr<BackgroundSessionDelegate> delegate);

    [[nodiscard]] std::shared_ptr<BackgroundTask> _makeTask(TransferDirection direction, URLRequest request,
                                                            std::string file);
    [[nodiscard]] Result<void> _open() ORX_REQUIRES(_queue);
    void _takeUp(StoredTransfer stored) ORX_REQUIRES(_queue);
    void _add(std::shared_ptr<StoredBackgroundTask> task, StoredTransfer stored) ORX_REQUIRES(_queue);
    [[nodiscard]] Result<void> _accept(const std::shared_ptr<StoredBackgroundTask>& task) ORX_REQUIRES(_queue);
    [[nodiscard]] Result<void> _keep(StoredTransfer& stored, const std::string& file) ORX_REQUIRES(_queue);
    void _keepQuota() ORX_REQUIRES(_queue);
    [[nodiscard]] Entry* _live(std::uint64_t number) ORX_REQUIRES(_queue);

    void _schedule() ORX_REQUIRES(_queue);
    void _endOverdue() ORX_REQUIRES(_queue);
    void _armTimer() ORX_REQUIRES(_queue);
    void _keepTransaction() ORX_REQUIRES(_queue);
    [[nodiscard]] TransferSituation _situation() const ORX_REQUIRES(_queue);
    void _conditionsChanged() ORX_REQUIRES(_queue);

    void _begin(Entry& entry) ORX_REQUIRES(_queue);
    void _askDelegate(Entry& entry) ORX_REQUIRES(_queue);
    void _answered(std::uint64_t number, std::optional<URLRequest> replacement) ORX_REQUIRES(_queue);
    void _send(Entry& entry) ORX_REQUIRES(_queue);
    [[nodiscard]] TransferRunner::Order _order(const Entry& entry) ORX_REQUIRES(_queue);
    void _giveUpAttempt(Entry& entry) ORX_REQUIRES(_queue);
    void _attemptEnded(std::uint64_t number, std::uint64_t attempt, TransferAnswer answer) ORX_REQUIRES(_queue);
    void _tryAgain(Entry& entry, TransferAnswer answer) ORX_REQUIRES(_queue);
    void _finish(Entry& entry, TransferAnswer answer) ORX_REQUIRES(_queue);
    void _end(Entry& entry, StoredTransfer::End end) ORX_REQUIRES(_queue);
    void _drop(Entry& entry, std::string_view counter, std::string why) ORX_REQUIRES(_queue);
    void _deliver(const Entry& entry) ORX_REQUIRES(_queue);
    void _forget(std::uint64_t number) ORX_REQUIRES(_queue);
    [[nodiscard]] PendingTransfer _pending(const Entry& entry) const ORX_REQUIRES(_queue);

    // Constant after construction.
    const Services _services;
    const BackgroundSessionConfiguration _configuration;
    const std::weak_ptr<BackgroundSessionDelegate> _delegate;
    const TransferRules _rules;

    // Synchronised by themselves.
    mutable SerialQueue _queue;
    SerialQueue _delegateQueue;
    std::unique_ptr<DeviceConditions::Observation> _observation;

    // On the queue.
    std::unique_ptr<TransferStore> _store ORX_GUARDED_BY(_queue);  ///< null, as the two below: it could not be opened
    std::shared_ptr<TransferSpool> _spool ORX_GUARDED_BY(_queue);
    std::unique_ptr<TransferRunner> _runner ORX_GUARDED_BY(_queue);
    std::uint64_t _lastNumber ORX_GUARDED_BY(_queue) = 0;
    std::map<std::uint64_t, Entry> _entries ORX_GUARDED_BY(_queue);  ///< resumed and not told
    SessionBackOff _backOff ORX_GUARDED_BY(_queue);
    bool _mayTell ORX_GUARDED_BY(_queue) = false;
    Transaction _transaction ORX_GUARDED_BY(_queue);
    Timer _timer ORX_GUARDED_BY(_queue);
};

}  // namespace orvex::platform
