#include "feedback/orvex_feedback_flusher.h"

#include "feedback/upload_world_test.h"

namespace orvex {
namespace {

using platform::BackgroundActivity;
using platform::LogLevel;
using Agents = std::vector<std::string>;

class FeedbackFlusherTest : public testing::Test, protected UploadWorld {
protected:
    /// Forces a flush and lets it go on until its end.
    void flush() {
        start();
        time.runPending();
    }
    void start() {
        OrvexFeedbackFlusher::create(assembly)->forceFlushWithCompletion([this] { ++completed; });
    }
    void answerAll() {
        while (!server->held().empty()) server->answer({});
        time.runPending();
    }
    std::size_t waiting() { return assembly.persistentStorage()->getAvailableSessionHandles().size(); }
    std::size_t sessionFiles() {
        const auto names = files.cachesDirectory().value()->list().value();
        return static_cast<std::size_t>(
            std::ranges::count_if(names, [](const auto& name) { return name.starts_with("session."); }));
    }
    /// What came to pass, a letter each: buffer sent, enqueued, deleted.
    std::string course() const {
        std::string letters;
        for (const auto& line : log.lines()) {
            if (line.text.starts_with("Sessions Flushed")) letters += 'S';
            if (line.text.starts_with("Enqueuing for upload")) letters += 'E';
            if (line.text.starts_with("delete file url")) letters += 'D';
        }
        return letters;
    }

    int completed = 0;
};

/// A tool that listens to uploads, or not.
class Listener : public FlusherListener {
public:
    [[nodiscard]] bool hasReceivingStreamListener() const override { return false; }
    [[nodiscard]] bool hasSendingStreamListener() const override { return listens; }
    void sendDataToReceivingStreamListener(std::shared_ptr<const CXOrvexFeedback>) override {}
    void sendDataToSendingStreamListener(std::string bytes) override {
        shown.push_back(std::move(bytes));
        if (leaves) listens = false;
    }

    bool listens = true;
    bool leaves = false;
    std::vector<std::string> shown;
};

TEST_F(FeedbackFlusherTest, OneFileAfterTheOtherOldestFirst) {
    install(openBag);
    for (const int number : {1, 2, 3}) finishSession(number, "Agent/" + std::to_string(number));
    ASSERT_TRUE(files.cachesDirectory().value()->replace("session.2000", "no session at all"));
    assembly.setPersistentStorage(std::make_shared<OrvexPersistentStorage>(assembly));
    ASSERT_EQ(waiting(), 4u);

    start();
    EXPECT_EQ(transactions->openNames(), Agents{"com.kelvar.orvexd.feedbackFlusherTx"});
    time.runPending();
    EXPECT_EQ(completed, 1);
    EXPECT_EQ(transactions->openNames(), Agents{});
    EXPECT_EQ(agents(), (Agents{"Agent/1", "Agent/2", "Agent/3"}));
    EXPECT_EQ(course(), "SEDSEDSEDD");  // the next is taken when the one before is stored and gone
    EXPECT_EQ(sessionFiles(), 0u);
    EXPECT_EQ(count("sessions.dropped.unreadable"), 1);
    answerAll();
    EXPECT_EQ(count("feedbacksent"), 3 * 7);

    flush();  // of nothing
    EXPECT_EQ(completed, 2);
    EXPECT_EQ(server->sent().size(), 3u);
}

TEST_F(FeedbackFlusherTest, WhatCannotGoOutWaits) {
    for (int number = 0; number < 5; ++number) finishSession(number);
    flush();  // neither bag nor tool
    EXPECT_EQ(completed, 1);
    EXPECT_EQ(waiting(), 5u);

    install(openBag);
    fillPending(98);
    flush();
    EXPECT_EQ(completed, 2);
    EXPECT_EQ(server->held().size(), 100u);
    EXPECT_EQ(waiting(), 3u);
    EXPECT_EQ(sessionFiles(), 3u);
    EXPECT_EQ(logged(LogLevel::standard, "100 uploads pending, 3 session files wait for the next flush"), 1u);
    flush();
    EXPECT_EQ(completed, 3);
    EXPECT_EQ(waiting(), 3u);
    EXPECT_EQ(count("upload.dropped.pending"), 0);

    answerAll();
    flush();
    EXPECT_EQ(server->held().size(), 3u);
    EXPECT_EQ(sessionFiles(), 0u);

    install(R"({"feedback_enabled":false})");
    finishSession(6);
    flush();  // a bag without an endpoint consumes them
    EXPECT_EQ(completed, 5);
    EXPECT_EQ(sessionFiles(), 0u);
    EXPECT_EQ(count("upload.dropped.noendpoint"), 1);
}

TEST_F(FeedbackFlusherTest, WithoutABagAToolMustGoOnListening) {
    const auto tool = std::make_shared<Listener>();
    assembly.setFlusherListener(tool);
    for (const int number : {1, 2, 3}) finishSession(number, "Agent/" + std::to_string(number));
    tool->leaves = true;  // in the middle
    flush();
    EXPECT_EQ(completed, 1);
    ASSERT_EQ(tool->shown.size(), 1u);
    EXPECT_EQ(boost::json::parse(inflated(tool->shown[0], 1u << 20).value()).at("agent").as_string(), "Agent/1");
    EXPECT_EQ(waiting(), 2u);

    install(openBag);
    flush();
    EXPECT_EQ(agents(), (Agents{"Agent/2", "Agent/3"}));
    EXPECT_EQ(tool->shown.size(), 1u);
}

TEST_F(FeedbackFlusherTest, FlushesAtOneTimeShareTheFiles) {
    install(openBag);
    for (const int number : {1, 2, 3, 4}) finishSession(number, "Agent/" + std::to_string(number));
    start();
    start();
    time.runPending();
    EXPECT_EQ(completed, 2);
    auto sent = agents();
    std::ranges::sort(sent);
    EXPECT_EQ(sent, (Agents{"Agent/1", "Agent/2", "Agent/3", "Agent/4"}));
    EXPECT_EQ(sessionFiles(), 0u);
}

TEST_F(FeedbackFlusherTest, AFailedUploadDoesNotHoldUpTheNext) {
    install(openBag);
    for (const int number : {1, 2, 3}) finishSession(number, "Agent/" + std::to_string(number));
    faulty.plan().inject(platform::DirectoryFault::writeFails, 2);  // while the first is compressed
    server->refuseNextResume({ENOSPC, "no room"});                  // the second
    flush();
    EXPECT_EQ(faulty.plan().injected(), 1u);
    EXPECT_EQ(agents(), Agents{"Agent/3"});
    EXPECT_EQ(count("feedbacknotsent"), 1);
    EXPECT_EQ(count("upload.dropped.notstored"), 1);
    EXPECT_EQ(completed, 1);
    EXPECT_EQ(sessionFiles(), 0u);
}

TEST_F(FeedbackFlusherTest, ABufferIsSentOnce) {
    install(openBag);
    const auto flusher = OrvexFeedbackFlusher::create(assembly);
    const auto session = std::make_shared<ClientSession>(assembly, CXClientSession());
    bool buffered = false;
    flusher->flush(session, [&] { buffered = true; });
    flusher->flushSyncFromArray({session});
    EXPECT_EQ(flusher->countOfDatabuffer(), 2u);
    EXPECT_EQ(flusher->sessionBuffer(), (std::vector<OrvexFeedbackFlusher::Session>{session, session}));
    EXPECT_TRUE(buffered);

    OrvexFeedbackFlusher::Uploads returned;
    flusher->flushToWireAsync([&](auto sent) { returned = std::move(sent); });
    time.runPending();
    EXPECT_EQ(returned.size(), 2u);
    EXPECT_EQ(count("clientconnection"), 2);
    EXPECT_EQ(server->sent().at(1).body, returned.at(1));
    EXPECT_EQ(flusher->countOfDatabuffer(), 0u);

    flusher->flushToWireSync(&returned);  // of nothing
    EXPECT_EQ(returned.size(), 2u);
    flusher->flushSyncFromArray({session});
    flusher->flushToWireAsync(nullptr);
    time.runPending();
    EXPECT_EQ(server->sent().size(), 3u);
    EXPECT_EQ(count("clientconnection"), 2);
}

TEST_F(FeedbackFlusherTest, APeriodicFlushTakesItsActivityToTheEnd) {
    install(openBag);
    finishSession(1);
    std::vector<std::shared_ptr<BackgroundActivity>> runs;
    activities.checkIn("flush", {}, [&](std::shared_ptr<BackgroundActivity> run) {
        runs.push_back(run);
        OrvexFeedbackFlusher::create(assembly)->performPeriodicFlushActivity(std::move(run));
        EXPECT_EQ(runs.back()->state(), BackgroundActivity::State::continuing);
    });
    activities.run("flush", [](auto&&) {});
    time.runPending();
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0]->state(), BackgroundActivity::State::done);
    EXPECT_EQ(server->sent().size(), 1u);
    EXPECT_EQ(logged(LogLevel::debug, "All periodic flush tasks completed."), 1u);

    finishSession(2);
    OrvexFeedbackFlusher::create(assembly)->performPeriodicFlushActivity(runs[0]);
    time.runPending();
    EXPECT_EQ(logged(LogLevel::fault, "Bailing on periodic flush because XPC activity state != RUN"), 1u);
    EXPECT_EQ(waiting(), 1u);
}

}  // namespace
}  // namespace orvex
