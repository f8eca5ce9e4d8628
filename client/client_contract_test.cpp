#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "client/orvex/client.h"
#include "platform/fakes/private_bus.h"
#include "platform/linux/sd_bus.h"

// The client against peers that have the daemon's name and answer as each test wants.

namespace orvex::client {
namespace {

using platform::BusArguments;
using platform::BusArray;
using platform::BusBytes;
using platform::BusDictionary;
using ::testing::ElementsAre;

constexpr auto* name = "com.kelvar.orvexd";
constexpr auto* path = "/com/kelvar/orvexd";
constexpr auto* interface = "com.kelvar.orvexd.Daemon";

/// Who has the daemon's name, for as long as it lives.
class Peer {
public:
    using Answer = std::function<void(platform::BusCall&)>;

    explicit Peer(const std::string& address) : _bus(platform::SdBus::create({.address = address}).value()) {
        const auto method = [](const char* member, const char* in, const char* out) {
            return platform::BusMember{.name = member, .inSignature = in, .inNames = {}, .outSignature = out};
        };
        const platform::BusInterface methods{
            interface,
            {method("Configure", "a{sv}", ""), method("AddCompletion", "ss", ""),
             method("Request", "sa{sv}", "ta{sv}a{sv}"), method("GetImageMap", "", "s")},
            {}};
        EXPECT_TRUE(_bus->exportObject(path, {methods}, [this](platform::BusCall call) { _take(std::move(call)); }));
    }
    void takeName(const std::string& wanted = name) { ASSERT_TRUE(_bus->requestName(wanted)); }
    void releaseName() { _bus->releaseName(name); }
    /// What it does with calls but `Configure`; without it they stay unanswered.
    void answerWith(Answer answer) {
        const std::scoped_lock lock(_mutex);
        _answer = std::move(answer);
    }
    void signal(const std::string& to, const char* member, BusArguments arguments) {
        _bus->sendSignal(to, path, interface, member, std::move(arguments));
    }
    void waitForCalls(std::size_t count) {
        std::unique_lock lock(_mutex);
        _came.wait(lock, [&] { return _calls.size() >= count; });
    }
    std::vector<std::string> calls() {
        const std::scoped_lock lock(_mutex);
        return _calls;
    }
    std::string caller() {
        const std::scoped_lock lock(_mutex);
        return _caller;
    }

private:
    void _take(platform::BusCall call) {
        const std::scoped_lock lock(_mutex);
        _calls.push_back(call.member);
        _came.notify_all();
        _caller = call.sender.uniqueName;
        if (call.member == "Configure") return call.reply.answer({});
        if (_answer) return _answer(call);
        _kept.push_back(std::move(call));
    }

    std::mutex _mutex;
    std::condition_variable _came;
    Answer _answer;
    std::vector<std::string> _calls;
    std::string _caller;
    std::deque<platform::BusCall> _kept;
    const std::unique_ptr<platform::SdBus> _bus;
};

class ClientContract : public testing::Test {
protected:
    std::unique_ptr<Peer> peer() {
        auto made = std::make_unique<Peer>(bus.address());
        made->takeName();
        return made;
    }
    template <class T>
    static Client::Callback<T> into(std::vector<std::expected<T, Error>>& results) {
        return [&results](std::expected<T, Error> result) { results.push_back(std::move(result)); };
    }
    template <class Results>
    void waitFor(const Results& results, std::size_t count) {
        ASSERT_TRUE(client.runUntil([&] { return results.size() >= count; }));
    }

    platform::PrivateBus bus;
    Client client = Client::connect({.identifier = "test", .userAgent = "test/1", .address = bus.address()}).value();
    std::vector<std::expected<void, Error>> done;
};

BusArguments answer(BusDictionary reply, BusDictionary error = {}) {
    return {std::uint64_t{7}, std::move(reply), std::move(error)};
}

BusDictionary with(const char* key, platform::BusValue value) {
    BusDictionary reply;
    reply.set("scale", 1.0).set(key, std::move(value));
    return reply;
}

TEST_F(ClientContract, WhatCallbacksThrowComesOutOfProcessAndCostsNoOtherCallback) {
    const auto daemon = peer();
    daemon->answerWith([](platform::BusCall& call) { call.reply.answer({}); });
    const auto throws = [](auto&&) { throw std::runtime_error("of the program"); };
    client.configure(throws);
    client.configure(into(done));
    client.addCompletion("apple", "app", throws);
    client.addCompletion(std::string("\0", 1), "", throws);
    client.addCompletion(std::string("\0", 1), "", into(done));
    int thrown = 0;
    while (thrown < 3 || done.size() < 2) {
        try {
            ASSERT_TRUE(client.runUntil([&] { return thrown == 3 && done.size() == 2; }));
        } catch (const std::runtime_error&) {
            ++thrown;
        }
    }
    client.addCompletion("apple", "app", into(done));
    waitFor(done, 3);
    EXPECT_TRUE(done.back());
}

TEST_F(ClientContract, EveryNewOwnerIsToldBeforeItGetsACall) {
    auto first = peer();
    first->answerWith([](platform::BusCall& call) { call.reply.answer({}); });
    client.addCompletion("a", "b", into(done));
    client.addCompletion("c", "d", into(done));
    waitFor(done, 2);
    EXPECT_THAT(first->calls(), ElementsAre("Configure", "AddCompletion", "AddCompletion"));

    Peer second(bus.address());
    second.answerWith([](platform::BusCall& call) { call.reply.answer({}); });
    first->releaseName();
    second.takeName();
    client.addCompletion("e", "f", into(done));  // sent before the client has heard of the change
    waitFor(done, 3);
    EXPECT_TRUE(done[2].has_value());
    const auto calls = second.calls();
    const auto told = std::ranges::find(calls, "Configure");
    ASSERT_NE(told, calls.end());
    EXPECT_NE(std::find(told, calls.end(), "AddCompletion"), calls.end()) << "repeated once it was told";
}

TEST_F(ClientContract, EveryCallEndsOnceWhenTheDaemonGoesAndWhenTheBusDoes) {
    auto daemon = peer();
    client.configure(into(done));
    waitFor(done, 1);
    client.addCompletion("a", "b", into(done));
    client.addCompletion("c", "d", into(done));
    daemon->waitForCalls(3);
    daemon.reset();
    waitFor(done, 3);
    for (const auto index : {1U, 2U}) EXPECT_EQ(done[index].error().kind, Error::Kind::noAnswer);
    client.addCompletion("e", "f", into(done));
    waitFor(done, 4);
    EXPECT_EQ(done[3].error().kind, Error::Kind::noDaemon);

    const auto next = peer();
    client.configure(into(done));
    waitFor(done, 5);
    client.addCompletion("g", "h", into(done));
    client.addCompletion("i", "\xFF", into(done));
    bus.stop();
    EXPECT_EQ(client.runUntil([] { return false; }).error().kind, Error::Kind::noBus);
    ASSERT_EQ(done.size(), 7U);
    EXPECT_EQ(done[5].error().kind, Error::Kind::badCall) << "it was never sent";
    EXPECT_EQ(done[6].error().kind, Error::Kind::noBus);
    client.addCompletion("k", "l", into(done));
    EXPECT_FALSE(client.process());
    EXPECT_EQ(done.size(), 8U);
}

TEST_F(ClientContract, WhatHasAnotherFormIsAnErrorAndNeverMore) {
    const auto daemon = peer();
    const auto texts = BusDictionary{.valueSignature = "s", .entries = {{"a", "b"}}};
    BusDictionary failed;
    failed.set("domain", "ORXURLErrorDomain").set("code", std::int64_t{-1001}).set("reason", "timed out");
    const auto malformed = Error::Kind::malformed;
    const std::vector<std::pair<BusArguments, std::optional<Error::Kind>>> cases = {
        {answer(with("data", BusBytes::of("[]"))), std::nullopt},
        {answer({}), std::nullopt},
        {answer({}, failed), Error::Kind::failed},
        {answer(with("unknown", BusArray{"v", {1U, "x"}})), std::nullopt},
        {answer(with("data", "text")), malformed},
        {answer(with("scale", std::nan(""))), malformed},
        {answer(with("http_request", 1U)), malformed},
        {answer(with("http_request", BusDictionary())), malformed},
        {answer(with("http_response", BusDictionary{.valueSignature = "v", .entries = {{"status_code", "x"}}})),
         malformed},
        {answer(with("geo_session_entity", true)), malformed},
        {answer(with("local_suggestions", texts)), malformed},
        {answer(with("local_suggestions", BusArray{"a{ss}", {texts, BusDictionary(texts).set("type", "x")}})),
         malformed},
        {answer({}, BusDictionary{.valueSignature = "v", .entries = {{"code", std::int64_t{1}}}}), malformed},
    };
    daemon->answerWith([&, next = std::size_t{0}](platform::BusCall& call) mutable {
        call.reply.answer(call.member == "Request" ? cases.at(next++).first : BusArguments{"no map"});
    });
    std::vector<std::expected<Reply, Error>> replies;
    for (std::size_t number = 0; number < cases.size(); ++number) {
        client.request({.queryString = "q"}, into(replies));
        waitFor(replies, number + 1);
        const auto& reply = replies.back();
        const auto kind = reply ? std::nullopt : std::optional(reply.error().kind);
        EXPECT_EQ(kind, cases[number].second) << number;
    }
    EXPECT_EQ(replies[0]->data, "[]");
    EXPECT_TRUE(replies[1]->isNothing);
    EXPECT_EQ(replies[2].error().code, -1001);

    std::vector<std::expected<std::map<std::string, std::string>, Error>> maps;
    client.imageMap(into(maps));
    waitFor(maps, 1);
    EXPECT_EQ(maps[0].error().kind, malformed);
}

TEST_F(ClientContract, OnlyTheDaemonsSignalsCome) {
    std::vector<std::string> bags;
    client.onBagDidLoad([&](const auto& bag) { bags.push_back(bag.value_or("error")); });
    const auto daemon = peer();
    client.configure(into(done));
    waitFor(done, 1);
    Peer stranger(bus.address());
    stranger.signal(daemon->caller(), "BagDidLoad", {"a lie", BusDictionary()});
    stranger.takeName("com.kelvar.stranger");  // its signal is with the bus now
    daemon->signal(daemon->caller(), "BagDidLoad", {1U, BusDictionary()});
    daemon->signal(daemon->caller(), "BagDidLoad", {"{}", BusDictionary()});
    waitFor(bags, 1);
    EXPECT_THAT(bags, ElementsAre("{}"));
}

}  // namespace
}  // namespace orvex::client
