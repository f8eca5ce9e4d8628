#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <mutex>

#include "platform/fakes/fake_bus.h"
#include "platform/fakes/private_bus.h"
#include "platform/linux/sd_bus.h"

// What every `Bus` does, asked of the fake and of the real one. The component under test is the service; its clients
// are pretended by the fake, and connections of their own on a private bus.

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;
using Answer = std::expected<BusArguments, BusError>;

constexpr auto* name = "com.kelvar.test.Service";
constexpr auto* path = "/com/kelvar/test";
constexpr auto* interface = "com.kelvar.test.Interface";

/// What came, from any thread; `take` waits for the next one, and gives up only when something is broken.
template <class T>
class Inbox {
public:
    void put(T item) {
        const std::lock_guard lock(_mutex);
        _items.push_back(std::move(item));
        _came.notify_all();
    }
    T take() {
        std::unique_lock lock(_mutex);
        if (!_came.wait_for(lock, 60s, [this] { return !_items.empty(); })) throw std::runtime_error("nothing came");
        T item = std::move(_items.front());
        _items.pop_front();
        return item;
    }
    bool empty() {
        const std::lock_guard lock(_mutex);
        return _items.empty();
    }

private:
    std::mutex _mutex;
    std::condition_variable _came;
    std::deque<T> _items;
};

std::string errorName(const Answer& answer) { return answer ? "" : answer.error().name; }

/// A bus with the service on it, and the means to be its clients.
class Setting {
public:
    virtual ~Setting() = default;
    virtual Bus& service() = 0;
    virtual std::string addClient() = 0;  ///< its unique name
    virtual Answer call(const std::string& client, const std::string& at, std::string member, std::string signature,
                        BusArguments arguments) = 0;
    virtual std::string nextSignal(const std::string& client) = 0;  ///< the member's name
    virtual bool hasSignal(const std::string& client) = 0;
    virtual void vanish(const std::string& client) = 0;
    virtual void takeName(const std::string& wanted) = 0;
    /// A service by that name, whose one object answers with what it got.
    virtual void addEcho(const std::string& wanted) = 0;
    virtual void emitFromEcho(const std::string& member, BusArguments arguments) = 0;
    virtual void stop() = 0;
};

class FakeSetting final : public Setting {
public:
    Bus& service() override { return _bus; }
    std::string addClient() override { return ":1." + std::to_string(++_clients); }
    Answer call(const std::string& client, const std::string& at, std::string member, std::string signature,
                BusArguments arguments) override {
        EXPECT_TRUE(fits(signature, arguments));
        const auto outcome = _bus.call(client, interface, std::move(member), std::move(arguments), at);
        if (outcome->error) return std::unexpected(*outcome->error);
        return outcome->arguments.value();
    }
    std::string nextSignal(const std::string& client) override {
        if (_signals.empty()) {
            for (auto& signal : _bus.takeSignals(client)) _signals.push_back(signal.member);
        }
        auto member = _signals.at(0);
        _signals.pop_front();
        return member;
    }
    bool hasSignal(const std::string& client) override { return !_bus.takeSignals(client).empty(); }
    void vanish(const std::string& client) override { _bus.vanish(client); }
    void takeName(const std::string& wanted) override { _bus.takeName(wanted); }
    void addEcho(const std::string& wanted) override {
        _bus.addService(wanted, [](BusCall call) { call.reply.answer(std::move(call.arguments)); });
    }
    void emitFromEcho(const std::string& member, BusArguments arguments) override {
        _bus.emitSignal(":1.99", path, interface, member, arguments);
    }
    void stop() override { _bus.disconnect(); }

private:
    FakeBus _bus;
    int _clients = 0;
    std::deque<std::string> _signals;
};

class RealSetting final : public Setting {
public:
    RealSetting() : _service(_connect()) {}
    Bus& service() override { return *_service; }
    std::string addClient() override {
        auto bus = _connect();
        auto unique = bus->uniqueName();
        auto& client = _clients[unique];
        for (const auto* member : {"Changed", "Ended"}) {
            bus->subscribe("", path, interface, member,
                           [inbox = client.signals, member](const auto&, const auto&) { inbox->put(member); });
        }
        client.bus = std::move(bus);
        EXPECT_TRUE(_ping(*client.bus));  // behind it the subscriptions are in force
        return unique;
    }
    Answer call(const std::string& client, const std::string& at, std::string member, std::string signature,
                BusArguments arguments) override {
        return _call(*_clients.at(client).bus, _service->uniqueName(), at, interface, std::move(member),
                     std::move(signature), std::move(arguments));
    }
    std::string nextSignal(const std::string& client) override { return _clients.at(client).signals->take(); }
    bool hasSignal(const std::string& client) override {
        auto& reader = _clients.at(client);
        EXPECT_TRUE(_call(*reader.bus, _service->uniqueName(), "/", "org.freedesktop.DBus.Peer", "Ping", "", {}));
        return !reader.signals->empty();
    }
    void vanish(const std::string& client) override { _clients.erase(client); }
    void takeName(const std::string& wanted) override {
        _owner = _connect();
        EXPECT_TRUE(_owner->requestName(wanted));
    }
    void addEcho(const std::string& wanted) override {
        _owner = _connect();
        EXPECT_TRUE(_owner->exportObject(path,
                                         {{.name = interface,
                                           .methods = {{.name = "Echo",
                                                        .inSignature = "s",
                                                        .inNames = {"text"},
                                                        .outSignature = "s",
                                                        .outNames = {"text"}}},
                                           .signals = {}}},
                                         [](BusCall call) { call.reply.answer(std::move(call.arguments)); }));
        EXPECT_TRUE(_owner->requestName(wanted));
    }
    void emitFromEcho(const std::string& member, BusArguments arguments) override {
        EXPECT_TRUE(_ping(*_service));
        _owner->broadcastSignal(path, interface, member, std::move(arguments));
    }
    void stop() override { _daemon.stop(); }

private:
    struct Client {
        std::shared_ptr<Inbox<std::string>> signals = std::make_shared<Inbox<std::string>>();
        std::unique_ptr<SdBus> bus;
    };

    std::unique_ptr<SdBus> _connect() { return std::move(SdBus::create({.address = _daemon.address()}).value()); }
    static bool _ping(SdBus& bus) {
        return _call(bus, "org.freedesktop.DBus", "/", "org.freedesktop.DBus.Peer", "Ping", "", {}).has_value();
    }
    static Answer _call(SdBus& bus, std::string to, std::string at, std::string of, std::string member,
                        std::string signature, BusArguments arguments) {
        auto answers = std::make_shared<Inbox<Answer>>();
        bus.call(std::move(to), std::move(at), std::move(of), std::move(member), std::move(signature),
                 std::move(arguments), 60s, [answers](Answer answer) { answers->put(std::move(answer)); });
        return answers->take();
    }

    PrivateBus _daemon;
    std::unique_ptr<SdBus> _service;
    std::unique_ptr<SdBus> _owner;
    std::map<std::string, Client> _clients;
};

struct BusKind {
    std::string name;
    std::function<std::unique_ptr<Setting>()> make;
};

void PrintTo(const BusKind& kind, std::ostream* stream) { *stream << kind.name; }

class BusContractTest : public testing::TestWithParam<BusKind> {
protected:
    BusContractTest() : setting(GetParam().make()), client(setting->addClient()) {}

    BusMember method(std::string member, std::string in, std::string out) {
        return {.name = std::move(member), .inSignature = std::move(in), .inNames = {}, .outSignature = std::move(out)};
    }
    /// Exports the methods, all with this handler, and the signals `Changed` and `Ended`.
    void serve(std::vector<BusMember> methods, BusCallHandler handler) {
        const std::vector<BusMember> notices{method("Changed", "s", ""), method("Ended", "", "")};
        const auto exported =
            setting->service().exportObject(path, {{interface, std::move(methods), notices}}, std::move(handler));
        ASSERT_TRUE(exported) << exported.error().text;
    }
    void serveEcho(const std::string& signature) {
        serve({method("Echo", signature, signature)},
              [](BusCall call) { call.reply.answer(std::move(call.arguments)); });
    }
    Answer call(std::string member, std::string signature, BusArguments arguments) {
        return setting->call(client, path, std::move(member), std::move(signature), std::move(arguments));
    }

    std::unique_ptr<Setting> setting;
    const std::string client;
};

TEST_P(BusContractTest, ACallArrivesWithWhoCalledAndIsAnswered) {
    Inbox<std::string> seen;
    serve({method("Add", "ii", "i"), method("Name", "", "s")}, [&](BusCall call) {
        EXPECT_EQ(call.sender.uniqueName, client);
        EXPECT_EQ(call.sender.processIdentifier, ::getpid());
        EXPECT_EQ(call.sender.userIdentifier, ::getuid());
        EXPECT_EQ(call.path, path);
        EXPECT_EQ(call.interface, interface);
        seen.put(call.member);
        if (call.member == "Name") return call.reply.answer({"adder"});
        call.reply.answer({*call.arguments[0].as<std::int32_t>() + *call.arguments[1].as<std::int32_t>()});
    });
    const auto sum = call("Add", "ii", {2, 3});
    ASSERT_TRUE(sum) << sum.error().message;
    EXPECT_EQ(*sum->at(0).as<std::int32_t>(), 5);
    EXPECT_EQ(*call("Name", "", {}).value().at(0).as<std::string>(), "adder");
    EXPECT_EQ(seen.take(), "Add");
    EXPECT_EQ(seen.take(), "Name");
}

TEST_P(BusContractTest, EveryTypeComesBackAsItWas) {
    const BusArguments numbers{true,      std::uint8_t{255}, std::int16_t{-1},        std::uint16_t{65535},
                               INT32_MIN, UINT32_MAX,        std::int64_t{INT64_MIN}, std::uint64_t{UINT64_MAX},
                               -0.5};
    const BusArguments texts{
        "naïve",         "", BusObjectPath{"/a/b"}, BusSignature{"a{sv}"}, BusBytes::of(std::string("\0\xff", 2)),
        BusBytes::of("")};
    BusArguments all = numbers;
    all.insert(all.end(), texts.begin(), texts.end());
    serveEcho(signatureOf(all));
    const auto answer = call("Echo", signatureOf(all), all);
    ASSERT_TRUE(answer) << answer.error().message;
    ASSERT_EQ(answer->size(), all.size());
    EXPECT_EQ(signatureOf(*answer), signatureOf(all));
    EXPECT_EQ(*answer->at(0).as<bool>(), true);
    EXPECT_EQ(*answer->at(1).as<std::uint8_t>(), 255);
    EXPECT_EQ(*answer->at(2).as<std::int16_t>(), -1);
    EXPECT_EQ(*answer->at(3).as<std::uint16_t>(), 65535);
    EXPECT_EQ(*answer->at(4).as<std::int32_t>(), INT32_MIN);
    EXPECT_EQ(*answer->at(5).as<std::uint32_t>(), UINT32_MAX);
    EXPECT_EQ(*answer->at(6).as<std::int64_t>(), INT64_MIN);
    EXPECT_EQ(*answer->at(7).as<std::uint64_t>(), UINT64_MAX);
    EXPECT_EQ(*answer->at(8).as<double>(), -0.5);
    EXPECT_EQ(*answer->at(9).as<std::string>(), "naïve");
    EXPECT_EQ(answer->at(11).as<BusObjectPath>()->path, "/a/b");
    EXPECT_EQ(answer->at(12).as<BusSignature>()->signature, "a{sv}");
    EXPECT_EQ(answer->at(13).as<BusBytes>()->view(), std::string_view("\0\xff", 2));
    EXPECT_EQ(answer->at(14).as<BusBytes>()->view(), "");
}

TEST_P(BusContractTest, ContainersComeBackAsTheyWereAndTheirSizeIsTold) {
    const auto suggestion = BusDictionary{}.set("suggestion", "weather").set("score", 0.5);
    const auto request = BusDictionary{}
                             .set("query_items", BusArray{"(ss)", {BusStruct{{"a", "1"}}, BusStruct{{"b", "2"}}}})
                             .set("engaged_suggestion", suggestion)
                             .set("completion_cache_suggestions", BusArray{"a{sv}", {suggestion, BusDictionary{}}})
                             .set("data", BusBytes::of("body"))
                             .set("list", BusArray{"v", {std::uint8_t{1}, BusArray{"s", {"deep"}}}})
                             .set("odd", BusArray{"{us}", {BusStruct{{std::uint32_t{7}, "seven"}}}});
    const BusArguments all{request, BusArray{"a{ss}", {BusDictionary{"s", {{"key", "value"}}}}},
                           BusArray{"ay", {BusBytes::of("one"), BusBytes::of("")}},
                           BusDictionary{"x", {{"count", std::int64_t{-1}}}}, BusArray{"s", {}}};
    Inbox<std::size_t> sizes;
    serve({method("Echo", "a{sv}aa{ss}aaya{sx}as", "a{sv}aa{ss}aaya{sx}as")}, [&](BusCall call) {
        sizes.put(call.size);
        call.reply.answer(std::move(call.arguments));
    });
    const auto answer = call("Echo", signatureOf(all), all);
    ASSERT_TRUE(answer) << answer.error().message;
    ASSERT_EQ(signatureOf(*answer), signatureOf(all));

    const auto* read = answer->at(0).as<BusDictionary>();
    EXPECT_EQ(read->find("query_items")->as<BusArray>()->items[1].as<BusStruct>()->members[0].signature(), "s");
    EXPECT_EQ(*read->find("engaged_suggestion")->as<BusDictionary>()->find("score")->as<double>(), 0.5);
    EXPECT_EQ(read->find("completion_cache_suggestions")->as<BusArray>()->items.size(), 2u);
    EXPECT_EQ(read->find("data")->as<BusBytes>()->view(), "body");
    EXPECT_EQ(read->find("list")->signature(), "av");
    EXPECT_EQ(read->find("list")->as<BusArray>()->items[1].signature(), "as");
    EXPECT_EQ(read->find("odd")->signature(), "a{us}");
    EXPECT_EQ(answer->at(2).as<BusArray>()->items[0].as<BusBytes>()->view(), "one");
    EXPECT_EQ(*answer->at(3).as<BusDictionary>()->find("count")->as<std::int64_t>(), -1);
    EXPECT_EQ(sizes.take(), 463u);
}

TEST_P(BusContractTest, AFileArrivesAsAnOpenDescriptorOfItsOwn) {
    serve({method("Open", "", "h")}, [](BusCall call) {
        int ends[2];
        ASSERT_EQ(::pipe(ends), 0);
        ASSERT_EQ(::write(ends[1], "content", 7), 7);
        ::close(ends[1]);
        call.reply.answer({BusFile{std::make_shared<FileDescriptor>(ends[0])}});
    });
    const auto answer = call("Open", "", {});
    ASSERT_TRUE(answer) << answer.error().message;
    char content[8] = {};
    EXPECT_EQ(::read(answer->at(0).as<BusFile>()->file->get(), content, 8), 7);
    EXPECT_STREQ(content, "content");
}

TEST_P(BusContractTest, TheBusItselfRefusesWhatIsNotDeclared) {
    serve({method("Echo", "s", "s")}, [](BusCall) { FAIL() << "it must not arrive"; });
    EXPECT_EQ(errorName(call("Echo", "u", {std::uint32_t{1}})), bus_error::invalidArgs);
    EXPECT_EQ(errorName(call("Echo", "", {})), bus_error::invalidArgs);
    EXPECT_EQ(errorName(call("Ecco", "s", {"text"})), "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(errorName(setting->call(client, "/elsewhere", "Echo", "s", {"text"})), bus_error::unknownObject);
}

TEST_P(BusContractTest, AFailureTravelsAndADroppedReplySaysSo) {
    serve({method("Fail", "", ""), method("Drop", "", "")}, [](BusCall call) {
        if (call.member == "Fail") call.reply.fail("com.kelvar.test.Error.Broken", "it is broken");
    });
    const auto failed = call("Fail", "", {});
    EXPECT_EQ(errorName(failed), "com.kelvar.test.Error.Broken");
    EXPECT_EQ(failed.error().message, "it is broken");
    EXPECT_EQ(errorName(call("Drop", "", {})), bus_error::noReply);
}

TEST_P(BusContractTest, ARemovedObjectIsCalledNoMore) {
    serveEcho("s");
    ASSERT_TRUE(call("Echo", "s", {"text"}));
    EXPECT_EQ(setting->service().exportObject(path, {}, [](BusCall) {}).error().code, EEXIST);
    setting->service().removeObject(path);
    EXPECT_EQ(errorName(call("Echo", "s", {"text"})), bus_error::unknownObject);
    serveEcho("s");
    EXPECT_TRUE(call("Echo", "s", {"text"}));
}

TEST_P(BusContractTest, ASignalGoesToTheOneClientAlone) {
    serveEcho("s");
    const auto other = setting->addClient();
    setting->service().sendSignal(client, path, interface, "Changed", {"text"});
    setting->service().sendSignal(client, path, interface, "Ended", {});
    EXPECT_EQ(setting->nextSignal(client), "Changed");
    EXPECT_EQ(setting->nextSignal(client), "Ended");
    EXPECT_FALSE(setting->hasSignal(other));
}

TEST_P(BusContractTest, TheEndOfAPeerIsToldOnceToEachWhoWatches) {
    serveEcho("s");
    ASSERT_TRUE(call("Echo", "s", {"text"}));
    Inbox<std::string> vanished;
    const auto other = setting->addClient();
    setting->service().watchPeer(client, [&] { vanished.put("caller"); });
    setting->service().watchPeer(client, [&] { vanished.put("caller"); });
    setting->service().watchPeer(other, [&] { vanished.put("other"); });
    setting->vanish(client);
    EXPECT_EQ(vanished.take(), "caller");
    EXPECT_EQ(vanished.take(), "caller");
    setting->vanish(other);
    EXPECT_EQ(vanished.take(), "other");
    setting->service().watchPeer(client, [&] { vanished.put("gone before"); });
    EXPECT_EQ(vanished.take(), "gone before");
    EXPECT_TRUE(vanished.empty());
}

TEST_P(BusContractTest, ANameHasOneOwner) {
    setting->takeName("com.kelvar.test.Other");
    EXPECT_EQ(setting->service().requestName("com.kelvar.test.Other").error().code, EEXIST);
    EXPECT_TRUE(setting->service().requestName(name));
    EXPECT_TRUE(setting->service().requestName(name)) << "ours already";
    setting->service().releaseName(name);
    EXPECT_TRUE(setting->service().requestName(name));
}

TEST_P(BusContractTest, OtherServicesAreCalledAndHeard) {
    Inbox<std::string> heard;
    setting->service().subscribe("", path, interface, "Changed", [&](const std::string& sender, const auto& arguments) {
        heard.put(*arguments.at(0).template as<std::string>() + (sender.empty() ? "" : " from " + sender.substr(0, 1)));
    });
    setting->addEcho("com.kelvar.test.Echo");
    Inbox<Answer> answers;
    const auto ask = [&](const std::string& service, const std::string& signature, const BusArguments& arguments) {
        setting->service().call(service, path, interface, "Echo", signature, arguments, 60s,
                                [&](Answer answer) { answers.put(std::move(answer)); });
        return answers.take();
    };
    EXPECT_EQ(*ask("com.kelvar.test.Echo", "s", {"hello"}).value().at(0).as<std::string>(), "hello");
    EXPECT_EQ(errorName(ask("com.kelvar.test.Nobody", "s", {"hello"})), "org.freedesktop.DBus.Error.ServiceUnknown");
    EXPECT_EQ(errorName(ask("com.kelvar.test.Echo", "s", {1.0})), bus_error::invalidArgs);

    setting->emitFromEcho("Other", {"not heard"});
    setting->emitFromEcho("Changed", {"heard"});
    EXPECT_EQ(heard.take(), "heard from :");
}

TEST_P(BusContractTest, ABusThatGoesAwayIsToldOnceAndEndsCalls) {
    Inbox<std::string> told;
    setting->service().setDisconnectHandler([&] { told.put("gone"); });
    setting->stop();
    EXPECT_EQ(told.take(), "gone");
    setting->service().call("com.kelvar.test.Echo", path, interface, "Echo", "", {}, 60s,
                            [&](Answer answer) { told.put(errorName(answer)); });
    EXPECT_EQ(told.take(), bus_error::disconnected);
    setting->service().sendSignal(client, path, interface, "Ended", {});
    setting->service().flush(60s);
    setting->service().setDisconnectHandler([&] { told.put("gone before"); });
    EXPECT_EQ(told.take(), "gone before");
}

INSTANTIATE_TEST_SUITE_P(Buses, BusContractTest,
                         testing::Values(BusKind{"Fake", [] { return std::make_unique<FakeSetting>(); }},
                                         BusKind{"Real", [] { return std::make_unique<RealSetting>(); }}),
                         [](const auto& kind) { return kind.param.name; });

}  // namespace
}  // namespace orvex::platform
