#include "feedback/client_session.h"

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <cmath>

#include "feedback/feedback_world_test.h"
#include "feedback/orvexd_user_agent.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using platform::LogLevel;

class ClientSessionTest : public testing::Test {
protected:
    using Session = std::shared_ptr<ClientSession>;

    Session begin(std::unique_ptr<CXOrvexFeedback> first, SessionEndReason previous = SessionEndReason::unknown) {
        auto session = std::make_shared<ClientSession>(world.assembly, std::move(first), world.receipt(), previous);
        world.time.runPending();
        return session;
    }
    Session begin(std::string agent) { return begin(FeedbackWorld::record(1, 1, std::move(agent))); }
    void add(const Session& session, std::unique_ptr<CXOrvexFeedback> record) {
        session->addFeedback(std::move(record), world.receipt());
        world.time.runPending();
    }
    static std::unique_ptr<CXOrvexFeedback> at(std::uint64_t milliseconds, std::unique_ptr<CXOrvexFeedback> record) {
        auto* codable = mutableCodableOf(*record->mutable_payload());
        const auto* field = codable->GetDescriptor()->FindFieldByNumber(1);
        codable->GetReflection()->SetUInt64(codable, field, milliseconds * 1'000'000);
        return record;
    }
    /// What would be uploaded of a session that has ended: it is read back from its file first.
    boost::json::object sent(const Session& session) {
        session->sessionComplete();
        return ClientSession(world.assembly, world.finished().back()).getFeedbacksToSend();
    }
    bool firstUse(std::string agent) { return begin(std::move(agent))->backingStore().first_use_of_the_day(); }

    FeedbackWorld world;
};

TEST_F(ClientSessionTest, ItsHeaderTellsWhoseItIs) {
    world.defaults.store("ORXDevID", "dev-1");
    auto first = FeedbackWorld::record(1, 7);
    first->set_user_guid("GUID-1");
    const auto session = begin(std::move(first), SessionEndReason::sessionIdle);
    session->sessionComplete();
    session->sessionComplete();  // once is enough
    const auto finished = world.finished();
    ASSERT_EQ(finished.size(), 1u);
    CXClientSession header = finished[0];
    EXPECT_EQ(FeedbackWorld::ids(header.feedbacks()), (std::vector<std::int64_t>{7}));
    header.clear_feedbacks();
    EXPECT_EQ(header.SerializeAsString(), session->backingStore().SerializeAsString());
    EXPECT_EQ(header.session_start(), 1'700'000'000);
    EXPECT_EQ(header.version(), orvexdUserAgent(world.device));
    EXPECT_EQ(header.agent(), "Lumisk/1");
    EXPECT_EQ(header.user_guid_string(), "GUID-1");
    EXPECT_EQ(header.previous_session_end_reason(), 3);
    EXPECT_EQ(world.count("lumisk.sessions"), 1);
}

TEST_F(ClientSessionTest, ARecordOfAnotherGUIDStaysAndAnErrorFollows) {
    auto first = FeedbackWorld::record(1, 1);
    first->set_user_guid("GUID-1");
    const auto session = begin(std::move(first));
    add(session, FeedbackWorld::record(1, 2));  // none differs, too
    session->sessionComplete();
    const auto finished = world.finished();
    ASSERT_EQ(finished[0].feedbacks_size(), 3);
    EXPECT_EQ(finished[0].feedbacks(1).query_id(), 2);
    const auto& error = finished[0].feedbacks(2);
    EXPECT_EQ(error.payload().error().error().code(), 500);
    EXPECT_EQ(error.payload().error().error().domain(), "ORXErrorDomain");
    EXPECT_EQ(error.payload().error().error().user_info().at("reason").string_value(), "different guid in session");
    EXPECT_EQ(error.user_agent(), "Lumisk/1");
    EXPECT_FALSE(error.has_user_guid());
    EXPECT_EQ(world.underWay, 0);
}

// 22:13:20 UTC is 23:13:20 in Berlin.
TEST_F(ClientSessionTest, TheFirstUseOfADayCountsOnceADayOfTheUsersCalendar) {
    EXPECT_TRUE(firstUse("com.kelvar.Lumisk/1"));
    EXPECT_FALSE(firstUse("Lumisk/2"));
    EXPECT_TRUE(firstUse("Vocant/1"));  // a day of its own
    EXPECT_EQ(world.count("lumisk.dailyactiveusers"), 1);
    EXPECT_TRUE(world.defaults.object("OrvexFirstUseOfTheDay_lumisk")->as<platform::WallTime>() != nullptr);
    world.time.advance(46min);
    EXPECT_FALSE(firstUse("Lumisk/1"));
    world.time.advance(1min);
    EXPECT_TRUE(firstUse("Lumisk/1"));
    EXPECT_EQ(world.count("lumisk.dailyactiveusers"), 2);
    world.time.jumpWall(-24h);  // yesterday is another day
    EXPECT_TRUE(firstUse("Lumisk/1"));
}

TEST_F(ClientSessionTest, ADefaultThatIsNoDateIsRemoved) {
    for (const platform::PropertyValue& junk : {platform::PropertyValue("yesterday"), platform::PropertyValue(7)}) {
        world.defaults.store("OrvexFirstUseOfTheDay_lookup", junk);
        EXPECT_TRUE(firstUse("Lookup/1"));
        EXPECT_TRUE(world.log.contains(LogLevel::error, "Orvex_Session",
                                       "Found something other than a date in defaults for key "
                                       "OrvexFirstUseOfTheDay_lookup."));
        EXPECT_FALSE(firstUse("Lookup/1"));
    }
    world.defaults.setFailing(true);
    EXPECT_TRUE(firstUse("Gazel/1"));  // what cannot be stored is no reason to lose the session
}

TEST_F(ClientSessionTest, AnAgentThatIsNotFollowedHasNoFirstUse) {
    EXPECT_FALSE(firstUse("Aerotrak/1"));
    EXPECT_TRUE(
        world.log.contains(LogLevel::debug, "Orvex_Session", "user default key not found for agent: Aerotrak/1"));
    EXPECT_EQ(world.count("aerotrak.sessions"), 1);
    EXPECT_FALSE(firstUse("Unheard/1"));
    EXPECT_EQ(begin(std::unique_ptr<CXOrvexFeedback>())->agent(), "");
}

TEST_F(ClientSessionTest, ItIsUploadedWithSevenKeysAndTimesOfItsOwn) {
    const auto session = begin(at(0, FeedbackWorld::record(1, 1)), SessionEndReason::guidChanged);
    add(session, at(5'250, FeedbackWorld::record(2, 2)));
    add(session, at(5'000, FeedbackWorld::record(2, 3)));  // came late
    EXPECT_EQ(boost::json::serialize(sent(session)),
              R"({"agent":"Lumisk/1","base_time":1700000000,"fb":[)"
              R"({"timestamp":0,"query_id":1,"type":"search_view_appear"},)"
              R"({"timestamp":0,"query_id":3,"type":"search_view_disappear"},)"
              R"({"timestamp":250,"query_id":2,"type":"search_view_disappear"}],)"
              R"("first_use":true,"previous_session_end_reason":"guid_changed","resource_versions":null,)"
              R"("user_guid":""})");
}

TEST_F(ClientSessionTest, WhatWasNeverAnnouncedLeads) {
    auto shown = FeedbackWorld::record(8, 1);
    shown->mutable_payload()->mutable_visible_results()->add_results()->set_identifier("r1");
    const auto session = begin(std::move(shown));
    auto engaged = FeedbackWorld::record(20, 2);
    engaged->mutable_payload()->mutable_suggestion_engagement()->mutable_suggestion()->set_identifier("s1");
    add(session, std::move(engaged));
    const auto dictionary = sent(session);
    const auto& records = dictionary.at("fb").as_array();
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0].at("type"), "session_missing_suggestions");
    EXPECT_EQ(records[1].at("type"), "session_missing_results");
    EXPECT_EQ(records[1].at("timestamp"), 0);
}

TEST_F(ClientSessionTest, ASessionThatBeginsWithASuggestionKeepsItsTimeBack) {
    const auto dictionary = sent(begin(FeedbackWorld::record(20, 1), SessionEndReason(12)));
    EXPECT_EQ(dictionary.at("base_time"), 0);
    EXPECT_EQ(dictionary.at("previous_session_end_reason"), "(unknown: 12)");
}

TEST_F(ClientSessionTest, ARecordWithoutADictionaryIsLeftOut) {
    auto timing = FeedbackWorld::record(41, 1);
    timing->mutable_payload()->mutable_client_timing()->set_seconds(std::nan(""));
    EXPECT_TRUE(sent(begin(std::move(timing))).at("fb").is_null());
    EXPECT_TRUE(world.log.contains(LogLevel::error, "Orvex_Feedback", "nil feedback dictionary for type : 41"));
    EXPECT_EQ(world.count("feedbackdropped.nodictionary"), 1);
}

TEST_F(ClientSessionTest, PagesThatABrowserWasAtAreScreened) {
    const auto session = begin("Brovia/1");
    auto engaged = FeedbackWorld::record(40, 2, "Brovia/1");
    engaged->mutable_payload()->mutable_cba_engagement()->set_url("https://private.example/");
    add(session, std::move(engaged));
    EXPECT_EQ(sent(session).at("fb").as_array().size(), 1u);
}

TEST_F(ClientSessionTest, ErrorsHaveTwentySessionsAnHour) {
    const auto fails = [this] {
        const auto session =
            ClientSession::createFeedbackSessionFromError(ORXError(ORXErrorCode::internal, "why"), world.assembly);
        if (session) session->sessionComplete();
        return session == nullptr;
    };
    for (int session = 0; session < 20; ++session) EXPECT_FALSE(fails());
    EXPECT_TRUE(fails());
    EXPECT_EQ(world.count("feedbackdropped.errorsessions"), 1);
    EXPECT_TRUE(world.assembly.ownSessionLimit()->admit(OwnSessionLimit::Kind::bagFetch));  // counted apart
    world.time.advance(1h);
    EXPECT_FALSE(fails());
    const auto finished = world.finished();
    EXPECT_EQ(finished.size(), 21u);
    EXPECT_EQ(finished[0].previous_session_end_reason(), 1);
    EXPECT_EQ(finished[0].user_guid_string().size(), 36u);
}

}  // namespace
}  // namespace orvex
