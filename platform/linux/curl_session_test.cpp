#include "platform/linux/curl_session.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <gmock/gmock.h>
#include <zlib.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <thread>

#include "platform/fakes/scripted_server.h"
#include "platform/fakes/temporary_directory.h"

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;
using End = ScriptedAnswer::End;

struct Outcome {
    Body data;
    std::optional<URLResponse> response;
    std::optional<TransportError> error;
    std::map<std::string, double> timing;

    [[nodiscard]] std::string text() const { return data ? *data : "(none)"; }
    [[nodiscard]] std::int64_t status() const { return response ? response->statusCode : 0; }
    [[nodiscard]] int code() const { return error ? error->code : 0; }
};

std::string chunk(std::string_view text) { return fmt::format("{:x}\r\n{}\r\n", text.size(), text); }

std::string gzip(std::string_view text) {
    z_stream stream{};
    deflateInit2(&stream, 9, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
    std::string packed(deflateBound(&stream, text.size()), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(packed.data());
    stream.avail_out = static_cast<uInt>(packed.size());
    deflate(&stream, Z_FINISH);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    return packed;
}

class CurlSessionTest : public testing::Test {
protected:
    struct Sending {
        std::shared_ptr<URLSessionTask> task;
        std::future<Outcome> outcome;

        Outcome wait() {
            Outcome result = outcome.get();
            result.timing = task->timingData();
            return result;
        }
    };

    Sending make(URLRequest request) {
        auto promise = std::make_shared<std::promise<Outcome>>();
        auto future = promise->get_future();
        auto task = session->dataTask(std::move(request), [promise](Body data, auto response, auto error) {
            promise->set_value({std::move(data), std::move(response), std::move(error)});
        });
        return {std::move(task), std::move(future)};
    }
    Sending start(URLRequest request) {
        Sending sending = make(std::move(request));
        sending.task->resume();
        return sending;
    }
    Outcome send(URLRequest request) { return start(std::move(request)).wait(); }
    Outcome get(std::string_view path = "/") { return send({.url = server.url(path)}); }

    /// What the server says from now on.
    void answer(ScriptedAnswer next) {
        server.setScript([next](const ReceivedRequest&) { return next; });
    }
    ReceivedRequest lastRequest() { return server.requests().back(); }

    ScriptedServer server{[](const ReceivedRequest&) { return answerWith(200, {}, "hello"); }};
    CurlSessionFactory factory;
    std::shared_ptr<URLSession> session = factory.makeSession({.label = "test", .maxBodyBytes = 1000});
};

TEST_F(CurlSessionTest, ARequestGoesOutAsItWasGiven) {
    send({.url = server.url("/a/../b%2f?q=%C3%A4+%2B#fragment"),
          .method = "PUT",
          .headers = {{"X-One", "1"}, {"X-Empty", ""}, {"User-Agent", "agent"}},
          .body = std::string("b\0dy", 4)});
    const auto request = lastRequest();
    EXPECT_EQ(request.method, "PUT");
    EXPECT_EQ(request.target, "/a/../b%2f?q=%C3%A4+%2B");
    EXPECT_EQ(request.body, std::string("b\0dy", 4));
    EXPECT_EQ(headerValue(request.headers, "x-one"), "1");
    EXPECT_EQ(headerValue(request.headers, "X-Empty"), "");
    EXPECT_EQ(headerValue(request.headers, "User-Agent"), "agent");
    for (const auto* name : {"Content-Type", "Expect", "Cookie", "Authorization"})
        EXPECT_FALSE(headerValue(request.headers, name)) << name;
}

TEST_F(CurlSessionTest, ARedirectedAnswerIsNotStoredAndNoConditionIsPassedOn) {
    session = factory.makeSession({.label = "test", .cacheMemoryCapacity = 4000});
    answer(answerWith(200, {{"ETag", "\"1\""}}, "stored"));
    get("/from");
    server.setScript([](const ReceivedRequest& request) {
        if (request.target == "/from") return answerWith(302, {{"Location", "/to"}, {"Cache-Control", "max-age=9"}});
        return answerWith(200, {{"Cache-Control", "max-age=100"}}, "moved");
    });
    for (int i = 0; i < 2; ++i) EXPECT_EQ(get("/from").text(), "moved");
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 5u);
    EXPECT_EQ(headerValue(requests[1].headers, "If-None-Match"), "\"1\"");
    for (const std::size_t i : {2, 3, 4}) EXPECT_FALSE(headerValue(requests[i].headers, "If-None-Match")) << i;
}

TEST_F(CurlSessionTest, WhatMustNotBeSentEndsTheTaskAndOpensNothing) {
    const std::string url = server.url();
    const std::vector<URLRequest> requests = {
        {.url = url, .headers = {{"X-Key", "a\r\nX-Evil: 1"}}},
        {.url = url, .headers = {{"X-Key", std::string("a\0b", 3)}}},
        {.url = url, .headers = {{"X-Key", "tab\there"}}},
        {.url = url, .headers = {{"X Key", "blank"}}},
        {.url = url, .headers = {{"X-Key: 1\r\nX-Evil", "1"}}},
        {.url = url, .headers = {{"", "nameless"}}},
        {.url = url, .method = "GET / HTTP/1.1\r\nX-Evil: 1\r\n\r\n"},
        {.url = "http://me@" + url.substr(7)},
        {.url = "http://example.com/"},
        {.url = "file:///etc/passwd"},
        {.url = ""},
    };
    for (const auto& request : requests) {
        const auto outcome = send(request);
        EXPECT_EQ(outcome.code(), TransportError::other) << request.url;
        EXPECT_FALSE(outcome.error->reason.empty());
        EXPECT_FALSE(outcome.response);
    }
    EXPECT_EQ(server.connections(), 0u);
}

TEST_F(CurlSessionTest, AKeptConnectionServesTheNextRequest) {
    EXPECT_EQ(get().timing.at("connections"), 1);
    const auto second = get();
    EXPECT_EQ(second.timing.at("connections"), 0);
    EXPECT_GT(second.timing.at("total"), 0);
    EXPECT_LE(second.timing.at("first_byte"), second.timing.at("total"));
    EXPECT_EQ(server.connections(), 1u);
}

TEST_F(CurlSessionTest, AConnectionThatDiedWhileKeptIsReplaced) {
    answer({answerWith(200, {}, "one").bytes, End::close});
    EXPECT_EQ(get().text(), "one");
    EXPECT_EQ(get().text(), "one");
    EXPECT_EQ(server.connections(), 2u);
}

TEST_F(CurlSessionTest, ChunkedAndCompressedBodiesArriveDecoded) {
    answer(
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunk("hel") + chunk("lo") + "0\r\nX-T: 1\r\n\r\n"});
    const auto chunked = get();
    EXPECT_EQ(chunked.text(), "hello");
    EXPECT_FALSE(headerValue(chunked.response->headers, "X-T"));
    answer(answerWith(200, {{"Content-Encoding", "gzip"}}, gzip("squeezed")));
    EXPECT_EQ(get().text(), "squeezed");
}

TEST_F(CurlSessionTest, ABodyEndsAtItsLimitHoweverItComes) {
    answer(answerWith(200, {}, std::string(1000, 'x')));
    EXPECT_EQ(get().text().size(), 1000u);

    answer(answerWith(200, {}, std::string(1001, 'x')));
    EXPECT_EQ(get().code(), TransportError::connectionLost);
    answer({"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunk(std::string(1001, 'x'))});
    EXPECT_EQ(get().code(), TransportError::connectionLost);
    answer({"HTTP/1.1 200 OK\r\n\r\n" + std::string(1001, 'x')});
    EXPECT_EQ(get().code(), TransportError::connectionLost);

    const std::string bomb = gzip(std::string(10u << 20, '\0'));
    ASSERT_LT(bomb.size(), 20'000u);
    answer(answerWith(200, {{"Content-Encoding", "gzip"}}, bomb));
    const auto outcome = get();
    EXPECT_EQ(outcome.code(), TransportError::connectionLost);
    EXPECT_EQ(outcome.error->reason, "a body of more than 1000 bytes");
    EXPECT_EQ(outcome.status(), 200);
    EXPECT_FALSE(outcome.data);
}

TEST_F(CurlSessionTest, HeadersHaveALimitToo) {
    std::string bytes = "HTTP/1.1 200 OK\r\n";
    for (int i = 0; i < 400; ++i) bytes += "X-" + std::to_string(i) + ": " + std::string(1000, 'x') + "\r\n";
    answer({bytes});
    const auto outcome = get();
    EXPECT_EQ(outcome.code(), TransportError::connectionLost);
    EXPECT_FALSE(outcome.response);
}

TEST_F(CurlSessionTest, AnAnswerThatBreaksOffIsALostConnection) {
    answer({"HTTP/1.1 200 OK\r\nContent-Length: 900\r\n\r\nshort", End::close});
    const auto truncated = get();
    EXPECT_EQ(truncated.code(), TransportError::connectionLost);
    EXPECT_EQ(truncated.status(), 200);
    EXPECT_FALSE(truncated.data);

    answer({"HTTP/1.1 200 OK\r\nContent-Length: 900\r\n\r\nshort", End::reset});
    EXPECT_EQ(get().code(), TransportError::connectionLost);
    answer({"", End::close});
    EXPECT_EQ(get().code(), TransportError::connectionLost);
    answer({"", End::reset});
    EXPECT_EQ(get().code(), TransportError::connectionLost);

    answer(answerWith(200, {}, "well again"));
    EXPECT_EQ(get().text(), "well again");
}

TEST_F(CurlSessionTest, WhatIsNotHTTPIsAnError) {
    answer({"220 mail.example ESMTP\r\n", End::close});
    const auto outcome = get();
    EXPECT_EQ(outcome.code(), TransportError::other);
    EXPECT_FALSE(outcome.response);
}

TEST_F(CurlSessionTest, HostsThatCannotBeReachedAreToldApart) {
    std::string closedURL;
    {
        const ScriptedServer gone([](const ReceivedRequest&) { return answerWith(200); });
        closedURL = gone.url();
    }
    EXPECT_EQ(send({.url = closedURL}).code(), TransportError::cannotConnect);
    // A label of 64 letters is no name, so this needs no name server.
    EXPECT_EQ(send({.url = "https://" + std::string(64, 'a') + ".example/"}).code(), TransportError::cannotFindHost);
    EXPECT_EQ(send({.url = "https" + server.url().substr(4)}).code(), TransportError::secureConnectionFailed);
}

TEST_F(CurlSessionTest, TheTimeIsForTheWholeRequest) {
    answer({"HTTP/1.1 200 OK\r\nContent-Length: 900\r\n\r\nshort"});
    EXPECT_EQ(send({.url = server.url(), .timeout = 200ms}).code(), TransportError::timedOut);
    EXPECT_EQ(send({.url = server.url(), .timeout = 0ms}).code(), TransportError::timedOut);
    answer(answerWith(200));
    EXPECT_EQ(send({.url = server.url(), .timeout = std::chrono::nanoseconds::max()}).status(), 200);
}

TEST_F(CurlSessionTest, RedirectsAreFollowedToTheFifth) {
    server.setScript([](const ReceivedRequest& request) {
        const int left = request.target[1] - '0';
        if (left == 0) return answerWith(200, {}, "there");
        return answerWith(302, {{"Location", fmt::format("/{}?x=1", left - 1)}}, "on your way");
    });
    const auto outcome = get("/5");
    EXPECT_EQ(outcome.text(), "there");
    EXPECT_EQ(outcome.response->url, server.url("/0?x=1"));
    EXPECT_EQ(server.requests().size(), 6u);

    const auto tooFar = get("/6");
    EXPECT_EQ(tooFar.code(), TransportError::other);
    EXPECT_EQ(tooFar.status(), 302);
    EXPECT_EQ(server.requests().size(), 12u);
}

TEST_F(CurlSessionTest, ARefusedRedirectIsAnError) {
    for (const auto* location :
         {"file:///etc/passwd", "http://example.com/", "http://u:p@127.0.0.1/", "/a b", "ftp://127.0.0.1/"}) {
        answer(answerWith(302, {{"Location", location}}));
        const auto outcome = get();
        EXPECT_EQ(outcome.code(), TransportError::other) << location;
        EXPECT_THAT(outcome.error->reason, testing::StartsWith("the redirect: ")) << location;
    }
    answer(answerWith(302));
    EXPECT_EQ(get().status(), 302);  // leads nowhere, so it is the answer
}

TEST_F(CurlSessionTest, AnotherHostGetsNoneOfTheHeadersThenOrLater) {
    server.setScript([](const ReceivedRequest&) { return answerWith(200, {}, "back"); });
    ScriptedServer other(
        [this](const ReceivedRequest&) { return answerWith(307, {{"Location", server.url("/back")}}); }, "127.0.0.2");
    ScriptedServer first([&](const ReceivedRequest&) { return answerWith(307, {{"Location", other.url("/away")}}); });

    EXPECT_EQ(send({.url = first.url(), .headers = {{"X-Secret", "1"}}}).text(), "back");
    EXPECT_TRUE(headerValue(first.requests().at(0).headers, "X-Secret"));
    EXPECT_FALSE(headerValue(other.requests().at(0).headers, "X-Secret"));
    EXPECT_EQ(other.requests().at(0).target, "/away");
    EXPECT_FALSE(headerValue(lastRequest().headers, "X-Secret"));
}

TEST_F(CurlSessionTest, ARedirectKeepsMethodAndBodyOnlyWhereHTTPSaysSo) {
    const auto redirected = [this](int status) {
        server.setScript([status](const ReceivedRequest& request) {
            return request.target == "/to" ? answerWith(200) : answerWith(status, {{"Location", "/to"}});
        });
        send({.url = server.url(), .method = "POST", .headers = {{"X-Kept", "1"}}, .body = "body"});
        EXPECT_TRUE(headerValue(lastRequest().headers, "X-Kept"));
        return lastRequest().method + " " + lastRequest().body;
    };
    EXPECT_EQ(redirected(301), "GET ");
    EXPECT_EQ(redirected(303), "GET ");
    EXPECT_EQ(redirected(307), "POST body");
    EXPECT_EQ(redirected(308), "POST body");
}

/// Sends and receives files; what it reports is the last progress.
class CurlFilesTest : public CurlSessionTest {
protected:
    Outcome upload(const std::string& body, std::chrono::seconds longestSilence = 60s) {
        writeFile(directory / "body", body);
        auto sending = make({.url = server.url("/begin"), .method = "PUT", .headers = {{"X-Key", "1"}}});
        sending.task->setFiles({.body = FileDescriptor(::open((directory / "body").c_str(), O_RDONLY | O_CLOEXEC)),
                                .bodyBytes = body.size(),
                                .longestSilence = longestSilence,
                                .progress = [this](std::uint64_t sent, std::uint64_t) { progress = sent; }});
        sending.task->resume();
        return sending.wait();
    }
    Outcome download() {
        auto sending = make({.url = server.url("/begin")});
        sending.task->setFiles({.answer = FileDescriptor(::open((directory / "answer").c_str(),
                                                                O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600))});
        sending.task->resume();
        return sending.wait();
    }
    TemporaryDirectory directory;
    std::atomic<std::uint64_t> progress = 0;
};

TEST_F(CurlFilesTest, AnUploadFollowsOnlyRedirectsThatKeepItWhole) {
    const std::string body(300'000, 'b');
    for (const int status : {301, 302, 303, 307, 308}) {
        const bool follows = status >= 307;
        server.setScript([status](const ReceivedRequest& request) {
            return request.target == "/begin" ? answerWith(status, {{"Location", "/end"}}, "moved") : answerWith(200);
        });
        const auto outcome = upload(body);
        EXPECT_EQ(outcome.status(), follows ? 200 : status);
        EXPECT_EQ(lastRequest().target, follows ? "/end" : "/begin");
        EXPECT_EQ(lastRequest().method, "PUT");
        EXPECT_EQ(lastRequest().body, body);
        EXPECT_EQ(progress, body.size());
    }
}

TEST_F(CurlFilesTest, ADownloadHoldsTheLastAnswerAndNoMoreThanItsLimit) {
    server.setScript([](const ReceivedRequest& request) {
        return request.target == "/begin" ? answerWith(302, {{"Location", "/end"}}, "moved")
                                          : answerWith(200, {}, "it");
    });
    EXPECT_EQ(download().status(), 200);
    EXPECT_EQ(readFile(directory / "answer"), "it");
    answer(answerWith(200, {{"Content-Encoding", "gzip"}}, gzip(std::string(1001, 'x'))));
    const auto tooLong = download();
    EXPECT_EQ(tooLong.code(), TransportError::connectionLost);
    EXPECT_TRUE(tooLong.error->isPermanent);
}

TEST_F(CurlFilesTest, AServerThatStallsIsGivenUpAndAResetIsNoRefusal) {
    answer({.bytes = ""});
    const auto stalled = upload("body", 1s);
    EXPECT_EQ(stalled.code(), TransportError::timedOut);
    EXPECT_FALSE(stalled.error->isPermanent);
    answer({.bytes = "", .end = End::reset});
    EXPECT_EQ(upload("body").code(), TransportError::connectionLost);
}

TEST_F(CurlSessionTest, APreconnectDrainsItsAnswerAndLeavesTheConnection) {
    auto sending = make({.url = server.url()});
    sending.task->setPreconnect();
    sending.task->resume();
    const auto outcome = sending.wait();
    EXPECT_EQ(outcome.status(), 200);
    EXPECT_FALSE(outcome.data);
    EXPECT_EQ(get().timing.at("connections"), 0);
}

TEST_F(CurlSessionTest, ATaskWithAProxyTunnelsThroughItEvenToThisHost) {
    ScriptedServer proxy([](const ReceivedRequest& request) {
        return request.method == "CONNECT" ? ScriptedAnswer{"HTTP/1.1 200 OK\r\nX-Proxy: 1\r\n\r\n"}
                                           : answerWith(200, {}, "tunnelled");
    });
    auto sending = make({.url = "http://127.0.0.1:1/x", .headers = {{"X-Secret", "1"}}});
    sending.task->setProxy(proxy.url());
    sending.task->resume();
    const auto outcome = sending.wait();
    EXPECT_EQ(outcome.text(), "tunnelled");
    EXPECT_FALSE(headerValue(outcome.response->headers, "X-Proxy"));
    EXPECT_EQ(proxy.requests().at(0).target, "127.0.0.1:1");
    EXPECT_FALSE(headerValue(proxy.requests().at(0).headers, "X-Secret"));
    EXPECT_EQ(proxy.requests().at(1).target, "/x");

    auto refused = make({.url = server.url()});
    refused.task->setProxy("http://proxy.example/");
    refused.task->resume();
    EXPECT_EQ(refused.wait().code(), TransportError::other);
}

TEST_F(CurlSessionTest, AProxyOfTheEnvironmentIsNotAskedForThisHost) {
    setenv("http_proxy", "http://127.0.0.1:1/", 1);
    EXPECT_EQ(get().text(), "hello");
    unsetenv("http_proxy");
}

TEST_F(CurlSessionTest, TheEndOfTheSessionCancelsAndWaits) {
    answer({"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n"});
    std::vector<Sending> sendings;
    for (int i = 0; i < 10; ++i) sendings.push_back(start({.url = server.url()}));
    ASSERT_TRUE(server.waitForRequests(1));
    session.reset();
    for (auto& sending : sendings) {
        ASSERT_EQ(sending.outcome.wait_for(0s), std::future_status::ready);
        EXPECT_EQ(sending.wait().code(), TransportError::cancelled);
    }
}

TEST_F(CurlSessionTest, ACompletionMayEndTheSession) {
    std::promise<void> ended;
    auto task = session->dataTask({.url = server.url()}, [&, last = session](auto, auto, auto) mutable {
        last.reset();
        ended.set_value();
    });
    session.reset();
    task->resume();
    ended.get_future().wait();
}

TEST_F(CurlSessionTest, TasksThatAreStartedAndCancelledByManyThreadsEndOnceEach) {
    constexpr int threads = 4;
    constexpr int tasksEach = 50;
    std::atomic<int> ends = 0;
    {
        std::vector<std::jthread> callers;
        for (int i = 0; i < threads; ++i) {
            callers.emplace_back([&] {
                for (int j = 0; j < tasksEach; ++j) {
                    auto task = session->dataTask({.url = server.url()}, [&](auto, auto, auto) { ++ends; });
                    const std::jthread canceller([task] { task->cancel(); });
                    task->resume();
                }
            });
        }
    }
    session.reset();
    EXPECT_EQ(ends, threads * tasksEach);
}

}  // namespace
}  // namespace orvex::platform
