// What holds for every session, the real one against a server of ours and the fake one against its script.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <future>

#include "platform/fakes/fake_url_session.h"
#include "platform/fakes/manual_dispatcher.h"
#include "platform/fakes/scripted_server.h"
#include "platform/fakes/temporary_directory.h"
#include "platform/linux/curl_session.h"

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;

struct Outcome {
    Body data;
    std::optional<URLResponse> response;
    std::optional<TransportError> error;
};

/// The real session: a wait is a wait.
class RealSubject {
public:
    void make(URLSessionConfiguration configuration) {
        session = CurlSessionFactory().makeSession(std::move(configuration));
    }
    std::shared_ptr<URLSession> session;

    std::string url() { return _server.url("/path"); }
    void answer(int status, const HTTPHeaders& headers, std::string body) {
        _server.setScript([=](const ReceivedRequest&) { return answerWith(status, headers, body); });
    }
    void breakOff() {
        _server.setScript([](const ReceivedRequest&) { return ScriptedAnswer{"", ScriptedAnswer::End::reset}; });
    }
    void hold() {
        _server.setScript([](const ReceivedRequest&) { return ScriptedAnswer{}; });
    }
    void untilReceived() { EXPECT_TRUE(_server.waitForRequests(1)); }
    /// Of each request, its If-None-Match.
    std::vector<std::string> asked() {
        std::vector<std::string> conditions;
        for (const auto& request : _server.requests())
            conditions.push_back(headerValue(request.headers, "If-None-Match").value_or(""));
        return conditions;
    }
    std::string lastBody() { return _server.requests().back().body; }
    Outcome wait(std::future<Outcome>& outcome) { return outcome.get(); }

private:
    ScriptedServer _server{[](const ReceivedRequest&) { return answerWith(200); }};
};

/// The fake one: a wait runs what is queued, and moves the clock when that was not enough.
class FakeSubject {
    ManualDispatcher _time;

public:
    void make(URLSessionConfiguration configuration) {
        session = std::make_shared<FakeURLSession>(_time, std::move(configuration));
    }
    std::shared_ptr<FakeURLSession> session;

    std::string url() { return "https://server.example/path"; }
    void answer(int status, const HTTPHeaders& headers, const std::string& body) {
        session->setScript([=](const URLRequest&) { return FakeAnswer{status, headers, body}; });
    }
    void breakOff() {
        session->setScript([](const URLRequest&) {
            return FakeAnswer{.error = TransportError{TransportError::connectionLost, "reset"}};
        });
    }
    void hold() { session->setScript(nullptr); }
    void untilReceived() { EXPECT_EQ(session->sent().size(), 1u); }
    std::vector<std::string> asked() {
        std::vector<std::string> conditions;
        for (const auto& sent : session->sent())
            conditions.push_back(headerValue(sent.request.headers, "If-None-Match").value_or(""));
        return conditions;
    }
    std::string lastBody() { return session->sent().back().request.body; }
    Outcome wait(std::future<Outcome>& outcome) {
        _time.runPending();
        if (outcome.wait_for(0s) != std::future_status::ready) _time.advance(1s);
        if (outcome.wait_for(0s) == std::future_status::ready) return outcome.get();
        ADD_FAILURE() << "the task did not complete";
        return {};
    }
};

template <class Subject>
class URLSessionContract : public testing::Test {
protected:
    URLSessionContract() { subject.make({.label = "contract", .maxBodyBytes = 100}); }
    void useCache() { subject.make({.label = "contract", .cacheMemoryCapacity = 4000, .maxBodyBytes = 100}); }
    std::shared_ptr<URLSessionTask> make(URLRequest request) {
        // A second call of the completion throws from the promise, and so ends the test.
        auto promise = std::make_shared<std::promise<Outcome>>();
        outcome = promise->get_future();
        return subject.session->dataTask(std::move(request), [promise](Body data, auto response, auto error) {
            promise->set_value({std::move(data), std::move(response), std::move(error)});
        });
    }
    Outcome wait() { return subject.wait(outcome); }
    Outcome get() { return send({.url = subject.url()}); }
    Outcome send(URLRequest request) {
        make(std::move(request))->resume();
        return wait();
    }

    Subject subject;
    std::future<Outcome> outcome;
};

using Subjects = testing::Types<RealSubject, FakeSubject>;
TYPED_TEST_SUITE(URLSessionContract, Subjects);

TYPED_TEST(URLSessionContract, AnAnswerArrivesWhole) {
    this->subject.answer(200, {{"X-One", "1"}, {"X-Two", "2"}}, "body");
    const auto outcome = this->get();
    ASSERT_TRUE(outcome.data && outcome.response);
    EXPECT_FALSE(outcome.error);
    EXPECT_EQ(*outcome.data, "body");
    EXPECT_EQ(outcome.response->url, this->subject.url());
    EXPECT_TRUE(outcome.response->isHTTP);
    EXPECT_EQ(outcome.response->statusCode, 200);
    EXPECT_EQ(headerValue(outcome.response->headers, "x-two"), "2");
}

TYPED_TEST(URLSessionContract, AnyStatusIsAResponseAndAnEmptyBodyIsNone) {
    for (const int status : {204, 404, 503}) {
        this->subject.answer(status, {}, "");
        const auto outcome = this->get();
        ASSERT_TRUE(outcome.response);
        EXPECT_EQ(outcome.response->statusCode, status);
        EXPECT_FALSE(outcome.error);
        EXPECT_FALSE(outcome.data);
    }
}

TYPED_TEST(URLSessionContract, BodiesMayBeFiles) {
    const TemporaryDirectory directory;
    writeFile(directory / "body", "uploaded");
    this->subject.answer(200, {}, "downloaded");
    const auto task = this->make({.url = this->subject.url(), .method = "POST"});
    task->setFiles({.body = FileDescriptor(::open((directory / "body").c_str(), O_RDONLY | O_CLOEXEC)),
                    .bodyBytes = 8,
                    .answer = FileDescriptor(
                        ::open((directory / "answer").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600))});
    task->resume();
    const auto outcome = this->wait();
    ASSERT_TRUE(outcome.response) << outcome.error.value_or(TransportError{}).reason;
    EXPECT_FALSE(outcome.data);
    EXPECT_EQ(readFile(directory / "answer"), "downloaded");
    EXPECT_EQ(this->subject.lastBody(), "uploaded");
}

TYPED_TEST(URLSessionContract, AFailureOfTheTransportIsAnError) {
    this->subject.breakOff();
    const auto outcome = this->get();
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->code, TransportError::connectionLost);
    EXPECT_FALSE(outcome.response || outcome.data);
}

TYPED_TEST(URLSessionContract, ABodyBeyondTheLimitIsALostConnection) {
    this->subject.answer(200, {}, std::string(101, 'x'));
    const auto outcome = this->get();
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->code, TransportError::connectionLost);
    EXPECT_FALSE(outcome.data);
}

TYPED_TEST(URLSessionContract, WhatMustNotBeSentIsRefused) {
    for (const auto& request : {URLRequest{.url = "http://server.example/"}, URLRequest{.url = "nonsense"},
                                URLRequest{.url = this->subject.url(), .headers = {{"X-Key", "a\nb"}}}}) {
        const auto outcome = this->send(request);
        ASSERT_TRUE(outcome.error);
        EXPECT_EQ(outcome.error->code, TransportError::other);
        EXPECT_FALSE(outcome.error->reason.empty());
    }
}

TYPED_TEST(URLSessionContract, TheTimeRunsOut) {
    this->subject.hold();
    const auto outcome = this->send({.url = this->subject.url(), .timeout = 200ms});
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->code, TransportError::timedOut);
}

TYPED_TEST(URLSessionContract, CancellingCompletesOnce) {
    this->subject.hold();
    const auto task = this->make({.url = this->subject.url()});
    task->resume();
    task->resume();
    this->subject.untilReceived();
    task->cancel();
    task->cancel();
    EXPECT_EQ(this->wait().error->code, TransportError::cancelled);
    task->cancel();
    EXPECT_EQ(task->originalRequest().url, this->subject.url());
}

TYPED_TEST(URLSessionContract, ATaskCancelledBeforeItIsResumedSendsNothing) {
    const auto task = this->make({.url = this->subject.url()});
    task->cancel();
    task->resume();
    EXPECT_EQ(this->wait().error->code, TransportError::cancelled);
}

TYPED_TEST(URLSessionContract, ATaskThatIsNeverResumedNeverCompletes) {
    this->make({.url = this->subject.url()});
    EXPECT_THROW(this->outcome.get(), std::future_error);  // the completion was destroyed uncalled
}

TYPED_TEST(URLSessionContract, TheEndOfTheSessionCompletesWhatIsUnderWay) {
    this->subject.hold();
    this->make({.url = this->subject.url()})->resume();
    this->subject.untilReceived();
    this->subject.session.reset();
    ASSERT_EQ(this->outcome.wait_for(0s), std::future_status::ready);
    EXPECT_EQ(this->outcome.get().error->code, TransportError::cancelled);
}

TYPED_TEST(URLSessionContract, WithoutACacheThereIsNothingToPurge) {
    EXPECT_FALSE(this->subject.session->purgeMemoryCache());
    this->subject.answer(200, {{"Cache-Control", "max-age=100"}}, "body");
    for (int i = 0; i < 2; ++i) EXPECT_EQ(*this->get().data, "body");
    EXPECT_EQ(this->subject.asked().size(), 2u);
}

TYPED_TEST(URLSessionContract, AFreshAnswerIsAskedForOnceUntilThePurge) {
    this->useCache();
    this->subject.answer(200, {{"Cache-Control", "max-age=100"}}, "body");
    const auto first = this->get();
    const auto task = this->make({.url = this->subject.url()});
    task->resume();
    const auto second = this->wait();
    ASSERT_TRUE(second.response && second.data);
    EXPECT_EQ(second.data, first.data);  // shared
    EXPECT_EQ(second.response->url, this->subject.url());
    EXPECT_TRUE(headerValue(second.response->headers, "Age"));
    EXPECT_EQ(task->timingData(), (std::map<std::string, double>{{"from_cache", 1}}));
    EXPECT_EQ(this->subject.asked().size(), 1u);

    EXPECT_TRUE(this->subject.session->purgeMemoryCache());
    EXPECT_EQ(*this->get().data, "body");
    EXPECT_EQ(this->subject.asked().size(), 2u);
}

TYPED_TEST(URLSessionContract, AStaleAnswerIsValidated) {
    this->useCache();
    this->subject.answer(200, {{"ETag", "\"1\""}}, "body");
    const auto first = this->get();
    this->subject.answer(304, {{"X-New", "1"}}, "");
    const auto second = this->get();
    ASSERT_TRUE(second.response);
    EXPECT_EQ(second.response->statusCode, 200);
    EXPECT_EQ(headerValue(second.response->headers, "X-New"), "1");
    EXPECT_EQ(second.data, first.data);
    this->subject.answer(200, {}, "other");
    EXPECT_EQ(*this->get().data, "other");
    EXPECT_EQ(*this->get().data, "other");
    EXPECT_EQ(this->subject.asked(), (std::vector<std::string>{"", "\"1\"", "\"1\"", ""}));
}

TYPED_TEST(URLSessionContract, APreconnectTaskNeitherReadsNorWritesTheCache) {
    this->useCache();
    this->subject.answer(200, {{"Cache-Control", "max-age=100"}}, "body");
    const auto preconnect = [this] {
        const auto task = this->make({.url = this->subject.url()});
        task->setPreconnect();
        task->resume();
        EXPECT_FALSE(this->wait().data);
    };
    preconnect();
    EXPECT_EQ(*this->get().data, "body");
    preconnect();
    EXPECT_EQ(this->subject.asked().size(), 3u);
}

}  // namespace
}  // namespace orvex::platform
