#include "feedback/orvex_persistent_storage.h"

#include <fmt/core.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "feedback/feedback_world_test.h"
#include "feedback/session_file.h"
#include "platform/fakes/temporary_directory.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using platform::DirectoryFault;
using platform::LogLevel;

class SessionFilesTest : public testing::Test, protected FeedbackWorld {
protected:
    using Container = std::shared_ptr<FileContainer>;

    ~SessionFilesTest() override { time.runPending(); }

    void useRealDisk() { files.serveCachesFrom(*realFiles); }
    void start() { storage = std::make_unique<OrvexPersistentStorage>(assembly); }
    std::shared_ptr<platform::Directory> directory() { return files.cachesDirectory().value(); }
    void put(const std::string& name, std::string_view bytes) { ASSERT_TRUE(directory()->replace(name, bytes)); }
    std::string contents(const std::string& name) { return directory()->read(name, 1u << 30).value_or("(none)"); }
    std::string header(std::string version = "") {
        CXClientSession session;
        session.set_version(version.empty() ? storage->version() : std::move(version));
        session.set_agent("Lumisk/1");
        return encodeSessionHeader(session);
    }
    static CXOrvexFeedback record(std::int64_t queryId, std::size_t bytes = 0) {
        CXOrvexFeedback made;
        made.set_query_id(queryId);
        made.set_user_agent(std::string(bytes, 'x'));
        return made;
    }

    /// A new session file with its header.
    Container open() {
        auto container = storage->createFileContainerForWriting();
        CXClientSession session;
        session.set_version(storage->version());
        session.set_agent("Lumisk/1");
        if (container) container->writeSessionHeader(session);
        time.runPending();
        return container;
    }
    /// How the record's road ended: "" when it succeeded.
    std::string write(const Container& container, const CXOrvexFeedback& record) {
        std::string answer = "(none)";
        container->writeFeedback(record, RecordReceipt([&](const std::optional<ORXError>& error) {
                                     answer = error ? error->reason.value_or("(no reason)") : "";
                                 }));
        time.runPending();
        return answer;
    }
    void close(const Container& container) {
        storage->closeSessionWithFileContainer(container);
        time.runPending();
    }
    std::vector<std::string> waiting() {
        std::vector<std::string> names;
        for (const auto& container : storage->getAvailableSessionHandles())
            names.push_back(container->path().substr(container->path().rfind('/') + 1));
        return names;
    }
    static std::vector<std::int64_t> ids(const std::optional<CXClientSession>& session) {
        std::vector<std::int64_t> found;
        if (!session) return {-1};
        for (const auto& record : session->feedbacks()) found.push_back(record.query_id());
        return found;
    }
    bool logged(LogLevel level, std::string_view text) { return log.contains(level, "Orvex_Feedback_Storage", text); }

    const platform::TemporaryDirectory home;
    const std::unique_ptr<platform::FileManager> realFiles = platform::fileManagerBelow(home.path());
    std::unique_ptr<OrvexPersistentStorage> storage;
};

TEST_F(SessionFilesTest, ASessionIsWrittenAsItGrowsAndReadWhenItIsFinished) {
    start();
    EXPECT_EQ(storage->version(), "orvexd/0.1.0 (" + deviceDescription(device) + ") orvexd/0.1.0");
    const auto container = open();
    EXPECT_TRUE(logged(LogLevel::debug, "new file url /caches/com.kelvar.orvexd/session.0"));
    EXPECT_EQ(write(container, record(1)), "");
    EXPECT_EQ(contents("session.0"), header() + encodeSessionRecord(record(1)));
    EXPECT_EQ(ids(container->readOpen()), std::vector<std::int64_t>{1});
    EXPECT_EQ(write(container, record(2)), "");
    EXPECT_EQ(waiting(), std::vector<std::string>{});

    close(container);
    EXPECT_EQ(waiting(), std::vector<std::string>{"session.0"});
    EXPECT_EQ(write(container, record(3)), "");  // too late: dropped
    EXPECT_EQ(count("feedbackdropped.sessionfinished"), 1);
    const auto read = container->read();
    EXPECT_EQ(ids(read), (std::vector<std::int64_t>{1, 2}));
    EXPECT_EQ(read->agent(), "Lumisk/1");
    EXPECT_TRUE(logged(LogLevel::debug, "reading file url /caches/com.kelvar.orvexd/session.0"));
    EXPECT_FALSE(logged(LogLevel::error, ""));
    EXPECT_EQ(transactions->count(), 0u);
}

TEST_F(SessionFilesTest, ReadingAnOpenFileClosesIt) {
    start();
    const auto container = open();
    EXPECT_EQ(write(container, record(1)), "");
    EXPECT_EQ(ids(container->read()), std::vector<std::int64_t>{1});
    EXPECT_TRUE(logged(LogLevel::fault, "file is already open closing it /caches/com.kelvar.orvexd/session.0"));
    EXPECT_TRUE(logged(LogLevel::debug, "close file url /caches/com.kelvar.orvexd/session.0"));
    write(container, record(2));
    EXPECT_EQ(ids(container->read()), std::vector<std::int64_t>{1});
}

TEST_F(SessionFilesTest, WhatWouldReachTheLimitIsRefusedAndNothingFollows) {
    defaults.store("ORXSessionSizeLimit", 1000);
    start();
    const auto rest = 1000 - header().size();
    const auto overhead = encodeSessionRecord(record(1, 200)).size() - 200;
    const auto below = open();
    EXPECT_EQ(write(below, record(1, rest - overhead - 1)), "");
    EXPECT_EQ(below->size(), 999u);
    EXPECT_EQ(count("filesizeexceeded"), 0);

    const auto at = open();
    EXPECT_EQ(write(at, record(1, rest - overhead)), "");
    EXPECT_EQ(count("filesizeexceeded"), 1);
    EXPECT_TRUE(logged(
        LogLevel::error,
        fmt::format("bytes written ({}) + feedback ({}) exceeds max session size (1000)", header().size(), rest)));
    EXPECT_EQ(write(at, record(2)), "");
    EXPECT_EQ(write(at, record(3)), "");
    EXPECT_EQ(contents("session.1"), header());
    EXPECT_EQ(count("filesizeexceeded"), 1);
    EXPECT_EQ(count("feedbackdropped.filefull"), 3);
}

TEST_F(SessionFilesTest, AHeaderThatDoesNotFitClosesTheFile) {
    defaults.store("ORXSessionSizeLimit", 10);
    start();
    const auto container = open();
    EXPECT_TRUE(logged(LogLevel::error, "Could not write session to file."));
    EXPECT_EQ(write(container, record(1)), "");
    EXPECT_EQ(contents("session.0"), "");
    EXPECT_EQ(count("feedbackdropped.filefull"), 1);
}

TEST_F(SessionFilesTest, FilesOfAnEarlierRunWaitOldestFirstAndNewOnesGoOnAfterThem) {
    for (const auto* name : {"session.10", "session.9", "session.4294967294"}) put(name, "");
    // No session files of ours.
    for (const auto* name : {"session.", "session.x", "session.1x", "session.4294967296", "session.00000000001",
                             "session.-1", "sessions.1", "bag.plist"})
        put(name, "");
    ASSERT_TRUE(directory()->makeDirectory("session.11"));
    start();
    EXPECT_EQ(waiting(), (std::vector<std::string>{"session.9", "session.10", "session.4294967294"}));
    EXPECT_TRUE(logged(LogLevel::error, "Attribute fetch error "));
    EXPECT_EQ(open()->path(), "/caches/com.kelvar.orvexd/session.0");  // the numbers begin anew
    EXPECT_EQ(directory()->list()->size(), 13u);
}

TEST_F(SessionFilesTest, ANameThatIsTakenIsPassedOver) {
    put("session.7", "");
    start();
    put("session.8", "of another");
    ASSERT_TRUE(directory()->makeDirectory("session.9"));
    EXPECT_EQ(open()->path(), "/caches/com.kelvar.orvexd/session.10");
    EXPECT_EQ(contents("session.8"), "of another");
}

TEST_F(SessionFilesTest, AFileThatIsTooOldIsRemovedAtStart) {
    files.setTime(time.wallNow() - 172'800s);
    put("session.1", "");
    files.setTime(time.wallNow() - 172'800s - 1ns - 1us);
    put("session.2", "");
    files.setTime(time.wallNow() + 1h);  // the clock was put back
    put("session.3", "");
    files.setTime(time.wallNow() - std::chrono::years(30));  // it was not set when the file was made
    put("session.4", "");
    start();
    EXPECT_EQ(waiting(), (std::vector<std::string>{"session.1", "session.3", "session.4"}));
    EXPECT_EQ(contents("session.2"), "(none)");
    EXPECT_EQ(count("filetooold"), 1);
}

TEST_F(SessionFilesTest, AFileThatHoldsNoSessionGivesNoneAndSaysWhy) {
    start();
    const auto whole = header() + encodeSessionRecord(record(1));
    const struct {
        std::string bytes;
        std::vector<std::int64_t> found;  ///< -1: no session
        LogLevel level;
        std::string message;
    } cases[] = {
        {"", {-1}, LogLevel::error, "found empty session file"},
        {header() + "\xA2\x06\x7F",
         {-1},
         LogLevel::error,
         "File contents did not deserialize into a _CXClientSession."},
        {whole + "\xA2\x06\x7F", {1}, LogLevel::error, "is damaged in 1 places, 1 records are left"},
        {header("orvexd/0") + encodeSessionRecord(record(1)),
         {-1},
         LogLevel::debug,
         "Discarding feedback because of version mismatch. File version orvexd/0 not equal to current version " +
             storage->version() + "."},
        {encodeSessionRecord(record(1)), {-1}, LogLevel::debug, "version mismatch. File version  not equal"},
        {whole + std::string(2'097'153 - whole.size(), 'x'), {-1}, LogLevel::error, "Session too big to process"},
        {whole + std::string(2'097'152 - whole.size(), 'x'), {1}, LogLevel::debug, "unarchive "},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) put("session." + std::to_string(i), cases[i].bytes);
    start();
    const auto containers = storage->getAvailableSessionHandles();
    ASSERT_EQ(containers.size(), std::size(cases));
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const platform::RecordingLog own;
        EXPECT_EQ(ids(containers[i]->read()), cases[i].found) << i;
        EXPECT_TRUE(own.contains(cases[i].level, "Orvex_Feedback_Storage", cases[i].message)) << cases[i].message;
    }
    EXPECT_EQ(count("filetoolarge"), 1);
    EXPECT_EQ(count("fileversionmismatch"), 2);
    EXPECT_EQ(count("filedamaged"), 3);
    ASSERT_TRUE(directory()->remove("session.0"));
    EXPECT_FALSE(containers[0]->read());
}

TEST_F(SessionFilesTest, ADeletedFileIsGoneWithTheLastReference) {
    start();
    auto container = open();
    write(container, record(1));
    close(container);
    storage->deleteSessionWithFileContainer(container);
    EXPECT_EQ(waiting(), std::vector<std::string>{});
    EXPECT_EQ(ids(container->read()), std::vector<std::int64_t>{1});  // its upload may still be under way
    time.runPending();
    container = nullptr;
    EXPECT_EQ(contents("session.0"), "(none)");
    EXPECT_EQ(count("filedeleted"), 1);
    EXPECT_TRUE(logged(LogLevel::debug, "delete file url /caches/com.kelvar.orvexd/session.0"));

    container = open();
    storage->deleteSessionWithFileContainer(container);
    time.runPending();
    ASSERT_TRUE(directory()->remove("session.1"));
    container = nullptr;
    EXPECT_TRUE(logged(LogLevel::error, "File /caches/com.kelvar.orvexd/session.1 delete failed"));
}

TEST_F(SessionFilesTest, TheOldestFinishedFilesGoWhenTooManyWaitButNotAtStart) {
    const std::size_t found = OrvexPersistentStorage::maxWaitingFiles + 2;
    for (std::size_t i = 0; i < found; ++i) put("session." + std::to_string(i), "");
    start();
    EXPECT_EQ(waiting().size(), found);
    close(open());
    EXPECT_EQ(waiting().size(), OrvexPersistentStorage::maxWaitingFiles);
    EXPECT_EQ(waiting().front(), "session.3");
    EXPECT_EQ(contents("session.2"), "(none)");
    EXPECT_EQ(count("filesoverlimit"), 3);
}

TEST_F(SessionFilesTest, TheOldestFinishedFilesGoWhenTheyAreTooLarge) {
    useRealDisk();
    put("session.0", "");
    put("session.1", "small");
    std::filesystem::resize_file(directory()->path() + "/session.0", OrvexPersistentStorage::maxWaitingBytes - 200);
    start();
    close(open());
    EXPECT_EQ(waiting().size(), 3u);
    const auto container = open();
    write(container, record(1, 200));
    close(container);
    EXPECT_EQ(waiting(), (std::vector<std::string>{"session.1", "session.2", "session.3"}));
    EXPECT_EQ(count("filesoverlimit"), 1);
}

TEST_F(SessionFilesTest, WithoutADirectoryThereAreNoFilesUntilItIsBack) {
    files.setAvailable(false);
    start();
    EXPECT_TRUE(logged(LogLevel::debug, "error getting cache directory "));
    EXPECT_TRUE(logged(LogLevel::error, "error scanning cache directory, could not get path"));
    EXPECT_EQ(open(), nullptr);
    EXPECT_TRUE(logged(LogLevel::error, "Could not get a file url"));
    files.setAvailable(true);
    EXPECT_EQ(write(open(), record(1)), "");
    faulty.plan().inject(DirectoryFault::writeFails);  // full, or read-only
    EXPECT_EQ(open(), nullptr);
    EXPECT_EQ(faulty.plan().injected(), 1u);
}

/// At the n-th write of a session the disk is full, takes half of it, or takes half and cannot be cut back: what was
/// answered without an error is there, and nothing else.
TEST_F(SessionFilesTest, ADiskThatFailsCostsOnlyWhatWasAnsweredWithAnError) {
    using enum DirectoryFault;
    start();
    const std::vector<std::vector<DirectoryFault>> kinds = {
        {writeFails}, {writeTears}, {writeTears, truncateFails}, {writeFails, truncateFails}};
    for (const auto& faults : kinds) {
        for (std::size_t nth = 1; nth <= 6; ++nth) {  // the first write is the header
            const auto container = storage->createFileContainerForWriting();
            const auto before = faulty.plan().injected();
            faulty.plan().inject(faults[0], nth);
            if (faults.size() > 1) faulty.plan().inject(faults[1]);
            CXClientSession session;
            session.set_version(storage->version());
            container->writeSessionHeader(session);
            std::vector<std::int64_t> accepted;
            std::size_t refused = 0;
            for (std::int64_t id = 1; id <= 5; ++id) {
                const auto answer = write(container, record(id, 40));
                if (answer.empty())
                    accepted.push_back(id);
                else
                    ++refused;
            }
            close(container);
            EXPECT_EQ(faulty.plan().injected(), before + faults.size());
            // Without its header, and after a tear that stayed, a file takes nothing more.
            const bool goesOn = nth > 1 && faults.size() == 1;
            EXPECT_EQ(refused, goesOn ? 1 : nth == 1 ? 5 : 7 - nth) << nth;
            const auto read = ids(container->read());
            EXPECT_TRUE(accepted.empty() || read == accepted) << nth;
            storage->deleteSessionWithFileContainer(container);
        }
    }
    EXPECT_EQ(count("filewritefailed"), 24);
}

TEST_F(SessionFilesTest, AFileIsSyncedAfterSoManyRecordsAfterAWhileAndAtItsEnd) {
    auto& plan = faulty.plan();
    start();
    const auto container = open();  // its header is the first write
    const auto syncs = [&] {        // those since the last time, each of which fails
        const auto failed = count("filesyncfailed");
        counters.clear("com.kelvar.orvexd.filesyncfailed");
        return failed;
    };
    for (int i = 0; i < 4; ++i) plan.inject(DirectoryFault::syncFails);
    for (std::size_t i = 1; i < FileContainer::recordsUntilSync - 1; ++i) EXPECT_EQ(write(container, record(1)), "");
    EXPECT_EQ(syncs(), 0);
    EXPECT_EQ(write(container, record(1)), "");
    EXPECT_EQ(syncs(), 1);

    EXPECT_EQ(write(container, record(1)), "");
    time.advance(3s);
    EXPECT_EQ(write(container, record(1)), "");
    time.advance(2s - 1ns);
    EXPECT_EQ(syncs(), 0);
    time.advance(1ns);
    EXPECT_EQ(syncs(), 1);
    EXPECT_FALSE(time.nextDue());  // nothing to do, nothing to wake up for

    EXPECT_EQ(write(container, record(1)), "");
    close(container);
    EXPECT_EQ(syncs(), 1);
    EXPECT_FALSE(time.nextDue());
    EXPECT_EQ(plan.injected(), 3u);
}

TEST_F(SessionFilesTest, ALinkIsLeftAlone) {
    useRealDisk();
    start();
    const auto container = open();
    EXPECT_EQ(write(container, record(1)), "");
    const auto below = directory()->path() + "/";
    EXPECT_EQ(std::filesystem::status(container->path()).permissions(), std::filesystem::perms(0600));
    std::filesystem::create_symlink(container->path(), below + "session.1");
    storage = nullptr;
    start();
    EXPECT_EQ(waiting(), std::vector<std::string>{"session.0"});
    EXPECT_EQ(ids(storage->getAvailableSessionHandles()[0]->read()), std::vector<std::int64_t>{1});
    EXPECT_EQ(open()->path(), below + "session.2");
    EXPECT_TRUE(std::filesystem::is_symlink(below + "session.1"));
}

}  // namespace
}  // namespace orvex
