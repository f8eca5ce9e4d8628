#include "network/orx_retryable_network_request.h"

#include "network/network_fixture_test.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using platform::TransportError;

class RetryTest : public NetworkFixture {
protected:
    struct Options {
        std::optional<std::chrono::nanoseconds> expiresIn;
        std::uint32_t retriesLeft = 5;
        bool delayOnFail = true;
    };

    void make(Options options) {
        ORXRetryableNetworkRequest request{.httpRequest = {}, .expire = {}, .delayOnFail = options.delayOnFail};
        request.httpRequest.url = "https://a.example/flight";
        request.prepareNext = [](platform::URLSessionTask& next) { next.setProxy("https://p.example"); };
        if (options.expiresIn) request.expire = time.now() + *options.expiresIn;
        task = dataTaskWithRetryableRequest(
            bagSession, time, request, {.attempt = 1, .retriesLeft = options.retriesLeft},
            [this](auto, auto, auto error) { ends.push_back(error ? static_cast<int>(error->code) : 0); });
    }
    void start(Options options) {
        make(options);
        task->resume();
    }
    void failAttempt() {
        server.answer({.error = TransportError{TransportError::cannotConnect, "refused"}});
        time.runPending();
    }
    void succeed() {
        server.answer({.body = "body"});
        time.runPending();
    }
    std::size_t attempts() const { return server.sent().size(); }

    std::shared_ptr<RetryableTask> task;
    std::vector<int> ends;
};

TEST_F(RetryTest, AFailureThatLastsEndsAfterAllRetriesAndTheirDelays) {
    const auto begin = time.now();
    start({.expiresIn = 1h, .retriesLeft = 5});
    const auto first = task->task();
    for (int attempt = 1; attempt <= 5; ++attempt) {
        failAttempt();
        EXPECT_TRUE(ends.empty());
        EXPECT_EQ(server.held(), 0u);
        time.advance(1500ms);
    }
    failAttempt();
    EXPECT_EQ(ends, std::vector<int>{TransportError::cannotConnect});
    EXPECT_EQ(attempts(), 6u);
    EXPECT_EQ(time.now() - begin, 7500ms);
    EXPECT_EQ(std::ranges::count(server.sent(), "https://p.example", &platform::FakeURLSession::Sent::proxyURL), 5);
    EXPECT_EQ(task->task(), first);
}

TEST_F(RetryTest, WithoutADelayTheNextAttemptFollowsAtOnce) {
    const auto begin = time.now();
    start({.expiresIn = 1h, .retriesLeft = 3, .delayOnFail = false});
    failAttempt();
    time.advance(0s);
    succeed();
    EXPECT_EQ(ends, std::vector<int>{0});
    EXPECT_EQ(attempts(), 2u);
    EXPECT_EQ(time.now(), begin);
}

TEST_F(RetryTest, AnAnswerOfAnyStatusIsNoFailure) {
    start({.expiresIn = 1h});
    server.answer({.statusCode = 503});
    time.runPending();
    EXPECT_EQ(ends, std::vector<int>{0});
}

TEST_F(RetryTest, NothingIsTriedAgainAfterTheExpiryOrWithoutOne) {
    start({.expiresIn = {}});
    failAttempt();
    EXPECT_EQ(ends.size(), 1u);
    start({.expiresIn = 10s});
    time.advance(11s);
    failAttempt();
    EXPECT_EQ(ends.size(), 2u);
    EXPECT_EQ(attempts(), 2u);
}

TEST_F(RetryTest, CancellingReachesTheAttemptThatIsUnderWay) {
    start({.expiresIn = 1h});
    failAttempt();
    time.advance(1500ms);
    task->cancel();
    EXPECT_EQ(server.held(), 0u);
    time.advance(1min);
    EXPECT_EQ(ends, std::vector<int>{TransportError::cancelled});
    EXPECT_EQ(attempts(), 2u);
}

TEST_F(RetryTest, CancellingWhileItWaitsEndsItWithoutAnotherAttempt) {
    start({.expiresIn = 1h});
    failAttempt();
    task->cancel();
    task->cancel();
    time.runPending();
    EXPECT_EQ(ends, std::vector<int>{TransportError::cancelled});
    time.advance(1min);
    EXPECT_EQ(attempts(), 1u);
}

TEST_F(RetryTest, OneThatIsCancelledBeforeItBeginsEndsWhenItDoes) {
    make({.expiresIn = 1h});
    task->cancel();
    time.runPending();
    EXPECT_TRUE(ends.empty());
    task->resume();
    time.runPending();
    EXPECT_EQ(ends, std::vector<int>{TransportError::cancelled});
}

TEST_F(RetryTest, ItLivesByItselfOnceResumedAndNotBefore) {
    start({.expiresIn = 1h});
    std::weak_ptr<RetryableTask> weak = task;
    task = nullptr;
    failAttempt();
    time.advance(1500ms);
    succeed();
    EXPECT_EQ(ends, std::vector<int>{0});
    EXPECT_TRUE(weak.expired());

    make({.expiresIn = 1h});
    weak = task;
    task = nullptr;
    EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace orvex
