#include "platform/linux/stored_background_session.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <set>

#include "platform/counters.h"
#include "platform/fakes/fake_url_session.h"
#include "platform/fakes/manual_dispatcher.h"
#include "platform/fakes/recording_log.h"
#include "platform/fakes/temporary_directory.h"
#include "platform/file_manager.h"
#include "platform/linux/background_session_factory.h"
#include "platform/log_events.h"

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;

/// Writes down ends: the task's number, then the error's code or the answer's status, then what it downloaded.
class Ends final : public BackgroundSessionDelegate {
public:
    void didFinishDownloading(const std::shared_ptr<BackgroundTask>&, DownloadedFile& file) override {
        _bytes = " " + readFile(file.path());
    }
    void didComplete(const std::shared_ptr<BackgroundTask>& task, std::optional<TransportError> error) override {
        const std::int64_t status = task->response().value_or(URLResponse{}).statusCode;
        all.push_back(std::to_string(task->identifier()) + ": " +
                      (error ? std::to_string(error->code) + (status != 0 ? " after " + std::to_string(status) : "")
                             : std::to_string(status)) +
                      std::exchange(_bytes, {}));
        feedbacks += task->numberOfFeedbacks();
        if (const auto next = std::exchange(then, nullptr)) next();
    }
    void willBeginDelayedRequest(const std::shared_ptr<BackgroundTask>&, const URLRequest&, Begin begin) override {
        thinks ? thinks(std::move(begin)) : begin(std::nullopt);
    }
    Texts all;
    std::uint64_t feedbacks = 0;
    std::function<void(Begin begin)> thinks;
    std::function<void()> then;  ///< after the next end

private:
    std::string _bytes;
};

class StoredBackgroundSessionTest : public testing::Test {
protected:
    StoredBackgroundSessionTest() {
        EXPECT_TRUE((*files->stateDirectory())->makeDirectory("tmp"));
        network.setScript([this](const URLRequest& request) { return answer ? answer(request) : std::nullopt; });
        start();
    }

    /// A process: what an earlier one stored goes on. The one before is killed, as far as its objects can tell.
    void start(bool throughStartUp = true) {
        session.reset();
        time.runPending();
        factory = std::make_unique<StoredBackgroundSessionFactory>(
            StoredBackgroundSession::Services{.dispatcher = time,
                                              .files = *files,
                                              .urlSessions = network,
                                              .conditions = conditions,
                                              .counters = counters,
                                              .transactions = transactions,
                                              .draw = [this] { return drawn; }});
        session = factory->makeSession(configuration, ends);
        if (throughStartUp) factory->startUpIsThrough();
        time.runPending();
    }
    std::shared_ptr<BackgroundTask> upload(const std::string& body) {
        const std::string file = "tmp/body" + std::to_string(++bodies);
        EXPECT_TRUE((*files->stateDirectory())->replace(file, body));
        auto task = session->uploadTask({.url = "https://server.example/up", .method = "POST"}, file);
        task->setNumberOfFeedbacks(7);
        return task;
    }
    std::shared_ptr<BackgroundTask> download() { return session->downloadTask({.url = "https://server.example/down"}); }
    void resume(BackgroundTask& task) {
        const auto resumed = task.resume();
        EXPECT_TRUE(resumed) << resumed.error().text;
        time.runPending();
    }
    Texts inSpool() { return (*files->stateDirectory())->list("transfers/test/spool").value_or(Texts{"no spool"}); }
    Texts why() {
        Texts all;
        for (const auto& pending : session->pendingTransfers()) all.push_back(pending.why);
        return all;
    }
    std::size_t attempts() { return network.session("test") ? network.session("test")->sent().size() : 0; }
    static FakeAnswer busy(HTTPHeaders headers = {}) { return {.statusCode = 503, .headers = std::move(headers)}; }

    ManualDispatcher time;
    TemporaryDirectory home;
    std::unique_ptr<FileManager> files = fileManagerBelow(home.path());
    FakeURLSessionFactory network{time};
    DeviceConditions conditions;
    Counters counters;
    std::shared_ptr<Transactions> transactions = std::make_shared<Transactions>(time);
    double drawn = 0;  ///< the shortest delays
    std::function<std::optional<FakeAnswer>(const URLRequest&)> answer;
    std::shared_ptr<Ends> ends = std::make_shared<Ends>();
    BackgroundSessionConfiguration configuration{.identifier = "test"};
    std::unique_ptr<StoredBackgroundSessionFactory> factory;
    std::shared_ptr<BackgroundSession> session;
    int bodies = 0;
};

TEST_F(StoredBackgroundSessionTest, ADayOfAServerThatIsBusyCostsTwelveAttemptsAndNothingIsLost) {
    std::size_t asked = 0;
    answer = [&](const URLRequest&) {
        ++asked;
        return busy();
    };
    const RecordingLog log(LogLevel::standard);
    for (int count = 0; count < 30; ++count) ASSERT_TRUE(upload("records " + std::to_string(count))->resume());
    time.advance(24h);
    EXPECT_EQ(log.events(LogEvent::transfersBackingOff).size(), 1u) << "said when it begins, once";
    EXPECT_GE(asked, 8u);
    EXPECT_LE(asked, 12u);
    EXPECT_EQ(counters.value("com.kelvar.orvexd.transfer.retried"), static_cast<std::int64_t>(asked));
    EXPECT_TRUE(ends->all.empty());
    EXPECT_EQ(inSpool().size(), 30u);
    EXPECT_EQ(transactions->count(), 0u);

    // Nothing wakes the process but the one attempt.
    const auto pending = session->pendingTransfers();
    ASSERT_TRUE(pending.at(20).nextAttempt);
    EXPECT_EQ(time.wallNow() + (time.nextDue().value() - time.now()), *pending.at(20).nextAttempt);
    EXPECT_EQ(pending.at(0).why, "waits for the session's next attempt; last failure: status 503");

    answer = [](const URLRequest&) { return FakeAnswer{}; };
    time.advance(12h);
    EXPECT_EQ(ends->all.size(), 30u);
    EXPECT_EQ(ends->feedbacks, 210u);
    EXPECT_TRUE(inSpool().empty());
    EXPECT_TRUE(session->pendingTransfers().empty());
    EXPECT_EQ(time.nextDue(), std::nullopt);
}

TEST_F(StoredBackgroundSessionTest, AtMostFourRunAtOnceAndOneAloneWhileBackingOff) {
    for (int count = 0; count < 6; ++count) resume(*upload("records"));
    auto server = network.session("test");
    EXPECT_EQ(server->held(), 4u);
    server->answer({});
    time.runPending();
    EXPECT_EQ(server->held(), 4u);
    for (int count = 0; count < 4; ++count) server->answer(busy());
    time.advance(29s);
    EXPECT_EQ(server->held(), 0u);
    time.advance(2s);  // half of the first delay: the four failures of one moment were one
    EXPECT_EQ(server->held(), 1u);
    EXPECT_EQ(why().back(), "waits for the one task that probes");
    server->answer(busy({{"Retry-After", "7200"}}));
    time.advance(7199s);
    EXPECT_EQ(server->held(), 0u);
    time.advance(1s);
    ASSERT_EQ(server->held(), 1u);
    server->answer({.statusCode = 404});  // an end, but no success
    time.runPending();
    EXPECT_EQ(server->held(), 1u);
    server->answer({});
    time.runPending();
    EXPECT_EQ(server->held(), 3u);
    EXPECT_EQ(ends->all, (Texts{"1: 200", "2: 404", "3: 200"}));
}

TEST_F(StoredBackgroundSessionTest, WhatIsStoredGoesOnInTheNextProcessAndEndsOnce) {
    const auto first = upload("records");
    resume(*first);  // killed while it runs
    const auto delayed = download();
    delayed->setEarliestBeginDate(time.wallNow() + 60s);
    resume(*delayed);
    writeFile(home / ".local/state/com.kelvar.orvexd/transfers/test/spool/99.body", "of no task");
    ASSERT_TRUE(factory->hasStoredTasks("test"));
    EXPECT_FALSE(factory->hasStoredTasks("other"));

    answer = [](const URLRequest& request) {
        return FakeAnswer{.body = request.body.empty() ? "downloaded" : "received " + request.body};
    };
    start(false);
    EXPECT_TRUE(inSpool().empty());  // what belongs to no task is gone, and so is a body that was sent
    time.advance(61s);
    EXPECT_TRUE(ends->all.empty());  // start-up is not through
    EXPECT_EQ(why(), (Texts{"ended", "ended"}));
    start(false);  // killed after the answers, before the ends were told
    EXPECT_EQ(inSpool(), (Texts{"2.download"}));
    EXPECT_EQ(attempts(), 0u);
    factory->startUpIsThrough();
    time.runPending();
    EXPECT_EQ(ends->all, (Texts{"1: 200", "2: 200 downloaded"}));
    EXPECT_EQ(ends->feedbacks, 7u);
    EXPECT_FALSE(factory->hasStoredTasks("test"));
    EXPECT_TRUE(inSpool().empty());
    const auto next = download();
    EXPECT_EQ(next->identifier(), 3u);  // no number comes twice
}

TEST_F(StoredBackgroundSessionTest, ATaskEndsAtItsResourceTimeOutWithTheLastAnswer) {
    configuration.resourceTimeout = 2h;
    start();
    answer = [](const URLRequest&) { return busy(); };
    resume(*upload("records"));
    time.advance(90min);
    start();  // the time goes on across processes
    time.advance(29min);
    EXPECT_TRUE(ends->all.empty());
    time.advance(2min);
    EXPECT_EQ(ends->all, (Texts{"1: -1001 after 503"}));
    EXPECT_EQ(counters.value("com.kelvar.orvexd.transfer.dropped.timeout"), 1);

    answer = nullptr;  // nor does one that is under way live longer
    const auto running = upload("records");
    resume(*running);
    time.advance(30s);
    time.jumpWall(-48h);
    time.advance(2h);
    EXPECT_EQ(ends->all.back(), "2: -1001");
}

TEST_F(StoredBackgroundSessionTest, AClockThatIsSetByDecadesEndsNoTask) {
    answer = [](const URLRequest&) { return busy(); };
    resume(*upload("records"));
    for (const std::chrono::years jump : {std::chrono::years(50), std::chrono::years(-90)}) {
        time.jumpWall(jump);
        start();
        time.advance(1h);
        EXPECT_TRUE(ends->all.empty()) << jump.count();
    }
}

TEST_F(StoredBackgroundSessionTest, TransportFailuresAreTriedAgainAndRefusalsAreNot) {
    resume(*download());
    auto server = network.session("test");
    for (const auto code : {TransportError::cannotConnect, TransportError::cannotFindHost, TransportError::timedOut,
                            TransportError::secureConnectionFailed, TransportError::connectionLost}) {
        server->answer({.error = TransportError{code, "broken"}});
        time.advance(12h);
        ASSERT_EQ(server->held(), 1u) << code;
    }
    server->answer({.error = TransportError{TransportError::other, "a refused redirect", true}});
    time.runPending();
    EXPECT_EQ(ends->all, (Texts{"1: -1"}));
}

TEST_F(StoredBackgroundSessionTest, MeteredNetworksAndBatteriesAreWaitedOut) {
    configuration.allowsExpensiveNetworkAccess = false;
    configuration.discretionary = true;
    start();
    const auto set = [this](Conditions now) {
        conditions.update([&](Conditions& conditions) { conditions = now; });
        time.runPending();
    };
    resume(*download());
    auto server = network.session("test");
    EXPECT_EQ(server->held(), 1u);
    set({.isMetered = true});  // in the middle of a transfer
    EXPECT_EQ(server->held(), 0u);
    EXPECT_EQ(why(), (Texts{"waits for a network that is not metered"}));
    EXPECT_EQ(counters.value("com.kelvar.orvexd.transfer.retried"), 0);
    EXPECT_EQ(transactions->count(), 0u);
    set({.isConnected = false});
    EXPECT_EQ(why(), (Texts{"waits for a network"}));
    set({.isOnMains = false});
    EXPECT_EQ(why(), (Texts{"waits for mains"}));
    time.advance(24h);  // its window closes
    EXPECT_EQ(server->held(), 1u);
    EXPECT_EQ(transactions->count(), 1u);

    set({});  // while a delegate thinks about a request, too
    BackgroundSessionDelegate::Begin begin;
    ends->thinks = [&begin](BackgroundSessionDelegate::Begin asked) { begin = std::move(asked); };
    const auto delayed = download();
    delayed->setEarliestBeginDate(time.wallNow());
    resume(*delayed);
    ASSERT_EQ(delayed->state(), BackgroundTaskState::beginning);
    set({.isMetered = true});
    begin(std::nullopt);
    time.runPending();
    EXPECT_EQ(delayed->state(), BackgroundTaskState::waiting);
    set({});
    EXPECT_EQ(delayed->state(), BackgroundTaskState::running);
}

TEST_F(StoredBackgroundSessionTest, TheOldestGoesWhenTheQuotaIsPassed) {
    configuration.maxTasks = 3;
    configuration.maxSpoolBytes = 10;
    start();
    const auto tooLarge = upload("eleven bytes");
    EXPECT_EQ(tooLarge->resume().error().code, EFBIG);
    EXPECT_TRUE((*files->stateDirectory())->attributes("tmp/body1"));
    for (const char* body : {"12345", "12345", "1"}) resume(*upload(body));
    EXPECT_EQ(ends->all, (Texts{"2: -1"}));
    for (const char* body : {"1", "1"}) resume(*upload(body));
    EXPECT_EQ(ends->all, (Texts{"2: -1", "3: -1"}));
    EXPECT_EQ(counters.value("com.kelvar.orvexd.transfer.dropped.spool"), 1);
    EXPECT_EQ(counters.value("com.kelvar.orvexd.transfer.dropped.tasks"), 1);
    EXPECT_EQ(inSpool().size(), 3u);
}

TEST_F(StoredBackgroundSessionTest, ATaskThatWasToldTakesNoPlaceAndIsNotDropped) {
    configuration.maxTasks = 1;
    start();
    resume(*upload("1"));
    ends->then = [this] { EXPECT_TRUE(upload("2")->resume()); };  // before the first is forgotten
    network.session("test")->answer({});
    time.runPending();
    EXPECT_EQ(ends->all, (Texts{"1: 200"}));
    EXPECT_EQ(inSpool(), (Texts{"2.body"}));
}

TEST_F(StoredBackgroundSessionTest, ARefusedStoringLeavesTheFileWhereItWas) {
    SQLiteDatabase other;
    ASSERT_EQ(other.open(home / ".local/state/com.kelvar.orvexd/transfers/test/tasks.db", SQLITE_OPEN_READWRITE),
              SQLITE_OK);
    ASSERT_EQ(other.execute("BEGIN IMMEDIATE"), SQLITE_OK);
    const auto task = upload("records");
    EXPECT_EQ(task->resume().error().code, EIO);
    EXPECT_EQ((*files->stateDirectory())->read("tmp/body1", 100).value_or(""), "records");
    EXPECT_TRUE(inSpool().empty());
    other.close();
    resume(*task);
    EXPECT_EQ(inSpool().size(), 1u);
}

TEST_F(StoredBackgroundSessionTest, ABrokenStoreIsSetAsideAndMadeAnew) {
    resume(*upload("records"));
    resume(*upload("records"));
    session.reset();
    time.runPending();
    const std::string place = home / ".local/state/com.kelvar.orvexd/transfers/test/";
    {
        SQLiteDatabase store;  // one row that is none of ours
        ASSERT_EQ(store.open(place + "tasks.db", SQLITE_OPEN_READWRITE), SQLITE_OK);
        ASSERT_EQ(store.execute("UPDATE task SET request = '{' WHERE number = 1"), SQLITE_OK);
    }
    start();
    EXPECT_EQ(session->pendingTransfers().size(), 1u);
    EXPECT_EQ(inSpool(), (Texts{"2.body"}));
    EXPECT_EQ(counters.value("com.kelvar.orvexd.transfer.dropped.store"), 1);

    session.reset();
    time.runPending();
    writeFile(place + "tasks.db", std::string(8192, 'x'));
    EXPECT_TRUE(factory->hasStoredTasks("test"));
    start();
    EXPECT_TRUE(session->pendingTransfers().empty());
    EXPECT_TRUE((*files->stateDirectory())->attributes("transfers/test/tasks.db.corrupt"));
    EXPECT_EQ(counters.value("com.kelvar.orvexd.transfer.dropped.store"), 2);
    resume(*upload("records"));
    EXPECT_EQ(attempts(), 1u);

    session.reset();
    time.runPending();
    {
        SQLiteDatabase store;
        ASSERT_EQ(store.open(place + "tasks.db", SQLITE_OPEN_READWRITE), SQLITE_OK);
        ASSERT_EQ(store.execute("DROP TABLE task; CREATE TABLE task(other INT)"), SQLITE_OK);
    }
    start();
    EXPECT_TRUE(upload("records")->resume());
}

TEST_F(StoredBackgroundSessionTest, ATaskThatWasMadeWithoutAStoreHarmsNoStoredOne) {
    resume(*upload("stored"));
    const std::string place = home / ".local/state/com.kelvar.orvexd/transfers";
    std::filesystem::rename(place, place + ".away");
    writeFile(place, "not a directory");
    start();
    const auto task = upload("records");
    EXPECT_FALSE(task->resume());
    std::filesystem::remove(place);
    std::filesystem::rename(place + ".away", place);
    EXPECT_EQ(task->resume().error().code, EEXIST);
    EXPECT_TRUE((*files->stateDirectory())->attributes("tmp/body2"));
    EXPECT_EQ((*files->stateDirectory())->read("transfers/test/spool/1.body", 100).value_or(""), "stored");
    EXPECT_TRUE(upload("records")->resume());
}

TEST_F(StoredBackgroundSessionTest, AnUploadWhoseBodyIsLostEnds) {
    resume(*upload("records"));
    ASSERT_TRUE((*files->stateDirectory())->remove("transfers/test/spool/1.body"));
    start();
    EXPECT_EQ(ends->all, (Texts{"1: -1"}));
    EXPECT_EQ(counters.value("com.kelvar.orvexd.transfer.dropped.body"), 1);
}

/// The other process: resumes uploads until it is killed, and says of each when it is stored.
[[noreturn]] void resumeUntilKilled(const std::string& home, int say) {
    ManualDispatcher time;
    const auto files = fileManagerBelow(home);
    FakeURLSessionFactory network(time);
    DeviceConditions conditions;
    Counters counters;
    StoredBackgroundSessionFactory factory({.dispatcher = time,
                                            .files = *files,
                                            .urlSessions = network,
                                            .conditions = conditions,
                                            .counters = counters,
                                            .transactions = std::make_shared<Transactions>(time),
                                            .draw = [] { return 0.5; }});
    const auto session = factory.makeSession({.identifier = "test"}, {});
    for (int count = 0;; ++count) {
        const std::string file = "tmp/of_the_other_" + std::to_string(count);
        if (!(*files->stateDirectory())->replace(file, "records")) ::_exit(1);
        if (!session->uploadTask({.url = "https://server.example/up", .method = "POST"}, file)->resume()) ::_exit(1);
        if (::write(say, ".", 1) != 1) ::_exit(1);
    }
}

TEST_F(StoredBackgroundSessionTest, WhatWasSaidToBeStoredSurvivesAKill) {
    session.reset();
    time.runPending();
    std::size_t stored = 0;
    for (std::size_t atLeast = 1; atLeast <= 5; ++atLeast) {
        int ends[2];
        ASSERT_EQ(::pipe(ends), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) resumeUntilKilled(home.path(), ends[1]);
        ::close(ends[1]);
        char said = 0;
        for (std::size_t count = 0; count < atLeast && ::read(ends[0], &said, 1) == 1; ++count) ++stored;
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status));
        while (::read(ends[0], &said, 1) == 1) ++stored;
        ::close(ends[0]);
    }
    answer = [](const URLRequest& request) {
        EXPECT_EQ(request.body, "records");
        return FakeAnswer{};
    };
    start();
    time.runPending();
    // One whose storing was never said may have been stored all the same, in each of the five.
    EXPECT_GE(ends->all.size(), stored);
    EXPECT_LE(ends->all.size(), stored + 5);
    EXPECT_EQ(std::set(ends->all.begin(), ends->all.end()).size(), ends->all.size());
    EXPECT_TRUE(inSpool().empty());
    start();
    EXPECT_TRUE(session->pendingTransfers().empty());
}

}  // namespace
}  // namespace orvex::platform
