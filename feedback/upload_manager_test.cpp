#include "feedback/upload_manager.h"

#include <fmt/core.h>

#include "core/json.h"
#include "feedback/upload_world_test.h"
#include "platform/fakes/temporary_directory.h"
#include "platform/mapped_file.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using Endpoint = UploadManager::Endpoint;
using platform::LogLevel;
using platform::TransportError;

class UploadManagerTest : public testing::Test, protected UploadWorld {
protected:
    /// Seven elements, as a session has; long enough for many pieces, and not to be compressed away.
    static boost::json::object dictionary() {
        std::string noise;
        for (std::uint32_t value = 1; noise.size() < 100'000; value = value * 1'664'525u + 1'013'904'223u) {
            noise += fmt::format("{:x}", value);
        }
        return {{"agent", "a"}, {"b", 1}, {"fb", noise}, {"first_use", true}, {"p", "x"}, {"r", 2}, {"u", "guid"}};
    }
    std::optional<platform::FileDescriptor> upload(UploadManager::Held held = nullptr) {
        auto compressed = uploads->uploadJSONFeedback(dictionary(), Endpoint::feedback, std::move(held));
        time.runPending();
        return compressed;
    }
    void uploadReport(std::string_view bytes, std::string_view type, Endpoint endpoint = Endpoint::feedback) {
        auto caches = files.cachesDirectory().value();
        ASSERT_TRUE(caches->replace("report", bytes));
        const auto file = caches->openFile("report").value();
        uploads->uploadFeedback({.file = file, .path = "report"}, type, endpoint);
        time.runPending();
    }
    std::string lastURL() { return server->sent().back().request.url; }
};

TEST_F(UploadManagerTest, EndpointsComeWithTheBagAndGoWithIt) {
    EXPECT_EQ(uploads->feedbackEndpoint(), std::nullopt);
    install(openBag);
    EXPECT_EQ(uploads->feedbackEndpoint(), "https://f.example/fb?a=1&v=2");
    EXPECT_EQ(uploads->crowdsourcingEndpoint(), "https://f.example/c");

    uploadReport("r", "velloc");
    EXPECT_EQ(lastURL(), "https://f.example/fb?a=1&cc=DE&key=tabbycat5208&locale=de_DE&type=velloc&v=2");
    uploadReport("r", "custom_crowdsourcing", Endpoint::crowdsourcing);
    EXPECT_EQ(lastURL(), "https://f.example/c?cc=DE&key=tabbycat5208&locale=de_DE&type=custom_crowdsourcing");

    auto closed = boost::json::parse(openBag).as_object();
    closed["feedback_enabled"] = false;
    install(boost::json::serialize(closed));
    EXPECT_EQ(uploads->feedbackEndpoint(), std::nullopt);
    EXPECT_EQ(uploads->crowdsourcingEndpoint(), std::nullopt);
    uploadReport("r", "velloc");
    EXPECT_EQ(logged(LogLevel::error, "Server feedback endpoint not set, data can't be sent to server"), 1u);
    EXPECT_TRUE(upload().has_value());  // it is compressed all the same, for a tool to look at
    EXPECT_EQ(count("upload.dropped.noendpoint"), 2);
    EXPECT_EQ(server->sent().size(), 2u);
    EXPECT_EQ(temporaryFiles().size(), 0u);
}

TEST_F(UploadManagerTest, ASessionIsTheSameUploadEachTime) {
    install(openBag);
    const auto compressed = upload();
    upload();
    const auto sent = server->sent();
    ASSERT_EQ(sent.size(), 2u);
    const auto text = compactJSON(dictionary());
    for (const auto& each : sent) {
        EXPECT_EQ(inflated(each.body, text.size()).value_or("(no deflate)"), text);
        EXPECT_EQ(header(each.request, "X-Kelvar-Digest"), uploadDigest(text));
        EXPECT_EQ(header(each.request, "Content-Encoding"), "deflate");
        EXPECT_EQ(each.request.method, "POST");
        EXPECT_EQ(each.request.timeout, 300s);
        EXPECT_EQ(each.task->numberOfFeedbacks(), 7u);
    }
    ASSERT_TRUE(compressed);  // also when the session has taken the file by now
    EXPECT_EQ(platform::mmapFileHandle(*compressed)->bytes(), sent[0].body);
    EXPECT_EQ(temporaryFiles().size(), 0u);

    const auto size = sent[0].body.size();
    server->sendBody(size / 2);
    time.runPending();
    const auto fraction = static_cast<float>(size / 2) / static_cast<float>(size);
    EXPECT_EQ(logged(LogLevel::debug, fmt::format("task 1, transfer {:f} complete", fraction)), 1u);
}

TEST_F(UploadManagerTest, AReportIsSentAsItWasWhenItWasOpened) {
    install(openBag);
    const platform::TemporaryDirectory home;
    const auto real = platform::fileManagerBelow(home.path());
    auto caches = real->cachesDirectory().value();
    for (const std::string& bytes : {std::string(), std::string(8192, 'x'), std::string(20'000, 'y')}) {
        ASSERT_TRUE(caches->replace("report", bytes));
        const auto file = caches->openFile("report").value();
        platform::writeFile(caches->path() + "/report", bytes + "what came later");
        uploads->uploadFeedback({.file = file, .path = "report"}, "velloc", Endpoint::feedback);
        time.runPending();
        EXPECT_EQ(bodies().back(), bytes);
        EXPECT_EQ(header(server->sent().back().request, "X-Kelvar-Digest"), uploadDigest(bytes));
        EXPECT_EQ(server->sent().back().task->numberOfFeedbacks(), 0u);
    }
}

TEST_F(UploadManagerTest, TheHundredthPendingUploadIsTheLast) {
    install(openBag);
    fillPending(99);
    upload();
    EXPECT_EQ(server->held().size(), 100u);
    EXPECT_EQ(count("upload.dropped.pending"), 0);
    auto held = std::make_shared<int>();
    const std::weak_ptr<int> watched = held;
    upload(std::move(held));
    uploadReport("r", "velloc");
    EXPECT_EQ(server->held().size(), 100u);
    EXPECT_EQ(count("upload.dropped.pending"), 2);
    EXPECT_EQ(logged(LogLevel::error, "too many uploads pending: 100"), 2u);
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(temporaryFiles().size(), 2u);  // until the next start
    UploadManager::removeTemporaryFiles(files);
    EXPECT_EQ(temporaryFiles().size(), 0u);

    server->answer({});
    time.runPending();
    upload();
    EXPECT_EQ(server->held().size(), 100u);
}

TEST_F(UploadManagerTest, EveryEndIsCounted) {
    install(openBag);
    struct Case {
        platform::FakeAnswer answer;
        std::int64_t sent, notSent, timedOut;
    };
    const Case cases[] = {
        {{.statusCode = 200}, 7, 0, 0},
        {{.statusCode = 204}, 0, 7, 0},
        {{.statusCode = 301}, 0, 7, 0},
        {{.statusCode = 413}, 0, 7, 0},
        {{.statusCode = 500}, 0, 7, 0},
        {{.error = TransportError{TransportError::timedOut, "seven days"}}, 0, 7, 1},
        {{.error = TransportError{TransportError::cancelled, "quota"}}, 0, 7, 0},
    };
    for (const auto& [answer, sent, notSent, timedOut] : cases) {
        const std::int64_t before[] = {count("feedbacksent"), count("feedbacknotsent"), count("fbrequesttimedout")};
        const auto faults = logged(LogLevel::fault, "response error");
        upload();
        server->answer(answer);
        time.runPending();
        EXPECT_EQ(count("feedbacksent") - before[0], sent) << answer.statusCode;
        EXPECT_EQ(count("feedbacknotsent") - before[1], notSent) << answer.statusCode;
        EXPECT_EQ(count("fbrequesttimedout") - before[2], timedOut) << answer.statusCode;
        EXPECT_EQ(logged(LogLevel::fault, "response error") - faults, sent == 0 ? 1u : 0u) << answer.statusCode;
    }
    uploadReport("r", "velloc");
    server->answer({.statusCode = 500});
    time.runPending();
    EXPECT_EQ(count("feedbacknotsent"), 6 * 7);  // a report counts for none
    server->invalidate(TransportError{TransportError::other, "no disk"});
    time.runPending();
    EXPECT_EQ(logged(LogLevel::error, "Session became invalid:"), 1u);
}

TEST_F(UploadManagerTest, AFullDiskCostsTheUploadAndLeavesNothingBehind) {
    install(openBag);
    const auto fails = [this](std::string_view text, const std::function<void()>& work) {
        const auto before = logged(LogLevel::error, text);
        work();
        EXPECT_EQ(logged(LogLevel::error, text), before + 1) << text;
        EXPECT_EQ(temporaryFiles().size(), 0u) << text;
        EXPECT_EQ(server->sent().size(), 0u) << text;
    };
    auto held = std::make_shared<int>();
    const std::weak_ptr<int> watched = held;
    const auto full = platform::DirectoryFault::writeFails;

    fails("Error getting temp file.", [&] {
        faulty.plan().inject(full);
        EXPECT_FALSE(upload(std::move(held)));
    });
    EXPECT_TRUE(watched.expired());
    fails("Error getting temp file.", [&] {
        faulty.plan().inject(full);
        uploadReport("r", "velloc");
    });
    EXPECT_EQ(count("upload.dropped.notempfile"), 2);
    for (const std::size_t nth : {2u, 9u}) {  // a first block, and one in the middle
        fails("Invalid JSON Object", [&] {
            faulty.plan().inject(full, nth);
            EXPECT_FALSE(upload());
        });
    }
    EXPECT_EQ(count("feedbacknotsent"), 2);
    fails("Compression for upload failed", [&] {
        faulty.plan().inject(platform::DirectoryFault::writeTears, 1);
        uploadReport("r", "velloc");
    });
    EXPECT_EQ(count("upload.dropped.compression"), 1);
    fails("upload was not stored", [&] {
        server->refuseNextResume({ENOSPC, "the spool's disk is full"});
        EXPECT_TRUE(upload());
    });
    EXPECT_EQ(count("upload.dropped.notstored"), 1);
    EXPECT_EQ(faulty.plan().injected(), 5u);
    upload();
    EXPECT_EQ(server->sent().size(), 1u);
}

}  // namespace
}  // namespace orvex
