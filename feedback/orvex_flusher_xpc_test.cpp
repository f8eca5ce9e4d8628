#include "feedback/orvex_flusher_xpc.h"

#include "core/constants.h"
#include "feedback/client_session_manager.h"
#include "feedback/upload_world_test.h"

namespace orvex {
namespace {

using platform::LogLevel;
using Names = std::vector<std::string>;

/// The channel, some clients' connections, and the tools ":1.1" and ":1.2".
class FlusherChannelTest : public testing::Test, protected UploadWorld {
protected:
    static constexpr std::string_view disabledKey = "ORXFeedbackFlushDisabled";

    ~FlusherChannelTest() override { time.runPending(); }

    void open(OrvexFlusherXPC::ClientConnections connections) {
        channel = OrvexFlusherXPC::create(assembly, std::move(connections));
        assembly.setFlusherListener(channel);
        ASSERT_TRUE(channel->exportObject([this](platform::BusCall call) { channel->receive(std::move(call)); }));
    }
    /// A channel for connections of these agents, each with a session of its own waiting for upload.
    void open(Names clients = {}) {
        agentsOfClients = std::move(clients);
        for (const auto& agent : agentsOfClients) finishSession(1, agent);
        open([this] {
            std::vector<DumpedConnection> connections;
            for (const auto& agent : agentsOfClients) {
                connections.push_back({.userAgent = agent, .flushSession = [this, agent](auto done) {
                                           asked.push_back(agent);
                                           if (holds) return held.push_back(std::move(done));
                                           done();
                                       }});
            }
            return connections;
        });
    }
    std::string ask(std::uint64_t intent, const std::string& tool = ":1.1") {
        const auto outcome =
            bus.call(tool, std::string(kORXFlusherInterface), "InitiateConnectionWithIntent", {intent});
        time.runPending();
        EXPECT_TRUE(outcome->arrived());
        return outcome->errorName();
    }
    /// What a tool heard since the last time: the agents of uploads and the texts of records in their place.
    Names heard(const std::string& tool = ":1.1") {
        Names found;
        for (const auto& signal : bus.takeSignals(tool)) {
            EXPECT_EQ(signal.path, OrvexFlusherXPC::endpoint());
            if (signal.member == "WorkDone") found.push_back("done");
            if (signal.member == "ReceivedFeedbackDescription") {
                found.push_back(*signal.arguments.at(0).as<std::string>());
            }
            if (signal.member != "FlushedData") continue;
            for (const auto& buffer : signal.arguments.at(0).as<platform::BusArray>()->items) {
                const auto body = inflated(buffer.as<platform::BusBytes>()->view(), 1u << 20).value();
                found.emplace_back(boost::json::parse(body).at("agent").as_string());
            }
        }
        return found;
    }
    std::shared_ptr<const CXOrvexFeedback> shownRecord() const { return record(1, 77); }
    bool flushingIsStopped() const { return defaults.boolean(disabledKey); }
    std::size_t waiting() { return assembly.persistentStorage()->getAvailableSessionHandles().size(); }

    std::shared_ptr<OrvexFlusherXPC> channel;
    Names agentsOfClients;
    Names asked;
    bool holds = false;
    std::vector<std::move_only_function<void()>> held;
};

TEST_F(FlusherChannelTest, EachToolHearsWhatItAskedFor) {
    open();
    EXPECT_EQ(ask(7), "");
    EXPECT_EQ(logged(LogLevel::debug, "Unsupported command yet: 7"), 1u);
    EXPECT_FALSE(channel->hasSendingStreamListener() || channel->hasReceivingStreamListener());
    channel->sendDataToReceivingStreamListener(shownRecord());
    time.runPending();

    EXPECT_EQ(ask(0, ":1.1"), "");
    EXPECT_EQ(ask(1, ":1.2"), "");
    EXPECT_TRUE(channel->hasSendingStreamListener() && channel->hasReceivingStreamListener());
    channel->sendDataToReceivingStreamListener(shownRecord());
    time.runPending();
    EXPECT_EQ(heard(":1.1"), Names{});
    const auto texts = heard(":1.2");
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_TRUE(boost::json::parse(texts[0]).is_object());

    EXPECT_EQ(ask(1, ":1.1"), "");  // the last that asked is the one that hears
    bus.vanish(":1.2");
    channel->sendDataToReceivingStreamListener(shownRecord());
    time.runPending();
    EXPECT_EQ(heard(":1.1"), texts);
    EXPECT_EQ(heard(":1.2"), Names{});
    bus.vanish(":1.1");
    time.runPending();
    EXPECT_FALSE(channel->hasSendingStreamListener() || channel->hasReceivingStreamListener());
    channel->sendDataToReceivingStreamListener(shownRecord());
    channel->sendDataToSendingStreamListener("bytes");
    time.runPending();
    EXPECT_EQ(heard(":1.1"), Names{});
}

TEST_F(FlusherChannelTest, FlushingIsStoppedUntilADumpEnds) {
    install(openBag);
    open({"Lumisk/1"});
    EXPECT_EQ(ask(2), "");
    EXPECT_EQ(heard(), Names{"done"});
    EXPECT_EQ(defaults.stored().at(std::string(disabledKey)), platform::PropertyValue(true));

    holds = true;
    ask(3);
    EXPECT_TRUE(flushingIsStopped());
    EXPECT_EQ(heard(), Names{});
    held.at(0)();
    held.clear();
    time.runPending();
    EXPECT_EQ(heard(), (Names{"Lumisk/1", "done"}));
    EXPECT_FALSE(defaults.stored().contains(std::string(disabledKey)));

    defaults.setFailing(true);
    ask(2);
    EXPECT_EQ(heard(), Names{"done"});
    EXPECT_EQ(logged(LogLevel::error, "cannot store that flushing is stopped"), 1u);
}

TEST_F(FlusherChannelTest, ADumpAsksEveryConnectionAndUploadsEachSessionOnce) {
    install(openBag);
    open({"Lumisk/1", "Brovia/2"});
    finishSession(1, "Velloc/3");
    ask(0, ":1.2");  // it hears the uploads of another tool's dump
    ask(3, ":1.1");
    EXPECT_EQ(asked, (Names{"Lumisk/1", "Brovia/2"}));
    EXPECT_EQ(heard(":1.2"), (Names{"Lumisk/1", "Brovia/2", "Velloc/3"}));
    EXPECT_EQ(heard(":1.1"), Names{"done"});
    EXPECT_EQ(server->held().size(), 3u);
    EXPECT_EQ(logged(LogLevel::debug, "session flushed because of dump command"), 2u);
}

TEST_F(FlusherChannelTest, ADumpWithoutConnectionsFlushesNothing) {
    install(openBag);
    finishSession(1);
    open();
    ask(2);
    ask(3);
    EXPECT_EQ(heard(), (Names{"done", "done"}));
    EXPECT_EQ(waiting(), 1u);
    EXPECT_TRUE(flushingIsStopped());

    channel = nullptr;
    assembly.setFlusherListener(nullptr);
    open(nullptr);
    ask(3);
    EXPECT_EQ(heard(), Names{"done"});
    EXPECT_EQ(logged(LogLevel::debug, "Can't get client connections. Flushed nothing."), 1u);
    EXPECT_EQ(waiting(), 1u);
    EXPECT_FALSE(flushingIsStopped());
}

TEST_F(FlusherChannelTest, ADumpOfASharedSessionFlushesOnce) {
    install(openBag);
    assembly.setSharedSession(true);
    assembly.setClientSessionManager(makeClientSessionManager(assembly, assembly.guidController(), "test"));
    assembly.clientSessionManager()->addOrvexFeedback(record(1, 1, "Lumisk/1"), receipt());
    time.runPending();
    open({"", "Brovia/2"});  // of which the first has no state
    ask(3);
    EXPECT_EQ(asked, Names{});  // the manager is asked itself
    EXPECT_EQ(heard(), (Names{"", "Brovia/2", "Lumisk/1", "done"}));
    EXPECT_EQ(logged(LogLevel::debug, "session flushed because of dump command"), 1u);
    EXPECT_EQ(waiting(), 0u);
}

TEST_F(FlusherChannelTest, AToolThatVanishesInADumpLosesNothing) {
    open({"Lumisk/1", "Brovia/2"});  // there is no bag yet
    holds = true;
    ask(3);
    bus.vanish(":1.1");
    time.runPending();
    EXPECT_EQ(logged(LogLevel::debug, "Removed sending stream listener"), 1u);
    for (auto& done : std::exchange(held, {})) done();
    time.runPending();
    EXPECT_EQ(heard(), Names{});
    EXPECT_EQ(waiting(), 2u);
    EXPECT_EQ(transactions->openNames(), Names{});

    install(openBag);
    ask(3, ":1.2");
    held.clear();  // a connection that is gone with its callback uncalled does not hold up the end
    time.runPending();
    EXPECT_EQ(heard(":1.2"), Names{"done"});
}

}  // namespace
}  // namespace orvex
