#include "daemon/orvex_service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "core/constants.h"
#include "core/feedback_records.pb.h"
#include "core/feedback_vocabulary.h"
#include "daemon/call_limit.h"
#include "daemon/client_connection.h"
#include "daemon/daemon_world_test.h"
#include "platform/log_events.h"
#include "query/engaged_store.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using platform::BusDictionary;
using platform::LogLevel;

class OrvexServiceTest : public testing::Test {
protected:
    static constexpr std::string_view launchEvents = "com.kelvar.orvexd.LaunchEvents";
    static constexpr std::string_view diagnostics = "com.kelvar.orvexd.Diagnostics";

    DaemonWorld::Outcome tellFlusher(const std::string& client, std::uint64_t intent) {
        return world.call(client, kORXFlusherInterface, "InitiateConnectionWithIntent", {intent});
    }
    BusDictionary status() {
        return *world.call(":1.9", diagnostics, "Status", {})->arguments->at(0).as<BusDictionary>();
    }

    DaemonWorld world;
};

TEST_F(OrvexServiceTest, AConnectionIsAClientThatCallsTheClientInterface) {
    world.start();
    EXPECT_TRUE(world.call(":1.1", diagnostics, "Counters", {})->arguments);
    EXPECT_TRUE(world.call(":1.1", launchEvents, "SessionEvents", {"x"})->arguments);
    EXPECT_TRUE(world.service->getClientConnections().empty());
    (void)world.callDaemon(":1.1", "ListSessions");
    EXPECT_EQ(world.service->getClientConnections().size(), 1u);
    EXPECT_EQ(world.counters.value("com.kelvar.orvexd.clientconnection"), 1);
    world.bus.vanish(":1.1");
    world.time.runPending();
    EXPECT_TRUE(world.service->getClientConnections().empty());
    EXPECT_TRUE(world.log.contains(LogLevel::standard, "Orvex_Session", "session not flushed on invalidation"));
}

TEST_F(OrvexServiceTest, AnotherUsersProgramIsDenied) {
    world.start();
    world.bus.setCredentials(":1.1", {.processIdentifier = 1, .userIdentifier = platform::ownUserIdentifier() + 1});
    world.bus.setCredentials(":1.2", {.processIdentifier = 1, .userIdentifier = std::nullopt});
    EXPECT_EQ(world.configure(":1.1")->errorName(), platform::bus_error::accessDenied);
    EXPECT_EQ(world.call(":1.2", diagnostics, "Status", {})->errorName(), platform::bus_error::accessDenied);
    EXPECT_EQ(tellFlusher(":1.1", 2)->errorName(), platform::bus_error::accessDenied);
    EXPECT_FALSE(world.defaults.boolean("ORXFeedbackFlushDisabled"));
    EXPECT_EQ(world.counters.value("com.kelvar.orvexd.calls.denied"), 3);
}

TEST_F(OrvexServiceTest, SeveralConnectionsOfOneProcessAreReportedAndServed) {
    world.start();
    const std::int32_t pid = std::stoi(std::filesystem::read_symlink("/proc/self").string());
    for (const auto* client : {":1.1", ":1.2"}) {
        world.bus.setCredentials(client, {.processIdentifier = pid, .userIdentifier = platform::ownUserIdentifier()});
        EXPECT_TRUE(world.configure(client)->arguments);
    }
    EXPECT_TRUE(world.log.contains(LogLevel::error, "Orvex_Connection",
                                   "too many connections 2 from pid " + std::to_string(pid)));
    EXPECT_TRUE(world.log.contains(LogLevel::standard, "Orvex_Connection",
                                   "new connection from daemon_test (" + std::to_string(pid) + ")"));
    world.bus.vanish(":1.2");
    world.time.runPending();
    EXPECT_EQ(world.counters.value("com.kelvar.orvexd.lumisk.xcpinvalidation"), 1);
}

TEST_F(OrvexServiceTest, OneCallTooManyIsRefusedAndTheNextGoodOneIsServed) {
    world.start();
    ASSERT_TRUE(world.configure(":1.1")->arguments);
    std::vector<DaemonWorld::Outcome> held;
    for (std::size_t i = 0; i < CallLimit::maxCallsInFlight; ++i) held.push_back(world.search(":1.1", "tree"));
    EXPECT_EQ(world.call(":1.1", diagnostics, "Counters", {})->errorName(), platform::bus_error::limitsExceeded);
    EXPECT_EQ(world.call(":1.1", launchEvents, "SessionEvents", {"x"})->errorName(),
              platform::bus_error::limitsExceeded);
    EXPECT_EQ(tellFlusher(":1.1", 7)->errorName(), platform::bus_error::limitsExceeded);
    const auto said = world.log.events(platform::LogEvent::callsRefused);
    ASSERT_EQ(said.size(), 1u) << "once, not a line a call";
    EXPECT_EQ(said[0].fields.at("ORVEX_CLIENT"), ":1.1");
    EXPECT_TRUE(world.call(":1.2", diagnostics, "Counters", {})->arguments);
    EXPECT_TRUE(tellFlusher(":1.2", 7)->arguments);
    world.answer({.headers = {}, .body = "[]", .error = {}, .timing = {}});
    EXPECT_TRUE(world.call(":1.1", diagnostics, "Counters", {})->arguments);
    EXPECT_EQ(world.service->callsInFlight(), CallLimit::maxCallsInFlight - 1);
}

TEST(CallLimitTest, AClientThatHasItsAnswerMayCallAgainAtOnce) {
    CallLimit limit;
    std::vector<platform::BusReply> held;
    std::optional<platform::BusReply> next;
    platform::BusReply onward([](auto&&) {});
    platform::BusReply first([&](auto&&) { next = limit.admit(":1.1", onward); });
    held.push_back(limit.admit(":1.1", first).value());
    while (held.size() < CallLimit::maxCallsInFlight) {
        platform::BusReply other([](auto&&) {});
        held.push_back(limit.admit(":1.1", other).value());
    }
    ASSERT_FALSE(limit.admit(":1.1", onward));
    bool none = false;
    limit.whenNoneInFlight([&] { none = true; });
    held.front().answer({});
    EXPECT_TRUE(next);
    held.clear();
    EXPECT_FALSE(none);
    next->answer({});
    EXPECT_TRUE(none);
}

TEST_F(OrvexServiceTest, CallsOfAClientThatLeftAreDroppedBeforeTheyAreSent) {
    world.start();
    ASSERT_TRUE(world.configure(":1.1")->arguments);
    BusDictionary request;
    request.set("query_string", "tree");
    (void)world.bus.call(":1.1", "com.kelvar.orvexd.Daemon", "Request", {"search", request});
    world.bus.vanish(":1.1");
    world.time.runPending();
    EXPECT_EQ(world.counters.value("com.kelvar.orvexd.calls.dropped.clientgone"), 1);
    EXPECT_EQ(world.service->callsInFlight(), 0u);
}

TEST_F(OrvexServiceTest, TheLastClientThatLeavesPurgesTheURLCacheOfASessionThatWasUsed) {
    const auto purges = [this] {
        return std::ranges::count(world.log.lines(), "purging url cache", &platform::RecordingLog::Line::text);
    };
    const auto leave = [this](const std::string& client) {
        world.bus.vanish(client);
        world.time.runPending();
    };
    world.start();
    ASSERT_TRUE(world.configure(":1.1")->arguments);
    leave(":1.1");
    EXPECT_EQ(world.sessions.session("com.kelvar.orvexd.urlSession"), nullptr);
    ASSERT_TRUE(world.configure(":1.2")->arguments);
    ASSERT_TRUE(world.configure(":1.3")->arguments);
    (void)world.search(":1.3", "tree");
    leave(":1.3");
    EXPECT_EQ(purges(), 0);
    leave(":1.2");
    EXPECT_EQ(purges(), 1);
    EXPECT_EQ(world.server().purges(), 1u);
}

TEST_F(OrvexServiceTest, AStatusThatIsAskedForAsTheServiceEndsIsAnswered) {
    world.start();
    const auto outcome = world.bus.call(":1.1", std::string(diagnostics), "Status", {});
    world.service.reset();
    EXPECT_TRUE(outcome->arguments);
}

TEST_F(OrvexServiceTest, TheStateOfAClientOutlivesItsConnections) {
    world.start();
    ASSERT_TRUE(world.configure(":1.1", "a", "A/1")->arguments);
    world.bus.vanish(":1.1");
    world.time.runPending();
    EXPECT_EQ(world.callDaemon(":1.2", "ListSessions")->arguments->at(0).as<platform::BusArray>()->items.size(), 1u);
}

TEST_F(OrvexServiceTest, ALaunchEventWithoutAHandlerIsLogged) {
    world.start();
    EXPECT_TRUE(world.call(":1.1", launchEvents, "NotificationMatched", {"com.example.other"})->arguments);
    EXPECT_TRUE(world.log.contains(LogLevel::info, "-", "launch event for com.example.other"));
    EXPECT_TRUE(world.call(":1.1", launchEvents, "RunActivity", {"com.kelvar.orvexd.flusher.background"})->arguments);
    EXPECT_TRUE(world.log.contains(LogLevel::debug, "-", "Flushing Orvex feedback."));
    EXPECT_TRUE(world.call(":1.1", launchEvents, "RunActivity", {"com.kelvar.orvexd.dp.flush"})->arguments);
    EXPECT_TRUE(world.log.contains(LogLevel::debug, "-", "Flushing custom feedback."));
    EXPECT_EQ(world.call(":1.1", launchEvents, "RunActivity", {"x"})->errorName(), platform::bus_error::invalidArgs);
}

TEST_F(OrvexServiceTest, ADisabledFlushBailsOutEveryTime) {
    world.defaults.store("ORXFeedbackFlushDisabled", true);
    world.start();
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(
            world.call(":1.1", launchEvents, "RunActivity", {"com.kelvar.orvexd.flusher.background"})->arguments);
    }
    EXPECT_TRUE(world.log.contains(LogLevel::debug, "-", "Flusher bailing because periodic flush is disabled."));
    EXPECT_FALSE(world.log.contains(LogLevel::debug, "-", "Flushing Orvex feedback."));
}

TEST_F(OrvexServiceTest, TheStatusTellsBagConnectionsAndTransactions) {
    world.start();
    ASSERT_TRUE(world.configure(":1.1")->arguments);
    const auto told = status();
    EXPECT_EQ(*told.find("bag_version")->as<std::string>(), "7");
    EXPECT_EQ(*told.find("connections")->as<std::uint32_t>(), 1u);
    EXPECT_EQ(*told.find("bag_expires")->as<double>(), platform::secondsSince1970(world.time.wallNow() + 4h));
    EXPECT_EQ(told.find("transactions")->as<platform::BusArray>()->items.size(), 1u);
    EXPECT_EQ(*told.find("query_cache_cost")->as<std::uint64_t>(), 0u);
    EXPECT_EQ(*told.find("bag_fetched")->as<double>(), platform::secondsSince1970(world.time.wallNow()));
    EXPECT_TRUE(*told.find("bag_enabled")->as<bool>());
    EXPECT_EQ(*told.find("calls_in_flight")->as<std::uint32_t>(), 0u) << "the call that asks";
    EXPECT_TRUE(told.find("switched_off")->as<platform::BusArray>()->items.empty());
}

TEST_F(OrvexServiceTest, TheStatusTellsWhatChangedSinceTheStartAndWhatIsSwitchedOff) {
    world.counters.add("com.kelvar.orvexd.search", 5);
    world.counters.add("com.kelvar.orvexd.calls.denied", 7);
    world.start();
    world.defaults.store("ORXLocationDisabled", true);
    world.counters.add("com.kelvar.orvexd.calls.denied", 2);
    world.counters.set(EngagedStore::entriesCounter, 12);
    const auto told = status();
    const auto& changed = *told.find("counters_changed")->as<BusDictionary>();
    EXPECT_EQ(*changed.find("com.kelvar.orvexd.calls.denied")->as<std::int64_t>(), 2);
    EXPECT_EQ(*changed.find(EngagedStore::entriesCounter)->as<std::int64_t>(), 12);
    EXPECT_EQ(changed.find("com.kelvar.orvexd.search"), nullptr);
    EXPECT_EQ(*told.find("engaged_completions")->as<std::uint64_t>(), 12u);
    const auto& off = told.find("switched_off")->as<platform::BusArray>()->items;
    ASSERT_EQ(off.size(), 1u);
    EXPECT_EQ(*off[0].as<std::string>(), "ORXLocationDisabled");
}

TEST_F(OrvexServiceTest, PendingTransfersAreListedAndCounted) {
    world.start();
    const auto transfers = [this] {
        return world.call(":1.1", diagnostics, "Transfers", {})->arguments->at(0).as<platform::BusArray>()->items;
    };
    EXPECT_TRUE(transfers().empty());
    const auto task = world.assembly.downloadURLSession().downloadTask({.url = "https://server.example/hints"});
    ASSERT_TRUE(task->resume());
    const auto rows = transfers();
    ASSERT_EQ(rows.size(), 1u);
    const auto& row = *rows[0].as<platform::BusDictionary>();
    EXPECT_EQ(*row.find("identifier")->as<std::string>(), "com.kelvar.orvexd/1");
    EXPECT_EQ(*row.find("direction")->as<std::string>(), "download");
    EXPECT_EQ(*row.find("url")->as<std::string>(), "https://server.example/hints");
    EXPECT_EQ(*row.find("attempts")->as<std::uint32_t>(), 0u);
    EXPECT_EQ(*row.find("next_attempt")->as<double>(), 0.0);
    EXPECT_EQ(*status().find("downloads_pending")->as<std::uint32_t>(), 1u);
    EXPECT_EQ(*status().find("uploads_pending")->as<std::uint32_t>(), 0u);
    EXPECT_FALSE(status().find("next_transfer_why")->as<std::string>()->empty());
}

TEST_F(OrvexServiceTest, AnErasureEndsTheSessionsThatClientsHaveOfTheirOwn) {
    world.defaults.store("ORXSharedSession", false);
    world.serveBag(R"({"version": "7", "search_url": "https://search.example/search", "feedback_enabled": true})");
    world.start();
    world.configure(":1.1");
    CXFeedbackPayload payload;
    payload.set_type(static_cast<std::int32_t>(FeedbackType::searchViewAppear));
    payload.mutable_search_view_appear()->set_view_appear_event(1);
    const auto reported = world.callDaemon(":1.1", "ReportFeedbackPayloadData",
                                           {platform::BusBytes::of(payload.SerializeAsString()), std::uint64_t{0}});
    ASSERT_TRUE(reported->arguments) << reported->errorName();
    ASSERT_TRUE(world.call(":1.1", diagnostics, "Erase", {"feedback"})->arguments);
    const auto names = (*world.files.cachesDirectory())->list();
    EXPECT_TRUE(std::ranges::none_of(*names, [](const auto& name) { return name.starts_with("session."); }));
}

TEST_F(OrvexServiceTest, OnlyWhatCanBeErasedIsTaken) {
    world.start();
    EXPECT_TRUE(world.call(":1.1", diagnostics, "Erase", {"all"})->arguments);
    EXPECT_EQ(world.call(":1.1", diagnostics, "Erase", {"x"})->errorName(), platform::bus_error::invalidArgs);
}

TEST_F(OrvexServiceTest, ARequestOfMoreThanAMebibyteIsNeitherSentNorExplained) {
    world.start();
    ASSERT_TRUE(world.configure(":1.1")->arguments);
    BusDictionary request;
    request.set("query_string", std::string(CallLimit::maxCallBytes, 'x'));
    for (const auto& [interface, member] :
         {std::pair(kORXDaemonInterface, "Request"), std::pair(diagnostics, "Explain")}) {
        EXPECT_EQ(world.call(":1.1", interface, member, {"search", request})->errorName(),
                  platform::bus_error::limitsExceeded)
            << member;
    }
}

TEST_F(OrvexServiceTest, LeavingWaitsForTheAnswersThatAreOwed) {
    world.start();
    world.bus.addService("org.freedesktop.DBus", [](platform::BusCall call) { call.reply.answer({"id"}); });
    ASSERT_TRUE(world.configure(":1.1")->arguments);
    ASSERT_TRUE(world.bus.requestName("com.kelvar.orvexd"));
    const auto outcome = world.search(":1.1", "tree");
    bool gone = false;
    world.service->leave([&] { gone = true; });
    EXPECT_FALSE(world.bus.owns("com.kelvar.orvexd"));
    EXPECT_FALSE(gone);
    world.answer({.headers = {}, .body = "[]", .error = {}, .timing = {}});
    EXPECT_TRUE(outcome->arguments);
    EXPECT_TRUE(gone);
}

}  // namespace
}  // namespace orvex
