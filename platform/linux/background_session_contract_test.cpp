// What holds for every background session, the real one over a network of the test's and the fake one.

#include <gtest/gtest.h>

#include <cerrno>

#include "platform/counters.h"
#include "platform/fakes/fake_background_session.h"
#include "platform/fakes/fake_file_manager.h"
#include "platform/fakes/manual_dispatcher.h"
#include "platform/fakes/temporary_directory.h"
#include "platform/file_manager.h"
#include "platform/linux/background_session_factory.h"

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;

/// Writes down what it hears, one text a call, and takes downloads to "taken" in the state directory.
class RecordingDelegate final : public BackgroundSessionDelegate {
public:
    explicit RecordingDelegate(FileManager& files) : _files(files) {}

    void willBeginDelayedRequest(const std::shared_ptr<BackgroundTask>& task, const URLRequest& request,
                                 Begin begin) override {
        heard.push_back("will begin " + request.url);
        EXPECT_EQ(task->state(), BackgroundTaskState::beginning);
        if (asked) return asked(std::move(begin));
        begin(std::nullopt);
    }
    void didFinishDownloading(const std::shared_ptr<BackgroundTask>& task, DownloadedFile& file) override {
        heard.push_back("finished " + std::to_string(task->response().value_or(URLResponse{}).statusCode));
        auto state = _files.stateDirectory();
        const auto moved = file.moveTo(**state, "taken");
        EXPECT_TRUE(moved) << moved.error().text;
        heard.push_back((*state)->read("taken", 1000).value_or("nothing"));
    }
    void didComplete(const std::shared_ptr<BackgroundTask>& task, std::optional<TransportError> error) override {
        const std::int64_t status = task->response().value_or(URLResponse{}).statusCode;
        heard.push_back("completed " + std::to_string(error ? std::int64_t{error->code} : status));
        EXPECT_EQ(task->state(), BackgroundTaskState::ended);
        last = task;
    }

    std::vector<std::string> heard;
    std::shared_ptr<BackgroundTask> last;
    std::function<void(Begin)> asked;

private:
    FileManager& _files;
};

class FakeSubject {
public:
    std::shared_ptr<BackgroundSession> make(Dispatcher& time, std::weak_ptr<BackgroundSessionDelegate> delegate) {
        _factory = std::make_unique<FakeBackgroundSessionFactory>(time, _files);
        auto session = _factory->makeSession({.identifier = "test"}, std::move(delegate));
        _factory->startUpIsThrough();
        return session;
    }
    FileManager& files() { return _files; }
    void answer(FakeAnswer answer) { _factory->session("test")->answer(std::move(answer)); }
    /// Of each request on the wire, its URL and body.
    std::vector<std::string> sent() {
        std::vector<std::string> all;
        for (const auto& sent : _factory->session("test")->sent()) all.push_back(sent.request.url + " " + sent.body);
        return all;
    }

private:
    FakeFileManager _files;
    std::unique_ptr<FakeBackgroundSessionFactory> _factory;
};

/// The real one, over a network that is the test.
class RealSubject {
public:
    std::shared_ptr<BackgroundSession> make(Dispatcher& time, std::weak_ptr<BackgroundSessionDelegate> delegate) {
        _network = std::make_unique<FakeURLSessionFactory>(time);
        _factory = std::make_unique<StoredBackgroundSessionFactory>(
            StoredBackgroundSession::Services{.dispatcher = time,
                                              .files = *_files,
                                              .urlSessions = *_network,
                                              .conditions = _conditions,
                                              .counters = _counters,
                                              .transactions = std::make_shared<Transactions>(time),
                                              .draw = [] { return 0.5; }});
        auto session = _factory->makeSession({.identifier = "test"}, std::move(delegate));
        _factory->startUpIsThrough();
        return session;
    }
    FileManager& files() { return *_files; }
    void answer(FakeAnswer answer) { _network->session("test")->answer(std::move(answer)); }
    std::vector<std::string> sent() {
        std::vector<std::string> all;
        const auto network = _network->session("test");
        if (!network) return all;
        for (const auto& sent : network->sent()) all.push_back(sent.request.url + " " + sent.request.body);
        return all;
    }

private:
    TemporaryDirectory _home;
    std::unique_ptr<FileManager> _files = fileManagerBelow(_home.path());
    DeviceConditions _conditions;
    Counters _counters;
    std::unique_ptr<FakeURLSessionFactory> _network;
    std::unique_ptr<StoredBackgroundSessionFactory> _factory;
};

template <class Subject>
class BackgroundSessionContractTest : public testing::Test {
protected:
    using Texts = std::vector<std::string>;

    BackgroundSessionContractTest() {
        auto state = subject.files().stateDirectory();
        EXPECT_TRUE((*state)->makeDirectory("tmp"));
    }

    void write(const std::string& file, const std::string& bytes) {
        EXPECT_TRUE((*subject.files().stateDirectory())->replace(file, bytes));
    }
    bool exists(const std::string& file) { return (*subject.files().stateDirectory())->attributes(file).has_value(); }
    std::shared_ptr<BackgroundTask> upload(const std::string& body) {
        write("tmp/body", body);
        return session->uploadTask({.url = "https://server.example/up", .method = "POST"}, "tmp/body");
    }
    std::shared_ptr<BackgroundTask> download() { return session->downloadTask({.url = "https://server.example/down"}); }
    void resume(BackgroundTask& task) {
        const auto resumed = task.resume();
        EXPECT_TRUE(resumed) << resumed.error().text;
        time.runPending();
    }
    void answer(FakeAnswer answer) {
        subject.answer(std::move(answer));
        time.runPending();
    }
    std::vector<std::uint64_t> allTasks() {
        std::vector<std::uint64_t> identifiers;
        session->getAllTasks([&](const BackgroundTasks& tasks) {
            for (const auto& task : tasks) identifiers.push_back(task->identifier());
        });
        time.runPending();
        return identifiers;
    }

    ManualDispatcher time;
    Subject subject;
    const std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>(subject.files());
    std::shared_ptr<BackgroundSession> session = subject.make(time, delegate);
};

using Subjects = testing::Types<FakeSubject, RealSubject>;
TYPED_TEST_SUITE(BackgroundSessionContractTest, Subjects);

TYPED_TEST(BackgroundSessionContractTest, AnUploadTakesItsFileAndHasOneEnd) {
    const auto task = this->upload("records");
    task->setNumberOfFeedbacks(7);
    ASSERT_TRUE(task->resume());
    EXPECT_FALSE(this->exists("tmp/body"));
    EXPECT_TRUE(this->subject.sent().empty());  // never inside the call
    EXPECT_EQ(task->resume().error().code, EINVAL);

    this->time.runPending();
    EXPECT_EQ(this->subject.sent(), (std::vector<std::string>{"https://server.example/up records"}));
    EXPECT_EQ(task->state(), BackgroundTaskState::running);
    this->answer({.statusCode = 500, .headers = {{"X-Why", "tired"}}});
    EXPECT_EQ(this->delegate->heard, (std::vector<std::string>{"completed 500"}));
    EXPECT_EQ(this->delegate->last, task);
    EXPECT_EQ(task->numberOfFeedbacks(), 7u);
    EXPECT_EQ(headerValue(task->response()->headers, "x-why"), "tired");
    EXPECT_EQ(task->state(), BackgroundTaskState::told);
    task->cancel();
    this->time.runPending();
    EXPECT_EQ(this->delegate->heard.size(), 1u);
}

TYPED_TEST(BackgroundSessionContractTest, ADownloadIsFinishedToAFileBeforeItIsCompleted) {
    const auto task = this->download();
    this->resume(*task);
    this->answer({.body = "bytes", .url = "https://other.example/there"});
    EXPECT_EQ(this->delegate->heard, (std::vector<std::string>{"finished 200", "bytes", "completed 200"}));
    EXPECT_EQ(task->originalRequest().url, "https://server.example/down");
    EXPECT_EQ(task->currentRequest().url, "https://other.example/there");

    this->delegate->heard.clear();
    this->resume(*this->download());
    this->answer({.statusCode = 304});
    EXPECT_EQ(this->delegate->heard, (std::vector<std::string>{"finished 304", "", "completed 304"}));
}

TYPED_TEST(BackgroundSessionContractTest, WhatCannotBeStoredIsRefusedAndLeftAlone) {
    EXPECT_EQ(this->session->uploadTask({.url = "https://server.example/"}, "tmp/absent")->resume().error().code,
              ENOENT);
    this->write("tmp/body", "records");
    for (const auto& request : {URLRequest{.url = "http://server.example/"},
                                URLRequest{.url = "https://server.example/", .headers = {{"X-Key", "a\nb"}}}})
        EXPECT_EQ(this->session->uploadTask(request, "tmp/body")->resume().error().code, EINVAL);
    EXPECT_TRUE(this->exists("tmp/body"));
    EXPECT_TRUE(this->allTasks().empty());
    EXPECT_TRUE(this->session->pendingTransfers().empty());
    EXPECT_TRUE(this->delegate->heard.empty());
}

TYPED_TEST(BackgroundSessionContractTest, ADelayedRequestMayBeReplacedWhenItBegins) {
    const auto task = this->download();
    task->setEarliestBeginDate(this->time.wallNow() + 60s);
    this->delegate->asked = [](BackgroundSessionDelegate::Begin begin) {
        begin(URLRequest{.url = "https://server.example/fresh"});
    };
    this->resume(*task);
    this->time.advance(59s);
    EXPECT_TRUE(this->delegate->heard.empty());
    EXPECT_EQ(task->state(), BackgroundTaskState::waiting);
    this->time.advance(2s);
    EXPECT_EQ(this->delegate->heard, (std::vector<std::string>{"will begin https://server.example/down"}));
    EXPECT_EQ(this->subject.sent(), (std::vector<std::string>{"https://server.example/fresh "}));
    EXPECT_EQ(task->originalRequest().url, "https://server.example/down");
    EXPECT_EQ(task->currentRequest().url, "https://server.example/fresh");
}

TYPED_TEST(BackgroundSessionContractTest, ACancelledTaskEndsOnceInWhateverStateItWas) {
    this->download()->cancel();  // never resumed, so never heard of
    const auto running = this->download();
    this->resume(*running);
    const auto waiting = this->download();
    waiting->setEarliestBeginDate(this->time.wallNow() + 60s);
    this->resume(*waiting);
    const auto beginning = this->download();
    beginning->setEarliestBeginDate(this->time.wallNow());
    BackgroundSessionDelegate::Begin late;
    this->delegate->asked = [&](BackgroundSessionDelegate::Begin begin) { late = std::move(begin); };
    this->resume(*beginning);
    ASSERT_EQ(beginning->state(), BackgroundTaskState::beginning);
    EXPECT_EQ(this->allTasks().size(), 3u);

    this->delegate->heard.clear();
    for (const auto& task : {running, waiting, beginning, running}) task->cancel();
    EXPECT_TRUE(this->delegate->heard.empty());  // never inside the call
    late(std::nullopt);
    this->time.advance(10min);
    EXPECT_EQ(this->delegate->heard, (std::vector<std::string>{"completed -999", "completed -999", "completed -999"}));
    EXPECT_EQ(this->subject.sent().size(), 1u);
    EXPECT_TRUE(this->allTasks().empty());
}

TYPED_TEST(BackgroundSessionContractTest, ItsTasksAreListedOldestFirst) {
    const auto first = this->upload("abc");
    this->resume(*first);
    const auto second = this->download();
    this->resume(*second);
    EXPECT_EQ(this->allTasks(), (std::vector<std::uint64_t>{first->identifier(), second->identifier()}));
    const auto pending = this->session->pendingTransfers();
    ASSERT_EQ(pending.size(), 2u);
    EXPECT_EQ(pending[0].identifier, "test/" + std::to_string(first->identifier()));
    EXPECT_EQ(pending[0].bytes, 3u);
    EXPECT_EQ(pending[1].url, "https://server.example/down");
    this->answer({});
    EXPECT_EQ(this->allTasks(), (std::vector<std::uint64_t>{second->identifier()}));
}

}  // namespace
}  // namespace orvex::platform
