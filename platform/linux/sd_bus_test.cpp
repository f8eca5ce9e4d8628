#include "platform/linux/sd_bus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <latch>
#include <set>
#include <thread>

#include "platform/fakes/private_bus.h"
#include "platform/fakes/temporary_directory.h"
#include "platform/linux/sd_bus_message.h"

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;
using Answer = std::expected<BusArguments, BusError>;

constexpr auto* path = "/com/kelvar/test";
constexpr auto* interface = "com.kelvar.test.Interface";

/// A service on a bus of the test's own, whose one handler a test sets by `serve`, and two clients.
class SdBusTest : public testing::Test {
protected:
    std::unique_ptr<SdBus> connect() { return std::move(SdBus::create({.address = daemon.address()}).value()); }

    static BusMember method(std::string name, std::string in, std::string out) {
        return {.name = std::move(name), .inSignature = std::move(in), .inNames = {}, .outSignature = std::move(out)};
    }
    void serve(std::vector<BusMember> methods, BusCallHandler handler) {
        ASSERT_TRUE(service->exportObject(path, {{interface, std::move(methods), {}}}, std::move(handler)));
    }
    std::future<Answer> start(SdBus& from, std::string member, std::string signature, BusArguments arguments,
                              std::string of = interface, std::chrono::nanoseconds timeout = 10min) {
        auto promise = std::make_shared<std::promise<Answer>>();
        from.call(service->uniqueName(), path, std::move(of), std::move(member), std::move(signature),
                  std::move(arguments), timeout, [promise](Answer answer) { promise->set_value(std::move(answer)); });
        return promise->get_future();
    }
    Answer call(std::string member, std::string signature, BusArguments arguments, std::string of = interface) {
        return start(*client, std::move(member), std::move(signature), std::move(arguments), std::move(of)).get();
    }
    bool ping(SdBus& from) { return start(from, "Ping", "", {}, "org.freedesktop.DBus.Peer").get().has_value(); }

    PrivateBus daemon;
    std::unique_ptr<SdBus> service = connect();
    std::unique_ptr<SdBus> client = connect();
    std::unique_ptr<SdBus> other = connect();
};

std::string errorName(const Answer& answer) { return answer ? "" : answer.error().name; }

/// `depth` arrays of variants, one in the other.
BusValue nested(std::size_t depth) {
    BusValue value = true;
    for (std::size_t i = 0; i < depth; ++i) value = BusArray{"v", {std::move(value)}};
    return value;
}

TEST_F(SdBusTest, NoBusIsAClearFailure) {
    const auto none = SdBus::create({.address = "unix:path=/nonexistent/bus"});
    ASSERT_FALSE(none);
    EXPECT_EQ(none.error().code, ENOENT);
    EXPECT_THAT(none.error().text, testing::HasSubstr("/nonexistent/bus"));
    EXPECT_FALSE(SdBus::create({.address = "no address"}));
}

TEST_F(SdBusTest, CallsThatCameBeforeTheirSenderWasKnownKeepTheirOrder) {
    std::string order;
    serve({method("Add", "s", "s")}, [&](BusCall call) {
        EXPECT_EQ(call.sender.userIdentifier, ::getuid());
        call.reply.answer({order += *call.arguments[0].as<std::string>()});
    });
    std::vector<std::future<Answer>> answers;
    for (const auto* letter : {"a", "b", "c", "d"}) answers.push_back(start(*client, "Add", "s", {letter}));
    EXPECT_EQ(*answers.back().get().value().at(0).as<std::string>(), "abcd");
}

TEST_F(SdBusTest, RepliesComeFromAnyThreadAndBeforeTheSignalsSentAfterThem) {
    constexpr std::uint32_t calls = 800;
    std::vector<std::vector<BusCall>> held(4);
    std::latch arrived(calls);
    serve({method("Hold", "u", "u")}, [&](BusCall call) {
        held[*call.arguments[0].as<std::uint32_t>() % held.size()].push_back(std::move(call));
        arrived.count_down();
    });
    std::set<std::uint32_t> answered;  // on the client's bus thread
    int early = 0;
    auto signalsToCome = calls;
    std::promise<void> last;
    client->subscribe(service->uniqueName(), path, interface, "Answered", [&](const auto&, const auto& arguments) {
        early += answered.erase(*arguments.at(0).template as<std::uint32_t>()) == 0;
        if (--signalsToCome == 0) last.set_value();
    });
    for (std::uint32_t i = 0; i < calls; ++i) {
        client->call(service->uniqueName(), path, interface, "Hold", "u", {i}, 60s, [&, i](Answer answer) {
            if (answer && *answer->at(0).as<std::uint32_t>() == i) answered.insert(i);
        });
    }
    arrived.wait();
    std::vector<std::jthread> threads;
    threads.reserve(held.size());
    for (auto& mine : held) {
        threads.emplace_back([this, &mine] {
            for (auto& call : mine) {
                const auto arguments = call.arguments;
                call.reply.answer(arguments);
                service->sendSignal(client->uniqueName(), path, interface, "Answered", arguments);
            }
        });
    }
    last.get_future().get();
    ASSERT_TRUE(ping(*client));  // the bus threads are through with what is on this stack
    EXPECT_EQ(early, 0);
}

TEST_F(SdBusTest, LargeBodiesTravelAndWhatIsTooLargeToReadIsRefused) {
    serve({method("Size", "v", "t"), method("Bytes", "t", "ay")}, [](BusCall call) {
        if (call.member == "Size") return call.reply.answer({std::uint64_t{call.size}});
        call.reply.answer({BusBytes::of(std::string(*call.arguments[0].as<std::uint64_t>(), 'x'))});
    });
    const std::uint64_t large = 32 << 20;
    EXPECT_EQ(call("Bytes", "t", {large}).value().at(0).as<BusBytes>()->view().size(), large);
    EXPECT_GE(*call("Size", "v", {BusBytes::of(std::string(large, 'x'))}).value().at(0).as<std::uint64_t>(), large);

    const auto tooLarge = call("Size", "v", {BusBytes::of(std::string(maxDecodedBytes, 'x'))});
    EXPECT_EQ(errorName(tooLarge), bus_error::limitsExceeded);
    // Small on the bus, large once they are read.
    const BusArray numbers{"q",
                           std::vector<BusValue>((maxDecodedBytes - large) / sizeof(BusValue) + 1, std::uint16_t{1})};
    const BusArray tooMany{"v", {BusBytes::of(std::string(large, 'x')), numbers}};
    EXPECT_EQ(errorName(call("Size", "v", {tooMany})), bus_error::limitsExceeded);
    EXPECT_TRUE(call("Size", "v", {true}));
}

TEST_F(SdBusTest, DeepNestingNeverBreaksTheReader) {
    serve({method("Take", "v", "")}, [](BusCall call) { call.reply.answer({}); });
    EXPECT_TRUE(call("Take", "v", {nested(31)}));
    // Some of these the daemon refuses by closing the client's connection, so each has one of its own.
    for (const std::size_t depth : {32, 40, 60}) {
        const auto sender = connect();
        EXPECT_FALSE(start(*sender, "Take", "v", {nested(depth)}).get()) << depth;
    }
    EXPECT_TRUE(call("Take", "v", {true}));
}

TEST_F(SdBusTest, AnAnswerThatCannotBeSentBecomesAnError) {
    serve({method("Number", "", "u"), method("Path", "", "o")}, [](BusCall call) {
        if (call.member == "Path") return call.reply.answer({BusObjectPath{"not a path"}});
        call.reply.answer({std::string("a")});
    });
    for (const auto* member : {"Number", "Path"}) {
        EXPECT_EQ(errorName(call(member, "", {})), bus_error::failed) << member;
    }
}

TEST_F(SdBusTest, ATextThatTheBusCannotCarryCostsItselfOnly) {
    serve({method("Texts", "", "sa{sv}")}, [](BusCall call) {
        BusDictionary dictionary;
        dictionary.set("reason", std::string("b\0c", 3)).set("kept", "d");
        call.reply.answer({std::string("a\xff"), std::move(dictionary)});
    });
    const auto answer = call("Texts", "", {});
    ASSERT_TRUE(answer) << errorName(answer);
    EXPECT_EQ(*answer->at(0).as<std::string>(), "a\\xFF");
    const auto& dictionary = *answer->at(1).as<BusDictionary>();
    EXPECT_EQ(*dictionary.find("reason")->as<std::string>(), "b\\x00c");
    EXPECT_EQ(*dictionary.find("kept")->as<std::string>(), "d");
}

TEST_F(SdBusTest, AStartNeedNotWaitForTheWelcome) {
    const auto late = std::move(SdBus::create({.address = daemon.address(), .waitsForWelcome = false}).value());
    EXPECT_EQ(late->uniqueName(), "");
    EXPECT_TRUE(ping(*late));

    // Connects to whoever listens, and that one never says a word.
    const TemporaryDirectory directory;
    const auto socketPath = directory.path() + "/silent";
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::ranges::copy(socketPath, static_cast<char*>(address.sun_path));
    const FileDescriptor listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::bind(listening.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listening.get(), 1), 0);
    const auto silent = SdBus::create({.address = "unix:path=" + socketPath, .waitsForWelcome = false});
    ASSERT_TRUE(silent);
    (*silent)->subscribe("", "", interface, "Answered", [](const auto&, const auto&) {});
}

TEST_F(SdBusTest, ALateReplyToAPeerThatIsGoneIsDropped) {
    std::promise<BusCall> came;
    std::promise<void> gone;
    serve({method("Hold", "", "s")}, [&](BusCall call) {
        service->watchPeer(call.sender.uniqueName, [&] { gone.set_value(); });
        came.set_value(std::move(call));
    });
    auto answer = start(*other, "Hold", "", {});
    auto call = came.get_future().get();
    other.reset();
    gone.get_future().get();
    call.reply.answer({"late"});
    service->flush(60s);
    EXPECT_TRUE(ping(*client));
}

TEST_F(SdBusTest, AForgedEndOfAPeerIsNotBelieved) {
    serve({method("Hold", "", "")}, [&](BusCall call) { call.reply.answer({}); });
    ASSERT_TRUE(call("Hold", "", {}));
    const auto gone = std::make_shared<std::atomic<bool>>(false);  // it does go, when the test is over
    service->watchPeer(client->uniqueName(), [gone] { *gone = true; });
    other->sendSignal(service->uniqueName(), "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged",
                      {client->uniqueName(), client->uniqueName(), ""});
    ASSERT_TRUE(ping(*other));  // behind the forgery
    EXPECT_FALSE(*gone);
}

TEST_F(SdBusTest, ACallThatIsNeverAnsweredTimesOut) {
    std::vector<BusCall> held;
    serve({method("Hold", "", "")}, [&](BusCall call) { held.push_back(std::move(call)); });
    EXPECT_EQ(errorName(start(*client, "Hold", "", {}, interface, 1ms).get()), "org.freedesktop.DBus.Error.NoReply");
    service.reset();  // before what was held
}

TEST_F(SdBusTest, ABusThatGoesAwayEndsTheCallsUnderWay) {
    std::promise<BusCall> came;
    serve({method("Hold", "", "")}, [&](BusCall call) { came.set_value(std::move(call)); });
    auto answer = start(*client, "Hold", "", {});
    auto held = came.get_future().get();
    std::promise<void> told;
    service->setDisconnectHandler([&] { told.set_value(); });
    daemon.stop();
    told.get_future().get();
    EXPECT_FALSE(answer.get());
    held.reply.answer({});
    service->flush(60s);
}

TEST_F(SdBusTest, AReplyMayOutliveTheBus) {
    std::promise<BusCall> came;
    serve({method("Hold", "", "")}, [&](BusCall call) { came.set_value(std::move(call)); });
    auto answer = start(*client, "Hold", "", {});
    auto held = came.get_future().get();
    service.reset();
    held.reply.answer({});
    EXPECT_EQ(errorName(answer.get()), "org.freedesktop.DBus.Error.NoReply");
}

}  // namespace
}  // namespace orvex::platform
