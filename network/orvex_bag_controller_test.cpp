#include "network/orvex_bag_controller.h"

#include "network/network_fixture_test.h"
#include "platform/log_events.h"
#include "platform/property_list.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using platform::LogLevel;
using testing::HasSubstr;
using testing::IsEmpty;

class BagControllerTest : public NetworkFixture {
protected:
    struct Observer {
        std::vector<std::shared_ptr<const ORXBag>> bags;
    };

    BagControllerTest() {
        makeFactory();
        notifications.observe<ORXBagChangeNotification>(
            observer, [](Observer& self, const auto& notification) { self.bags.push_back(notification.bag); });
    }

    void start() {
        controller = OrvexBagController::create(assembly);
        time.runPending();
    }
    /// As the next start of the daemon would find things.
    void restart() {
        controller = nullptr;
        observer->bags.clear();
        bus.takeSignals("");
        start();
    }
    std::shared_ptr<const ORXBag> current() {
        auto bag = controller->currentBag();
        time.runPending();
        return bag;
    }
    void answer(platform::FakeAnswer answer) {
        server.answer(std::move(answer));
        time.runPending();
    }
    /// A fetch, asked for and answered.
    void fetch(std::string body) {
        current();
        ASSERT_EQ(server.held(), 1u);
        answer({.body = std::move(body)});
    }
    void force(std::string_view hints) {
        controller->forceFetchBag(parseJSON(hints, 8).value().as_object());
        time.runPending();
    }

    std::size_t fetches() const { return server.sent().size(); }
    std::size_t logged(LogLevel level, std::string_view text) const {
        return static_cast<std::size_t>(std::ranges::count_if(
            log.lines(), [&](const auto& line) { return line.level == level && line.text.starts_with(text); }));
    }
    platform::Directory& caches() { return *(cachesDirectory = files.cachesDirectory().value()); }
    platform::PropertyDictionary stored() {
        const auto bytes = caches().read("bag.plist", platform::maxPropertyListBytes).value();
        return *platform::parsePropertyList(bytes).value().as<platform::PropertyDictionary>();
    }
    void store(platform::PropertyDictionary dictionary) {
        ASSERT_TRUE(caches().replace("bag.plist", platform::writeBinaryPropertyList(std::move(dictionary)).value()));
    }
    std::vector<std::string> notifyNames() {
        std::vector<std::string> names;
        for (const auto& signal : bus.takeSignals("")) names.push_back(*signal.arguments.at(0).as<std::string>());
        return names;
    }

    std::shared_ptr<Observer> observer = std::make_shared<Observer>();
    std::shared_ptr<OrvexBagController> controller;
    std::shared_ptr<platform::Directory> cachesDirectory;
};

// Fetching

TEST_F(BagControllerTest, TheFirstWhoAsksStartsAFetchAndTheNextFindsTheBag) {
    start();
    EXPECT_EQ(fetches(), 0u);
    EXPECT_EQ(current(), nullptr);
    EXPECT_EQ(transactions->openNames(), std::vector<std::string>{"bagFetch"});
    answer({.body = R"({"version": "9", "warm_url": "https://a.example/warm"})"});
    ASSERT_NE(current(), nullptr);
    EXPECT_EQ(current()->version(), "9");
    EXPECT_EQ(controller->warmURL(), "https://a.example/warm");
    EXPECT_EQ(observer->bags, std::vector{controller->inMemoryBag()});
    EXPECT_EQ(counters.value("com.kelvar.orvexd.bag.fetches"), 1);
    EXPECT_EQ(transactions->count(), 0u);
    EXPECT_EQ(fetches(), 1u);
}

TEST_F(BagControllerTest, TriggersDuringAFetchAreDropped) {
    start();
    current();
    current();
    notifications.post(ORXBagRefreshRequiredNotification{});
    EXPECT_EQ(fetches(), 1u);
    answer({.body = "{}"});
    EXPECT_EQ(fetches(), 1u);
}

TEST_F(BagControllerTest, AFailedFetchKeepsTheOldBagIsNotRepeatedAndTheNextTriggerFetches) {
    start();
    fetch(R"({"version": "1"})");
    time.advance(4h);
    const auto old = controller->inMemoryBag();
    const std::vector<std::pair<platform::FakeAnswer, std::string>> failures = {
        {{.error = platform::TransportError{platform::TransportError::cannotConnect, "refused"}},
         "ORXURLErrorDomain -1004 (refused)"},
        {{.statusCode = 200}, "ORXErrorDomain 2 (no data)"},
        {{.statusCode = 503, .body = "{}"}, "ORXErrorDomain 2 (statusCode 503)"},
        {{.body = "[1]"}, "ORXErrorDomain 2 (not JSON object)"},
        {{.body = R"({"version": "2", "enab)"}, "ORXErrorDomain 2 (not JSON object)"},
        {{.body = std::string(200'000, '[')}, "ORXErrorDomain 2 (not JSON object)"},
        {{.body = R"({"a":)" + std::string(64, '[') + std::string(64, ']') + "}"},
         "ORXErrorDomain 2 (not JSON object)"},
        {{.body = std::string(10u << 20, ' ') + "{}"}, "ORXURLErrorDomain -1005 (the body is too long)"},
    };
    for (const auto& [failure, reason] : failures) {
        EXPECT_EQ(current(), old);
        ASSERT_EQ(server.held(), 1u) << reason;
        answer(failure);
        EXPECT_EQ(log.lines().back().text, "bag fetch failed: " + reason);
    }
    EXPECT_EQ(counters.value("com.kelvar.orvexd.bag.fetchesfailed"), static_cast<std::int64_t>(failures.size()));
    EXPECT_EQ(observer->bags.size(), 1u);
    EXPECT_EQ(log.events(platform::LogEvent::bagFetchFailed).size(), failures.size());
    fetch(R"({"version": "2"})");
    EXPECT_EQ(current()->version(), "2");
    EXPECT_FALSE(log.events(platform::LogEvent::bagFetched).empty());
}

TEST_F(BagControllerTest, AFetchThatIsNeverAnsweredEndsWithItsTime) {
    start();
    current();
    time.advance(1h);
    EXPECT_EQ(counters.value("com.kelvar.orvexd.bag.fetchesfailed"), 1);
    EXPECT_EQ(transactions->count(), 0u);
    current();
    EXPECT_EQ(fetches(), 2u);
}

TEST_F(BagControllerTest, AnAnswerAfterTheControllersEndIsToldAndHarmsNothing) {
    start();
    current();
    controller = nullptr;
    answer({.body = "{}"});
    EXPECT_TRUE(log.contains(LogLevel::error, "Orvex_Bag", "completed after BagFetchController was cleaned up"));
    EXPECT_EQ(transactions->count(), 0u);
}

TEST_F(BagControllerTest, ValuesThatAreNotFitAreToldOncePerBag) {
    start();
    fetch(R"({"enabled": "yes", "search_url": "file:///etc/passwd"})");
    EXPECT_TRUE(current()->isEnabled());
    EXPECT_EQ(logged(LogLevel::error, "bag: "), 2u);
}

// Forced

TEST_F(BagControllerTest, AHintForcesAFetchOfANewerVersionOnly) {
    start();
    force(R"({"bag": 12})");
    EXPECT_EQ(fetches(), 0u);  // without a bag there is nothing to compare with
    fetch(R"({"version": "12"})");
    for (const auto* hints :
         {R"({"bag": 12})", R"({"bag": 9})", R"({"bag": "13"})", R"({"bag": null})", "{}", R"({"bag": 1e400})"})
        force(hints);
    EXPECT_EQ(fetches(), 1u);
    force(R"({"bag": 100})");
    ASSERT_EQ(fetches(), 2u);
    EXPECT_THAT(server.sent().back().request.url, HasSubstr("version=100"));
}

// Staleness

TEST_F(BagControllerTest, ABagIsStaleTenMinutesBeforeItsEndAndServedMeanwhile) {
    start();
    fetch("{}");
    time.advance(4h - 600s);
    EXPECT_NE(current(), nullptr);
    EXPECT_EQ(fetches(), 1u);
    time.advance(1s);
    EXPECT_NE(current(), nullptr);
    EXPECT_EQ(fetches(), 2u);
    EXPECT_TRUE(log.contains(LogLevel::standard, "Orvex_Bag", "bag expired: 599.000000"));
    EXPECT_EQ(counters.value("com.kelvar.orvexd.bag.expired"), 1);
}

TEST_F(BagControllerTest, AChangedLocaleFetchesButOneThatLeavesTheBagsAddressAloneDoesNot) {
    start();
    fetch("{}");
    auto settings = locale.current();
    settings.calendarIdentifier = "buddhist";
    locale.set(settings);
    time.runPending();
    EXPECT_EQ(fetches(), 1u);
    settings.identifier = "fr_FR";
    locale.set(settings);
    time.runPending();
    EXPECT_EQ(fetches(), 2u);
    EXPECT_TRUE(log.contains(LogLevel::standard, "Orvex_Bag", "bag url changed from: "));
}

TEST_F(BagControllerTest, TheAddressIsMadeAnewWhenASettingChanges) {
    start();
    fetch("{}");
    EXPECT_NE(current(), nullptr);
    EXPECT_EQ(fetches(), 1u);
    defaults.store("ORXUseCindora", true);
    current();
    EXPECT_EQ(fetches(), 2u);
}

TEST_F(BagControllerTest, ABagThatForbidsRefreshingIsNeverStale) {
    start();
    fetch(R"({"__refresh_disabled": 0})");
    time.advance(1000h);
    EXPECT_NE(current(), nullptr);
    EXPECT_EQ(fetches(), 1u);
}

// On disk

TEST_F(BagControllerTest, AFetchedBagIsThereAfterARestartAndNeedsNoFetch) {
    start();
    fetch(R"({"version": 7, "gone": null, "nested": {"a": [1, 2.5, "x", true, null]}})");
    EXPECT_THAT(stored(), testing::Contains(testing::Key("__bagurl")));
    restart();
    ASSERT_NE(current(), nullptr);
    EXPECT_EQ(current()->version(), "7");
    EXPECT_EQ(boost::json::serialize(current()->rawBag()->at("nested")), R"({"a":[1,2.5E0,"x",true]})");
    EXPECT_FALSE(current()->rawBag()->contains("gone"));
    EXPECT_EQ(observer->bags.size(), 1u);
    time.advance(3h + 49min);
    current();
    EXPECT_EQ(fetches(), 1u);
}

TEST_F(BagControllerTest, AStaleBagFromDiskIsServedWhileItsSuccessorIsFetched) {
    store({{"version", "1"}});
    start();
    EXPECT_EQ(controller->inMemoryBag()->version(), "1");
    EXPECT_EQ(fetches(), 1u);
    answer({.body = R"({"version": "2"})"});
    EXPECT_EQ(current()->version(), "2");
}

TEST_F(BagControllerTest, ABagOfAnotherAgentOrWithoutItsAddressIsStale) {
    const auto later = platform::secondsSince1970(time.wallNow()) + 9000;
    store({{"__expiration", later}});
    start();
    EXPECT_EQ(fetches(), 1u);
    EXPECT_TRUE(log.contains(LogLevel::standard, "Orvex_Bag", "no bag URL found in cache"));
    answer({.body = "{}"});
    device.answers["BuildVersion"] = "2B2";
    restart();
    EXPECT_EQ(fetches(), 2u);
}

TEST_F(BagControllerTest, ABrokenFileIsSetAsideAndTheNextFetchReplacesIt) {
    const std::string array = platform::writeBinaryPropertyList(platform::PropertyArray{1}).value();
    for (const std::string& broken :
         {std::string(), std::string("garbage"), array, std::string("bplist00\xff\xff"), std::string(5u << 20, 'x')}) {
        ASSERT_TRUE(caches().replace("bag.plist", broken));
        restart();
        EXPECT_EQ(controller->inMemoryBag(), nullptr);
        EXPECT_TRUE(caches().attributes("bag.plist.corrupt"));
        EXPECT_FALSE(caches().attributes("bag.plist"));
    }
    EXPECT_TRUE(log.contains(LogLevel::fault, "Orvex_Bag", "Unexpected class deserialized from bag cache: array."));
    EXPECT_EQ(logged(LogLevel::fault, "Error reading from bag cache: "), 4u);

    ASSERT_TRUE(caches().makeDirectory("bag.plist"));  // which no write could replace
    ASSERT_TRUE(caches().remove("bag.plist.corrupt"));
    restart();
    EXPECT_TRUE(caches().list("bag.plist.corrupt"));
    fetch("{}");
    EXPECT_TRUE(caches().attributes("bag.plist"));
}

TEST_F(BagControllerTest, AnXMLFileIsReadToo) {
    ASSERT_TRUE(caches().replace(
        "bag.plist",
        platform::writeXMLPropertyList(platform::PropertyDictionary{{"version", "5"}, {"__refresh_disabled", true}})
            .value()));
    start();
    EXPECT_EQ(current()->version(), "5");
    EXPECT_EQ(fetches(), 0u);
}

TEST_F(BagControllerTest, WhatCannotBeWrittenIsServedAllTheSame) {
    start();
    fetch(R"({"version": "1"})");
    time.advance(4h);
    fetch("{\"version\": \"2\", \"zero\": \"a\\u0000b\"}");
    EXPECT_EQ(current()->version(), "2");
    EXPECT_EQ(logged(LogLevel::standard, "Error writing bag to persistent cache: "), 1u);
    EXPECT_EQ(*stored().at("version").as<std::string>(), "1");  // the old file stays

    files.setAvailable(false);
    time.advance(4h);
    fetch(R"({"version": "3"})");
    EXPECT_EQ(current()->version(), "3");
    EXPECT_EQ(logged(LogLevel::fault, "error getting cache directory "), 1u);
    EXPECT_EQ(logged(LogLevel::fault, "Couldn't get path to cache bag.  Error: "), 1u);
}

// Availability

TEST_F(BagControllerTest, AvailabilityForGazelIsAnnouncedWhenAFetchChangesIt) {
    start();
    fetch("{}");
    EXPECT_EQ(notifyNames(), std::vector<std::string>{"com.kelvar.orvex.enabled"});
    time.advance(4h);
    fetch(R"({"version": "2"})");
    EXPECT_THAT(notifyNames(), IsEmpty());
    time.advance(4h);
    fetch(R"({"user_agents": [{"match": "gazel", "values": {"enabled": false}}]})");
    EXPECT_EQ(notifyNames(), std::vector<std::string>{"com.kelvar.orvex.disabled"});
    restart();
    EXPECT_THAT(notifyNames(), IsEmpty());  // a bag from disk announces nothing
}

// The endpoint

TEST_F(BagControllerTest, TheEndpointIsTheSettingsElseTheCountrys) {
    start();
    const auto global = controller->bagFetchURLWithCountry("DE");
    const auto china = controller->bagFetchURLWithCountry("cn");
    EXPECT_NE(global, china);
    EXPECT_THAT(china, testing::AllOf(testing::StartsWith("https://"), testing::EndsWith("/bag")));

    for (const auto* malformed : {"not a url", "ftp://a.example/bag", "http://a.example/bag"}) {
        defaults.store("ORXBagURL", malformed);
        EXPECT_EQ(controller->bagFetchURLWithCountry("DE"), global);
    }
    EXPECT_EQ(logged(LogLevel::error, "Malformed orvex bag URL in user defaults key ORXBagURL"), 3u);

    defaults.store("ORXBagURL", "http://127.0.0.1:8080/bag");
    EXPECT_EQ(controller->bagFetchURLWithCountry("CN"), "http://127.0.0.1:8080/bag");
    current();
    EXPECT_THAT(server.sent().back().request.url, testing::StartsWith("http://127.0.0.1:8080/bag?"));
}

TEST_F(BagControllerTest, NothingPrivateIsInADefaultLog) {
    const platform::RecordingLog defaultLog(LogLevel::standard);
    start();
    fetch(R"({"secret": "word"})");
    ASSERT_FALSE(defaultLog.lines().empty());
    for (const auto& line : defaultLog.lines()) {
        EXPECT_THAT(line.text, testing::Not(HasSubstr("word")));
        EXPECT_THAT(line.text, testing::Not(HasSubstr("tabbycat")));
    }
    EXPECT_TRUE(defaultLog.contains(LogLevel::standard, "Orvex_Bag", "Got bag: <private>"));
}

}  // namespace
}  // namespace orvex
