#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/background_session.h"
#include "platform/dispatch.h"
#include "platform/fakes/fake_url_session.h"

namespace orvex::platform {

class FakeBackgroundTask;
class FileManager;

/// A background session whose server is the test, and whose store is its own memory: nothing outlives it. A task that
/// begins gets the script's answer, or is held until the test answers it or it is cancelled. A delayed one begins when
/// its date has come by the dispatcher's clock, and its delegate is asked before. There is no retry, no time-out and no
/// quota; the delegate hears ends at once, whether start-up is through or not.
///
/// It aborts, with a reason, on an answer that the real one would try again, on one that meets no held task, and on
/// settings after `resume`.
///
/// Threading: one thread at a time; the script is called on the delegate queue.
class FakeBackgroundSession final : public BackgroundSession,
                                    public std::enable_shared_from_this<FakeBackgroundSession> {
public:
    struct Sent {
        std::shared_ptr<BackgroundTask> task;
        URLRequest request;  ///< as it would have reached the wire
        std::string body;    ///< of the uploaded file
    };
    /// None: the task is held.
    using Script = std::function<std::optional<FakeAnswer>(const Sent& sent)>;

    FakeBackgroundSession(Dispatcher& dispatcher, FileManager& files, BackgroundSessionConfiguration configuration,
                          std::weak_ptr<BackgroundSessionDelegate> delegate);
    ~FakeBackgroundSession() override;

    std::shared_ptr<BackgroundTask> uploadTask(URLRequest request, std::string file) override;
    std::shared_ptr<BackgroundTask> downloadTask(URLRequest request) override;
    void getAllTasks(std::move_only_function<void(BackgroundTasks tasks)> completion) override;
    [[nodiscard]] std::vector<PendingTransfer> pendingTransfers() const override;

    void setScript(Script script) { _script = std::move(script); }  ///< none: every task is held
    void answer(FakeAnswer answer);                                 ///< to the task that has been held longest
    void sendBody(std::uint64_t bytes);                             ///< of that task: progress, up to the whole body
    void refuseNextResume(Failure why) { _refusal = std::move(why); }
    void invalidate(std::optional<TransportError> error);

    [[nodiscard]] BackgroundTasks held() const;                            ///< that wait for an answer
    [[nodiscard]] const std::vector<Sent>& sent() const { return _sent; }  ///< every task that began, in order
    void forgetSent() { _sent.clear(); }
    [[nodiscard]] const BackgroundSessionConfiguration& configuration() const { return _configuration; }

private:
    friend class FakeBackgroundTask;
    [[nodiscard]] std::shared_ptr<FakeBackgroundTask> _makeTask(TransferDirection direction, URLRequest request,
                                                                std::string file);
    [[nodiscard]] Result<std::string> _store(const std::shared_ptr<FakeBackgroundTask>& task, const std::string& file);
    void _begin(const std::shared_ptr<FakeBackgroundTask>& task);
    void _send(const std::shared_ptr<FakeBackgroundTask>& task, URLRequest request);
    void _end(const std::shared_ptr<FakeBackgroundTask>& task, FakeAnswer answer);
    [[nodiscard]] std::shared_ptr<FakeBackgroundTask> _longestHeld() const;

    // Constant after construction.
    FileManager& _files;
    const BackgroundSessionConfiguration _configuration;
    const std::weak_ptr<BackgroundSessionDelegate> _delegate;

    // Synchronised by themselves.
    const std::shared_ptr<SerialQueue> _delegateQueue;

    Script _script;
    std::optional<Failure> _refusal;
    std::uint64_t _lastIdentifier = 0;
    std::vector<std::shared_ptr<FakeBackgroundTask>> _tasks;  ///< resumed and not ended
    std::vector<Sent> _sent;
};

/// Makes fake sessions and remembers them by identifier.
class FakeBackgroundSessionFactory final : public BackgroundSessionFactory {
public:
    FakeBackgroundSessionFactory(Dispatcher& dispatcher, FileManager& files) : _dispatcher(dispatcher), _files(files) {}

    std::shared_ptr<BackgroundSession> makeSession(BackgroundSessionConfiguration configuration,
                                                   std::weak_ptr<BackgroundSessionDelegate> delegate) override;
    bool hasStoredTasks(std::string_view) override { return false; }
    void startUpIsThrough() override {}

    /// Null when none was made, or it is gone.
    [[nodiscard]] std::shared_ptr<FakeBackgroundSession> session(std::string_view identifier) const;

private:
    Dispatcher& _dispatcher;
    FileManager& _files;
    std::map<std::string, std::weak_ptr<FakeBackgroundSession>, std::less<>> _sessions;
};

}  // namespace orvex::platform
