#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <set>

#include "core/constants.h"
#include "core/feedback_record.h"
#include "core/feedback_records.pb.h"
#include "core/feedback_vocabulary.h"
#include "daemon/daemon_world_test.h"
#include "feedback/file_container.h"
#include "feedback/persistent_storage.h"
#include "platform/base64.h"
#include "platform/fakes/temporary_directory.h"
#include "query/engaged_completion_cache.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using platform::BusArray;
using platform::BusBytes;
using platform::BusDictionary;
using platform::LogLevel;
using testing::ElementsAre;
using testing::HasSubstr;
using Lines = std::vector<std::string>;

/// What a record says, on one line: its type, its query, and what the test's rows care for.
std::string told(const CXFeedbackPayload& payload) {
    if (payload.has_start_network_search()) {
        const auto& start = payload.start_network_search();
        auto text = fmt::format(" '{}' event {} endpoint {}", start.input(), start.trigger_event(), start.endpoint());
        if (start.has_lookup_selection_type()) text += fmt::format(" selection {}", start.lookup_selection_type());
        if (start.has_cindora_status()) text += fmt::format(" cindora {}", start.cindora_status());
        return text;
    }
    if (payload.has_end_network_search()) {
        const auto& end = payload.end_network_search();
        auto text = fmt::format(" {} bytes status {}", end.response_size(), end.status_code());
        if (end.has_orvex_status()) text += fmt::format(" {}", end.orvex_status());
        if (end.has_orvex_duration()) text += fmt::format(" {}", end.orvex_duration());
        if (end.has_fbq()) text += fmt::format(" {}", end.fbq());
        if (end.has_partial_client_ip()) text += fmt::format(" {}", end.partial_client_ip());
        return text;
    }
    if (payload.has_start_local_search()) {
        const auto& start = payload.start_local_search();
        return fmt::format(" '{}' event {} index {}", start.input(), start.trigger_event(), start.index_type());
    }
    if (payload.has_error()) {
        const auto& error = payload.error().error();
        const auto reason = error.user_info().find("reason");
        return fmt::format(" {} {} {}", error.domain(), error.code(),
                           reason == error.user_info().end() ? "-" : reason->second.string_value());
    }
    if (payload.has_skip_search())
        return fmt::format(" '{}' {}", payload.skip_search().input(), payload.skip_search().trigger_event());
    if (payload.has_cache_hit())
        return fmt::format(" '{}' {}", payload.cache_hit().input(), payload.cache_hit().trigger_event());
    if (payload.has_did_go_to_search())
        return fmt::format(" '{}' endpoint {}", payload.did_go_to_search().input(),
                           payload.did_go_to_search().endpoint());
    return "";
}
std::string line(const CXOrvexFeedback& record) {
    return fmt::format("{} #{}{}", feedbackTypeName(feedbackType(record)), record.query_id(), told(record.payload()));
}

/// Records, from what a client does to its session's file, and the payloads that clients report.
class FeedbackRoadTest : public testing::Test {
protected:
    FeedbackRoadTest() { world.files.serveCachesFrom(*disk); }

    /// `more` begins with a comma.
    void start(const std::string& more = "") {
        world.serveBag(R"({"version": 7, "feedback_enabled": true, "search_url": "https://s.example/s",
                           "more_results_url": "https://s.example/m?q=all", "card_url": "https://s.example/c",
                           "flight_url": "https://s.example/f", "warm_url": "https://s.example/w")" +
                       more + "}");
        world.start();
        ASSERT_TRUE(world.configure(client)->arguments);
    }
    DaemonWorld::Outcome ask(const char* kind, BusDictionary entries = {}) {
        entries.set("query_id", std::uint64_t{42});
        return world.callDaemon(client, "Request", {kind, std::move(entries)});
    }
    DaemonWorld::Outcome search(const std::string& text, std::uint32_t event = 2) {
        return ask("search", BusDictionary{}.set("query_string", text).set("trigger_event", event));
    }
    void answer(std::string body, std::int64_t status = 200) {
        world.answer({.statusCode = status, .body = std::move(body), .timing = {{"total", 0.25}}});
    }
    std::vector<CXOrvexFeedback> records() {
        const auto outcome = world.callDaemon(client, "Feedback", {""});
        std::vector<CXOrvexFeedback> found;
        for (const auto& item : outcome->arguments->at(0).as<BusArray>()->items) {
            EXPECT_TRUE(found.emplace_back().ParseFromString(std::string(item.as<BusBytes>()->view())));
        }
        return found;
    }
    template <class Records>
    static Lines linesOf(const Records& records) {
        Lines told;
        for (const auto& record : records) told.push_back(line(record));
        return told;
    }
    Lines lines() { return linesOf(records()); }
    /// The records since the last time, once a query that the server has got is answered like this.
    Lines left(const DaemonWorld::Outcome& outcome, platform::FakeAnswer serverAnswer = {}) {
        serverAnswer.timing = {{"total", 0.25}};
        if (!outcome->arrived()) world.answer(std::move(serverAnswer));
        world.time.advance(1ms);
        auto all = lines();
        all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(std::exchange(seen, all.size())));
        return all;
    }
    static Lines lines(const CXClientSession& session) { return linesOf(session.feedbacks()); }
    std::vector<CXClientSession> finishedSessions() {
        std::vector<CXClientSession> sessions;
        for (const auto& file : world.assembly.persistentStorage()->getAvailableSessionHandles()) {
            auto session = file->read();
            EXPECT_TRUE(session);
            if (session) sessions.push_back(*std::move(session));
        }
        return sessions;
    }
    DaemonWorld::Outcome report(std::string bytes, std::uint64_t queryId = 0, const std::string& caller = ":1.1") {
        return world.callDaemon(caller, "ReportFeedbackPayloadData", {BusBytes::of(std::move(bytes)), queryId});
    }
    /// Whether it was taken.
    bool report(const CXFeedbackPayload& payload, std::uint64_t queryId = 0, const std::string& caller = ":1.1") {
        return report(payload.SerializeAsString(), queryId, caller)->arguments.has_value();
    }

    const std::string client = ":1.1";
    platform::TemporaryDirectory home;
    std::unique_ptr<platform::FileManager> disk = platform::fileManagerBelow(home.path());
    DaemonWorld world;
    std::size_t seen = 0;  ///< records
};

TEST_F(FeedbackRoadTest, EveryQueryLeavesTheRecordsOfItsRoad) {
    start(R"(, "minimum_query_length": 2, "user_agents": [{"match": "off/1", "values": {"enabled": false}}])");
    const std::string list = R"([{"status": "OK", "duration": 1.5, "fbq": "f", "partial_client_ip": "10.1",
                                  "query": "tree house"}])";
    const auto ended = fmt::format("network_search_end #42 {} bytes status 200 OK 1.5 f 10.1", list.size());
    const std::string noAnswer = "network_search_end #42 0 bytes status 0";
    const auto lookup = BusDictionary{}.set("query_string", "oak").set("lookup_selection_type", std::uint32_t{3});
    const auto started = [](std::string_view rest) { return fmt::format("network_search_start #42 {}", rest); };
    const auto oak = started("'oak' event 2 endpoint 6 cindora 0");
    const platform::FakeAnswer slow{.error = platform::TransportError{platform::TransportError::timedOut, "slow"}};
    const std::string error = "error #42 ORXURLErrorDomain -1001 slow";
    const std::string invalid = "error #42 ORXErrorDomain 500 invalid response class";

    EXPECT_EQ(left(search("tree"), {.body = list}), (Lines{started("'tree' event 2 endpoint 6 cindora 0"), ended}));
    EXPECT_EQ(left(search("tree h")), Lines{"cache_hit #42 'tree h' 4"});
    EXPECT_EQ(left(search("t")), Lines{"skip_orvex_search #42 't' 1"});
    EXPECT_EQ(left(search("oak", 23), slow), (Lines{"did_go_to_search #42 'oak' endpoint 6",
                                                    started("'oak' event 23 endpoint 6 cindora 0"), noAnswer, error}));
    EXPECT_EQ(left(search("oak"), {.body = "x", .isHTTP = false}),
              (Lines{oak, "network_search_end #42 1 bytes status 0", invalid}));
    EXPECT_EQ(left(search("oak"), {.statusCode = 204}),
              (Lines{oak, "network_search_end #42 0 bytes status 204", "error #42  0 -"}));
    EXPECT_EQ(left(search("oak"), {.statusCode = 500, .body = "no list"}),
              (Lines{oak, "network_search_end #42 7 bytes status 500"}));
    EXPECT_EQ(left(ask("zero_keyword", BusDictionary{}.set("trigger_event", std::uint32_t{4})), {.body = list}),
              (Lines{started("'' event 4 endpoint 6"), ended}));
    EXPECT_EQ(left(ask("more_results"), {.body = "{}"}), (Lines{started("'all' event 0 endpoint 6 cindora 0"),
                                                                "network_search_end #42 2 bytes status 200", invalid}));
    EXPECT_EQ(left(ask("card", BusDictionary{}.set("card_url", "https://c.example/1")), {.body = list}),
              (Lines{started("'' event 0 endpoint 11 cindora 0"), ended}));
    EXPECT_EQ(left(ask("lookup", lookup), {.body = list}),
              (Lines{started("'oak' event 11 endpoint 6 selection 3 cindora 0"), ended}));
    EXPECT_EQ(left(ask("flight", BusDictionary{}.set("flight_query", "LH1")), slow),
              (Lines{started("'LH1' event 20 endpoint 13 cindora 0"), noAnswer, error}));
    ASSERT_TRUE(world.configure(":1.2", "other", "Off/1")->arguments);
    (void)world.search(":1.2", "tree");
    (void)world.callDaemon(":1.2", "Request", {"lookup", lookup});
    (void)world.callDaemon(":1.2", "Request", {"zero_keyword", BusDictionary{}});
    EXPECT_EQ(left(world.callDaemon(":1.2", "Request", {"flight", BusDictionary{}.set("flight_query", "LH1")})),
              (Lines{"skip_orvex_search #0 'tree' 2", "skip_orvex_search #0 'oak' 2", "skip_orvex_search #0 '' 2",
                     "skip_orvex_search #0 'LH1' 2"}));

    std::set<std::string> begun;
    for (const auto& record : records()) {
        EXPECT_FALSE(record.user_guid().empty());
        EXPECT_NE(codableTimestamp(record), 0u);
        const auto& payload = record.payload();
        if (payload.has_start_network_search()) begun.insert(payload.start_network_search().uuid());
        EXPECT_TRUE(!payload.has_end_network_search() || begun.contains(payload.end_network_search().uuid()));
        EXPECT_TRUE(!payload.has_cache_hit() || begun.contains(payload.cache_hit().uuid()));
    }
    const auto first = records().at(0).payload().start_network_search();
    EXPECT_THAT(first.url(), HasSubstr("q=tree"));
    EXPECT_TRUE(first.headers().contains("User-Agent"));
    EXPECT_EQ(records().at(1).payload().end_network_search().network_timing_data().values().at("total"), 0.25);
}

TEST_F(FeedbackRoadTest, WithoutABagTheSkipIsRecorded) {
    world.serveBag(std::nullopt);
    world.start();
    ASSERT_TRUE(world.configure(client)->arguments);
    (void)search("tree");
    (void)ask("zero_keyword");
    EXPECT_THAT(lines(), ElementsAre("skip_orvex_search #42 'tree' 3", "skip_orvex_search #42 '' 3"));
}

TEST_F(FeedbackRoadTest, AskingTheCompletionsOfThisDeviceIsRecorded) {
    start(R"(, "smart_history_enabled": true, "smart_history_minimum_query_length": 1, "minimum_query_length": 9)");
    (void)search("pari", 21);
    (void)search("pari", 22);
    const auto told = lines();
    EXPECT_THAT(told, ElementsAre("local_search_start #42 'pari' event 21 index 7", "local_search_end #42",
                                  "skip_orvex_search #42 'pari' 1", "skip_orvex_search #42 'pari' 1"));
    const auto all = records();
    EXPECT_EQ(all.at(0).payload().start_local_search().identifier(),
              all.at(1).payload().end_local_search().identifier());
    EXPECT_EQ(all.at(0).payload().start_local_search().query_id(), 42u);
}

TEST_F(FeedbackRoadTest, TheProxyThatARequestWentThroughIsRecorded) {
    start(R"(, "cindora_configuration": {"appRule": {"enable": {"Enabled": true}},
               "proxy_url": "https://proxy.example:8443"})");
    (void)search("tree");
    answer("[]");
    const auto all = records();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].payload().start_network_search().cindora_status(), 1);
    const auto& fields = all[1].payload().end_network_search().network_timing_data().int_key_fields();
    EXPECT_EQ(fields.at(49).map_value().values().at("proxy_url").string_value(), "https://proxy.example:8443");
}

TEST_F(FeedbackRoadTest, ABagFetchIsASessionOfItsOwn) {
    start();
    auto fetched = finishedSessions();
    ASSERT_EQ(fetched.size(), 1u);
    EXPECT_THAT(lines(fetched[0]),
                ElementsAre("network_search_start #0 '' event 16 endpoint 10",
                            testing::ContainsRegex("network_search_end #0 [0-9]+ bytes status 200")));
    EXPECT_THAT(fetched[0].agent(), HasSubstr("orvexd/"));
    for (const auto& record : fetched[0].feedbacks()) EXPECT_EQ(record.user_guid(), fetched[0].user_guid_string());

    world.serveBag("broken", 500);
    for (int i = 0; i < 25; ++i) {
        world.time.advance(i == 0 ? 4h : 1s);
        (void)search("tree");  // its record asks for the bag, which is too old
    }
    fetched = finishedSessions();
    const auto failed = std::ranges::count_if(fetched, [&](const auto& session) {
        return lines(session) == Lines{"network_search_start #0 '' event 16 endpoint 10",
                                       "network_search_end #0 6 bytes status 500",
                                       "error #0 ORXErrorDomain 2 statusCode 500"};
    });
    EXPECT_EQ(failed, 20);
    EXPECT_GE(world.bagFetches(), 25u);
}

TEST_F(FeedbackRoadTest, WhileFeedbackIsSwitchedOffNothingIsRecorded) {
    world.defaults.store("ORXFeedbackDisabled", true);
    start();
    EXPECT_FALSE(search("tree")->arrived());
    EXPECT_FALSE(report("no payload")->arguments);
    EXPECT_THAT(lines(), testing::IsEmpty());
    EXPECT_THAT(finishedSessions(), testing::IsEmpty());
}

TEST_F(FeedbackRoadTest, AConfigurationThatIsRefusedIsRecordedAsTheDaemonsOwn) {
    start();
    EXPECT_FALSE(world.configure(":1.9", "com.kelvar.other", "")->arguments);
    EXPECT_THAT(lines(), ElementsAre("error #0 ORXErrorDomain 500 invalid configuration"));
    EXPECT_THAT(records().at(0).user_agent(), HasSubstr("orvexd/"));
}

// Payloads

CXFeedbackPayload viewAppeared(int event, bool onLockScreen = false) {
    CXFeedbackPayload payload;
    payload.set_type(1);
    payload.mutable_search_view_appear()->set_view_appear_event(event);
    payload.mutable_search_view_appear()->set_is_on_lock_screen(onLockScreen);
    return payload;
}

struct Engaged {
    int type = 1;
    std::string completion = "paris hotels";
    std::string title = "Paris";
    std::string section = "com.kelvar.orvex.web";
    std::string fbr = {};
};

CXFeedbackPayload engagement(const Engaged& engaged) {
    CXFeedbackPayload payload;
    payload.set_type(7);
    auto& feedback = *payload.mutable_result_engagement();
    feedback.set_title_text(engaged.title);
    auto& result = *feedback.mutable_result();
    result.set_type(engaged.type);
    result.set_is_top_hit(true);
    result.set_user_input("par");
    result.set_completed_query("paris hotels");
    result.set_completion(engaged.completion);
    result.set_section_bundle_identifier(engaged.section);
    if (!engaged.fbr.empty()) result.set_fbr(engaged.fbr);
    return payload;
}

TEST_F(FeedbackRoadTest, AViewThatAppearsWarmsTheConnectionUnlessItIsWarm) {
    start();
    for (const int event : {1, 3, 25}) EXPECT_TRUE(report(viewAppeared(event)));
    EXPECT_TRUE(report(viewAppeared(5, true)));
    EXPECT_EQ(world.sessions.session("com.kelvar.orvexd.urlSession"), nullptr);  // nothing was sent
    for (const int event : {2, 5, 6, 9, 10, 11, 22, 23, 24}) {
        EXPECT_TRUE(report(viewAppeared(event)));
        EXPECT_TRUE(report(viewAppeared(event)));
        world.answer({.statusCode = 204});
        world.time.advance(30s);
    }
    EXPECT_EQ(world.server().sent().size(), 9u);
    EXPECT_TRUE(world.server().sent().at(0).isPreconnect);
    const auto told = lines();
    EXPECT_THAT(Lines(told.begin() + 4, told.begin() + 7),
                testing::UnorderedElementsAre("network_search_start #0 '' event 19 endpoint 12 cindora 0",
                                              "search_view_appear #0", "search_view_appear #0"));
    EXPECT_EQ(told.at(7), "network_search_end #0 0 bytes status 204");
}

TEST_F(FeedbackRoadTest, ARecordNamesItsQueryWhenItsClientDoesNot) {
    start();
    const auto payload = [](int type, auto fill) {
        CXFeedbackPayload made;
        made.set_type(type);
        fill(made);
        return made;
    };
    const auto ofSections = [](auto* record) {
        record->add_sections()->add_results()->mutable_result()->set_query_id(9);
    };
    const auto ofSection = [](auto* record) { record->mutable_section()->add_results()->set_query_id(9); };
    const CXFeedbackPayload rows[] = {
        payload(3, [&](auto& p) { ofSections(p.mutable_ranking()); }),
        payload(24, [&](auto& p) { ofSections(p.mutable_late_sections_appended()); }),
        payload(12, [](auto& p) { p.mutable_start_search()->set_query_id(9); }),
        payload(14, [](auto& p) { p.mutable_start_network_search()->set_query_id(9); }),
        payload(16, [](auto& p) { p.mutable_start_local_search()->set_query_id(9); }),
        payload(23, [](auto& p) { p.mutable_results_received_after_timeout()->add_results()->set_query_id(9); }),
        payload(26, [&](auto& p) { ofSection(p.mutable_section_engagement()); }),
        payload(27, [&](auto& p) { ofSection(p.mutable_visible_section_header()); }),
    };
    for (const auto& row : rows) {
        EXPECT_TRUE(report(row));
        EXPECT_EQ(records().back().query_id(), 9) << row.type();
        EXPECT_TRUE(report(row, std::uint64_t{1} << 63));
        EXPECT_EQ(records().back().query_id(), std::numeric_limits<std::int64_t>::min()) << row.type();
    }
    for (const int type : {3, 24, 23, 26, 27}) {  // lists that are empty
        EXPECT_TRUE(report(payload(type, [&](auto& p) {
            const auto* field = p.GetDescriptor()->FindFieldByNumber(16 + type);
            (void)p.GetReflection()->MutableMessage(&p, field);
        })));
        EXPECT_EQ(records().back().query_id(), 0);
    }
    EXPECT_TRUE(report(payload(7, [](auto& p) { p.mutable_result_engagement()->mutable_result()->set_query_id(9); })));
    EXPECT_EQ(records().back().query_id(), 0);
}

TEST_F(FeedbackRoadTest, AnEngagementIsCountedAndItsCompletionKeptForItsClient) {
    start(R"(, "smart_history_enabled": true, "smart_history_max_rows": 50)");
    struct Row {
        const char* identifier;
        Engaged engaged;
        std::int64_t client;
        const char* kept;  ///< null: nothing
    };
    const Row rows[] = {
        {"com.kelvar.lumisk", {}, engagedByLumisk, "paris hotels"},
        {"com.kelvar.lumisk", {.type = 17}, engagedByLumisk, "Paris"},
        {"com.kelvar.lumisk", {.type = 2}, engagedByLumisk, nullptr},
        {"com.kelvar.brovia", {.type = 2}, engagedByBrovia, "paris hotels"},
        {"com.kelvar.brovia", {.section = "com.other"}, engagedByBrovia, nullptr},
        {"com.kelvar.brovia", {.completion = ""}, engagedByBrovia, nullptr},
        {"com.kelvar.brovia", {.type = 9, .section = ""}, engagedByBrovia, "Paris"},
        {"com.kelvar.brovia", {.type = 14, .section = ""}, engagedByBrovia, "Paris"},
        {"com.kelvar.other", {}, engagedByOthers, nullptr},
    };
    const auto cache = EngagedCompletionCache::sharedInstance(world.assembly);
    int number = 1;
    for (const auto& row : rows) {
        const auto caller = fmt::format(":2.{}", ++number);
        ASSERT_TRUE(world.configure(caller, row.identifier, fmt::format("{}/1", row.identifier))->arguments);
        EXPECT_TRUE(report(engagement(row.engaged), 0, caller));
        const auto kept = cache->completionForInput("par", row.client);
        EXPECT_EQ(kept ? kept->suggestion : "", row.kept != nullptr ? row.kept : "") << number;
        cache->clearAllCompletions();
        world.time.runPending();
    }
    EXPECT_EQ(world.counters.value("com.kelvar.orvexd.lumisk.tophit.engagements"), 3);
    EXPECT_EQ(world.counters.value("com.kelvar.orvexd.lumisk.orvex.engagements"), 1);
    EXPECT_EQ(world.counters.value("com.kelvar.orvexd.brovia.orvex.engagements"), 2);
    auto payload = engagement({});
    payload.mutable_result_engagement()->mutable_result()->clear_completed_query();
    EXPECT_TRUE(report(payload));
    EXPECT_TRUE(world.log.contains(LogLevel::error, "Orvex_Feedback",
                                   "invalid input for intent creation, inputString = par, queryString = (null)"));
}

TEST_F(FeedbackRoadTest, ASuggestionsEngagementIsCountedOnlyForAClientWithAName) {
    start();
    ASSERT_TRUE(world.configure(":1.2", "nameless", "Nobody/1")->arguments);
    CXFeedbackPayload payload;
    payload.set_type(20);
    payload.mutable_suggestion_engagement();
    for (const auto* caller : {":1.1", ":1.2"}) EXPECT_TRUE(report(payload, 0, caller));
    EXPECT_EQ(world.counters.value("com.kelvar.orvexd.lumisk.querysuggestion.engagements"), 1);
    EXPECT_EQ(lines(), Lines(2, "suggestion_engagement #0"));
}

TEST_F(FeedbackRoadTest, TheServerIsToldHowCompletionsDidInTheSecondsThatItSamples) {
    start(R"(, "smart_history_enabled": true, "smart_history_feature_feedback_enabled": true,
               "smart_history_sample_threshold": 1)");
    const auto secondOfHundred = [&](int second) {
        const auto now =
            static_cast<int>(static_cast<std::int64_t>(platform::secondsSince1970(world.time.wallNow())) % 100);
        world.time.advance(std::chrono::seconds((second - now + 100) % 100));
    };
    const auto reports = [&] {
        const auto directory = (*world.files.cachesDirectory())->directory("CustomFeedback/engaged_completion");
        std::vector<std::string> found;
        const auto names = (*directory)->list();
        for (const auto& name : *names) {
            CXCustomFeedback feedback;
            EXPECT_TRUE(feedback.ParseFromString(*(*directory)->read(name, 1 << 20)));
            EXPECT_EQ(feedback.custom_type(), 6u);
            found.push_back(feedback.json_feedback());
            EXPECT_TRUE((*directory)->remove(name));
        }
        return found;
    };
    const auto blob = platform::encodedBase64(R"({"lc": true, "q": "par"})");
    secondOfHundred(0);
    EXPECT_TRUE(report(engagement({.fbr = blob})));
    (void)reports();  // counted with its own engagement or before it
    EXPECT_TRUE(report(engagement({.fbr = blob})));
    EXPECT_THAT(reports(), ElementsAre(HasSubstr(R"("c":2,"e":1)")));

    CXFeedbackPayload visible;
    visible.set_type(8);
    for (const int type : {1, 2}) {
        auto& result = *visible.mutable_visible_results()->add_results();
        result.set_type(type);
        result.set_fbr(blob);
    }
    EXPECT_TRUE(report(visible));
    EXPECT_THAT(reports(), ElementsAre(HasSubstr(R"("c":2,"e":0)")));
    for (int i = 0; i < 100; ++i)
        *visible.mutable_visible_results()->add_results() = visible.visible_results().results(0);
    EXPECT_TRUE(report(visible));
    EXPECT_EQ(reports().size(), 64u);
    EXPECT_EQ(world.counters.value("com.kelvar.orvexd.customfeedback.engaged_completion.toomanyresults"), 1);

    for (const auto& none : {std::string("{"), std::string("[]"), std::string(R"({"lc": false, "q": "par"})")}) {
        EXPECT_TRUE(report(engagement({.fbr = platform::encodedBase64(none)})));
    }
    EXPECT_TRUE(report(engagement({.fbr = "*"})));
    secondOfHundred(1);
    EXPECT_TRUE(report(engagement({.fbr = blob})));
    secondOfHundred(0);
    world.defaults.store("ORXFeedbackDisabled", true);
    EXPECT_TRUE(report(engagement({.fbr = blob})));
    EXPECT_TRUE(reports().empty());
    EXPECT_TRUE(world.log.contains(LogLevel::error, "Orvex_Feedback",
                                   "sendCompletionFeatureFeedbackForResult failed to parse JSON: "));
}

TEST_F(FeedbackRoadTest, WhatCannotBeReadIsRefusedWithItsReason) {
    start();
    const auto whole = engagement({}).SerializeAsString();
    auto badText = viewAppeared(1);
    badText.mutable_search_view_appear()->set_identifier("\xFF");
    EXPECT_EQ(report(badText.SerializeAsString())->errorName(), platform::bus_error::invalidArgs);
    for (const std::size_t size : {(1u << 20) + 1, 10u << 20})
        EXPECT_EQ(report(std::string(size, 'x'))->errorName(), platform::bus_error::limitsExceeded);
    for (int i = 0; i < 25; ++i) EXPECT_EQ(report(whole.substr(0, whole.size() - 1))->errorName(), kORXInternalError);
    EXPECT_TRUE(report(std::string())->arguments);
    EXPECT_TRUE(world.log.contains(LogLevel::error, "Orvex_Feedback", "Failed deserializing _CXFeedbackPayload."));
    const Lines told{"error #0 ORXErrorDomain 500 Couldn't deserialize feedback protobuf"};
    EXPECT_EQ(std::ranges::count(finishedSessions(), told, [](const auto& session) { return lines(session); }), 20);
    EXPECT_TRUE(report(whole)->arguments);
    EXPECT_EQ(lines().back(), "result_engagement #0");
}

}  // namespace
}  // namespace orvex
