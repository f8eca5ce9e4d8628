#include <gmock/gmock.h>

#include <ranges>

#include "core/feedback_records.pb.h"
#include "core/json.h"
#include "core/notifications.h"
#include "core/orx_bag.h"
#include "daemon/daemon_world_test.h"
#include "feedback/client_session_manager_protocol.h"
#include "platform/mapped_file.h"
#include "resources/download_manager.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;
using platform::FakeAnswer;
using platform::LogLevel;
using platform::PropertyDictionary;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

constexpr std::string_view weekly = "lookup_hints_weekly";
constexpr std::string_view whitelist = "installed_app_whitelist";

/// Resources from the bag to the clients, with the test as the server.
class ResourcesRoadTest : public testing::Test {
protected:
    using URLs = std::map<std::string, std::string>;

    void start() {
        world.start();
        ASSERT_TRUE(world.configure(client)->arguments);
        (void)world.bus.takeSignals(client);
    }
    /// A bag that lists these; `more` is put before.
    void changeBag(const URLs& urls, const std::string& more = "") {
        boost::json::object bag = parseJSON("{" + more + "}", 8).value().get_object();
        boost::json::array list;
        for (const auto& [identifier, url] : urls) {
            list.emplace_back(identifier);
            if (!url.empty()) bag[identifier] = url;
        }
        bag["download_resources_list"] = std::move(list);
        postBag(std::move(bag));
    }
    void postBag(boost::json::object bag) {
        world.notifications.post(ORXBagChangeNotification{
            std::make_shared<const ORXBag>(std::make_shared<const boost::json::object>(std::move(bag)), "Lumisk/1")});
        world.time.runPending();
    }
    platform::FakeBackgroundSession& session() { return *world.backgroundSessions.session("com.kelvar.orvexd"); }

    /// "identifier reason version" of the downloads that begin once their minute is over.
    std::vector<std::string> begun() {
        const auto before = session().sent().size();
        world.time.advance(60s);
        std::vector<std::string> all;
        for (const auto& sent : session().sent() | std::views::drop(before)) all.push_back(described(sent.request));
        return all;
    }
    static std::string described(const platform::URLRequest& request) {
        const auto header = [&](std::string_view name) {
            return platform::headerValue(request.headers, name).value_or("(none)");
        };
        return header("X-Kelvar-Download-Identifier") + ' ' + header("X-Kelvar-Download-Reason") + ' ' +
               header("If-None-Match");
    }
    void answer(FakeAnswer answer) {
        session().answer(std::move(answer));
        world.time.runPending();
    }
    void answer(std::string body, std::int64_t status = 200, std::string url = {}) {
        answer({.statusCode = status, .body = std::move(body), .url = url});
    }
    void install(const std::string& identifier, const std::string& url, const std::string& body) {
        changeBag({{identifier, url}});
        ASSERT_EQ(begun().size(), 1u);
        answer(body);
    }

    std::string file(std::string_view name) {
        return world.files.cachesDirectory().value()->read(name, 1 << 20).value_or("(none)");
    }
    /// As the data detectors have it: the file, then its signature.
    std::pair<std::string, std::string> hints(const std::string& kind) {
        const auto state = world.files.stateDirectory().value();
        const auto read = [&](const std::string& name) {
            return state->read("data-detectors/" + name, 1 << 20).value_or("(none)");
        };
        return {read(kind), read(kind + ".signature")};
    }
    std::map<std::string, std::string> saved() {
        std::map<std::string, std::string> urls;
        const auto list = world.defaults.object("download_resources").value();
        for (const auto& [identifier, entry] : *list.as<PropertyDictionary>()) {
            const auto* entries = entry.as<PropertyDictionary>();
            urls.emplace(identifier, entries->empty() ? "" : *entries->at("url").as<std::string>());
        }
        return urls;
    }
    std::vector<std::string> signals() {
        std::vector<std::string> all;
        for (const auto& signal : world.bus.takeSignals(client))
            if (signal.member != "BagDidLoad")
                all.push_back(signal.member + ' ' + *signal.arguments[0].as<std::string>());
        return all;
    }
    DaemonWorld::Outcome open(const std::string& identifier) {
        return world.callDaemon(client, "FileHandleAndAttributesForResource", {identifier});
    }
    std::int64_t counter(std::string_view name) {
        return world.counters.value("com.kelvar.orvexd." + std::string(name));
    }
    /// Whether an error of the daemon's own with this reason is among the records of the open session.
    bool reported(std::string_view reason) {
        return std::ranges::any_of(
            world.assembly.clientSessionManager()->currentSessionRecords(),
            [&](const auto& record) { return record.SerializeAsString().find(reason) != std::string::npos; });
    }
    std::optional<std::string> signature() { return world.defaults.string("ORXAppWhitelistSignature"); }

    static constexpr const char* client = ":1.1";
    DaemonWorld world;
};

TEST_F(ResourcesRoadTest, ANewResourceIsDownloadedAfterAMinuteInstalledAndHandedOut) {
    start();
    changeBag({{"map", "https://r.example/map?version=7&b=2"}});
    EXPECT_THAT(saved(), ElementsAre(Pair("map", "")));
    world.time.advance(59s);
    EXPECT_THAT(session().sent(), IsEmpty());
    EXPECT_THAT(begun(), ElementsAre("map update (none)"));
    const auto request = session().sent().back().request;
    EXPECT_EQ(request.timeWindow, 86400s);
    EXPECT_NE(platform::headerValue(request.headers, "User-Agent")->find("Lumisk/1"), std::string::npos);
    EXPECT_EQ(platform::headerValue(request.headers, "X-Kelvar-FuzzedLatLong"), std::nullopt);

    EXPECT_EQ(open("map")->errorName(), "com.kelvar.orvexd.Error.NotFound");
    answer("the map");
    EXPECT_EQ(file("map"), "the map");
    EXPECT_THAT(signals(), ElementsAre("DidDownloadResource map"));
    EXPECT_EQ(counter("bag.resourcefilesfetched"), 2);
    EXPECT_THAT(saved(), ElementsAre(Pair("map", "https://r.example/map?b=2&version=7")));
    EXPECT_THAT(world.assembly.downloadManager()->resourceVersions(), ElementsAre(Pair("map", "7")));

    const auto opened = open("map");
    ASSERT_TRUE(opened->arguments);
    EXPECT_EQ(platform::mmapFileHandle(*opened->arguments->at(0).as<platform::BusFile>()->file).value().bytes(),
              "the map");
    const auto& attributes = *opened->arguments->at(1).as<platform::BusDictionary>();
    EXPECT_EQ(*attributes.find("size")->as<std::uint64_t>(), 7u);
    EXPECT_EQ(*attributes.find("permissions")->as<std::uint32_t>(), 0600u);
    EXPECT_TRUE(attributes.find("creation_date")->as<double>() && attributes.find("modification_date")->as<double>());
}

TEST_F(ResourcesRoadTest, WhatIsUnchangedIsLeftAloneAndWhatHasChangedOrIsGoneIsFetched) {
    start();
    install("map", "https://r.example/map?version=7&b=a%20b", "the map");
    for (const auto* same :
         {"https://r.example/map?version=7&b=a%20b", "https://other.example/map?b=a%20b&version=7",
          "https://r.example/map?key=1&version=7&b=%61%20b&key=2", "https://r.example/map?b=0&version=7&b=a%20b"}) {
        changeBag({{"map", same}});
        EXPECT_THAT(begun(), IsEmpty()) << same;
    }
    for (const auto* changed : {"https://r.example/map?version=8&b=a%20b", "https://r.example/map2?version=7&b=a%20b",
                                "https://r.example/map?version=7", "https://r.example/map?version=7&b=a+b"}) {
        changeBag({{"map", changed}});
        EXPECT_THAT(begun(), ElementsAre("map update 7")) << changed;
    }
    ASSERT_TRUE(world.files.cachesDirectory().value()->remove("map"));
    changeBag({{"map", "https://r.example/map?version=7&b=a%20b"}});
    EXPECT_THAT(begun(), ElementsAre("map missing (none)"));
    EXPECT_THAT(signals(), ElementsAre("DidDownloadResource map"));
}

TEST_F(ResourcesRoadTest, WhatTheBagNoLongerListsIsDeletedOnce) {
    start();
    install("map", "https://r.example/map", "the map");
    install("plan", "https://r.example/plan", "the plan");  // and the map no more
    (void)signals();
    changeBag({{"plan", ""}});
    EXPECT_THAT(signals(), ElementsAre("DidDeleteResource plan"));
    changeBag({{"plan", "http://r.example/plan"}});  // refused: as none
    changeBag({{"plan", "file:///etc/passwd"}});
    changeBag({{"plan", "no url"}});
    EXPECT_THAT(begun(), IsEmpty());
    EXPECT_THAT(signals(), IsEmpty());
    EXPECT_EQ(counter("resources.refused.url"), 3);
    EXPECT_EQ(file("map") + file("plan"), "(none)(none)");
    EXPECT_EQ(world.defaults.object("download_resources"), PropertyDictionary{});  // stored, though empty
}

TEST_F(ResourcesRoadTest, AFailedDownloadLeavesTheFileAndIsReported) {
    world.serveBag(R"({"feedback_enabled": true})");
    start();
    install("map", "https://r.example/map?version=1", "old");
    const auto fetched = counter("bag.resourcefilesfetched");
    struct Case {
        std::int64_t status;
        std::optional<platform::TransportError> error;
        const char* report;
    };
    for (const auto& [status, error, report] :
         {Case{404, {}, "status code 404"}, Case{500, {}, "status code 500"}, Case{400, {}, "status code 400"},
          Case{0, platform::TransportError{platform::TransportError::connectionLost, "cut"},
               "download error ORXURLErrorDomain -1005"}}) {
        changeBag({{"map", "https://r.example/map?version=2"}});
        ASSERT_THAT(begun(), ElementsAre("map update 1"));
        answer({.statusCode = status, .body = "new", .error = error});
        EXPECT_TRUE(reported(report)) << report;
    }
    EXPECT_EQ(file("map"), "old");
    EXPECT_EQ(counter("bag.resourcefilesfetched"), fetched);
    EXPECT_EQ(counter("resources.errors"), 4);

    changeBag({{"map", "https://r.example/map?version=2"}});
    ASSERT_THAT(begun(), ElementsAre("map update 1"));
    answer("", 304);  // the same file under another version
    EXPECT_EQ(file("map"), "old");
    EXPECT_EQ(counter("bag.resourcefilesfetched"), fetched + 1);
    EXPECT_EQ(counter("resources.errors"), 4);
    EXPECT_THAT(world.assembly.downloadManager()->resourceVersions(), ElementsAre(Pair("map", "2")));

    changeBag({{"map", "https://r.example/map?version=3"}});
    ASSERT_THAT(begun(), ElementsAre("map update 2"));
    world.files.setAvailable(false);
    answer("new");
    EXPECT_TRUE(
        world.log.contains(LogLevel::standard, "Orvex_DownloadManager", "failed getting destination URL for map"));
}

TEST_F(ResourcesRoadTest, OfManyBagChangesOnlyTheLastDownloads) {
    start();
    changeBag({{"map", "https://r.example/map?version=0"}});
    world.time.advance(60s);  // one is on its way
    const auto bag = [](int version) {
        boost::json::object raw;
        raw["download_resources_list"] = {"map", "plan"};
        raw["map"] = "https://r.example/map?version=" + std::to_string(version);
        raw["plan"] = "https://r.example/plan";
        return ORXBagChangeNotification{
            std::make_shared<const ORXBag>(std::make_shared<const boost::json::object>(std::move(raw)), "")};
    };
    for (int version = 1; version <= 10; ++version) world.notifications.post(bag(version));
    world.time.runPending();
    EXPECT_EQ(session().pendingTransfers().size(), 2u);
    EXPECT_THAT(session().held(), IsEmpty());  // the one that was on its way is cancelled
    EXPECT_THAT(begun(), ElementsAre("map update (none)", "plan update (none)"));
    EXPECT_NE(session().sent()[1].request.url.find("version=10"), std::string::npos);
    EXPECT_EQ(counter("resources.errors"), 0);
}

TEST_F(ResourcesRoadTest, AnEndOfWhatIsNoLongerKnownInstallsNothing) {
    start();
    changeBag({{"map", "https://r.example/map"}});
    const auto task = [&] {
        world.time.advance(60s);
        return session().held().front();
    }();
    session().answer({.body = "late"});  // and not yet told
    world.notifications.post(
        ORXBagChangeNotification{std::make_shared<const ORXBag>(std::make_shared<const boost::json::object>(), "")});
    world.time.runPending();
    EXPECT_EQ(task->state(), platform::BackgroundTaskState::told);
    EXPECT_EQ(world.defaults.object("download_resources"), PropertyDictionary{});
    const bool orphan = file("map") == "late" && signals().empty();
    EXPECT_FALSE(orphan);
}

TEST_F(ResourcesRoadTest, AnIdentifierIsCheckedBeforeEveryUse) {
    std::vector<std::string> refused;
    for (const auto* name : {"", ".hidden", "-x", "a/b", "../bag.plist", "bag.plist", "bag.plist.corrupt", "session.1",
                             "map.corrupt", "CustomFeedback", "EngagedCompletions", "m\xc3\xa4p", "m\xff", "a b"})
        refused.emplace_back(name);
    for (const std::size_t size : {129, 1000}) refused.emplace_back(size, 'x');
    world.defaults.store("download_resources",
                         PropertyDictionary{{"session.1", PropertyDictionary{{"url", "https://r.example/1"}}}});
    start();
    const auto caches = world.files.cachesDirectory().value();
    ASSERT_TRUE(caches->replace("bag.plist.corrupt", "ours"));
    ASSERT_TRUE(caches->replace("session.1", "ours"));
    URLs listed;
    for (const auto& identifier : refused) listed[identifier] = identifier == "session.1" ? "" : "https://r.example/x";
    listed[std::string(128, 'x')] = "https://r.example/x";
    changeBag(listed);
    EXPECT_THAT(begun(), ElementsAre(std::string(128, 'x') + " update (none)"));
    EXPECT_EQ(file("session.1") + file("bag.plist.corrupt"), "oursours");
    EXPECT_THAT(signals(), IsEmpty());
    const auto counted = counter("resources.refused.identifier");
    for (const auto& identifier : refused)
        EXPECT_EQ(open(identifier)->errorName(), "com.kelvar.orvexd.Error.NotFound") << identifier;
    EXPECT_EQ(counter("resources.refused.identifier"), counted + std::ssize(refused));
}

TEST_F(ResourcesRoadTest, AListOfTheWrongShapeWantsNothing) {
    start();
    for (const auto* bag :
         {R"({"download_resources_list": "map", "map": "https://r.example/m"})",
          R"({"download_resources_list": [1, null, ["map"]]})", R"({"download_resources_list": ["map"], "map": 7})"}) {
        install("map", "https://r.example/map", "x");
        (void)signals();
        postBag(parseJSON(bag, 8).value().get_object());
        EXPECT_THAT(signals(), ElementsAre("DidDeleteResource map")) << bag;
    }
    EXPECT_TRUE(world.log.contains(LogLevel::error, "Orvex_DownloadManager", "download_resources_list is no array"));
    EXPECT_EQ(counter("resources.refused.identifier"), 3);
}

TEST_F(ResourcesRoadTest, LookupHintsAreFetchedEachTimeWithTheirSignatureAndGivenToTheDataDetectors) {
    start();
    const URLs bag = {{std::string(weekly), "https://r.example/w"}};
    changeBag(bag);
    EXPECT_THAT(begun(), ElementsAre("lookup_hints_weekly update (none)"));
    answer("words", 200, "https://r.example/hints/weekly/aaaa/bbbb/hints?key=1");
    EXPECT_EQ(hints("2"), std::pair(std::string("words"), std::string("aaaa-bbbb-weekly")));

    changeBag(bag);
    EXPECT_THAT(begun(), ElementsAre("lookup_hints_weekly lookup aaaa-bbbb-weekly"));
    answer("", 304);
    changeBag(bag);
    EXPECT_THAT(begun(), ElementsAre("lookup_hints_weekly lookup aaaa-bbbb-weekly"));
    answer("more", 200, "https://r.example/short/w");  // no signature in it
    EXPECT_EQ(hints("2"), std::pair(std::string("more"), std::string("(none)")));
    EXPECT_THAT(world.assembly.downloadManager()->resourceVersions(), IsEmpty());
    EXPECT_TRUE(world.log.contains(LogLevel::error, "Orvex_LookUp", "invalid lookup hints url"));

    changeBag({});
    EXPECT_EQ(hints("2"), std::pair(std::string("(none)"), std::string("(none)")));
}

TEST_F(ResourcesRoadTest, AnErasureTakesFilesAndDownloadsUntilTheNextBag) {
    start();
    const URLs bag = {{"map", "https://r.example/map"}, {std::string(weekly), "https://r.example/w"}};
    changeBag(bag);
    ASSERT_EQ(begun().size(), 2u);
    answer("one");
    answer("the other");
    changeBag(bag);
    ASSERT_EQ(begun().size(), 1u);  // the hints, on their way
    (void)signals();

    const auto erased = world.call(client, "com.kelvar.orvexd.Diagnostics", "Erase", {"resources"});
    ASSERT_TRUE(erased->arguments);
    EXPECT_EQ(*erased->arguments->at(0).as<platform::BusDictionary>()->find("resources")->as<std::uint32_t>(), 2u);
    EXPECT_THAT(signals(), UnorderedElementsAre("DidDeleteResource map", "DidDeleteResource lookup_hints_weekly"));
    EXPECT_EQ(file("map") + file(weekly) + hints("2").first, "(none)(none)(none)");
    EXPECT_THAT(session().held(), IsEmpty());
    EXPECT_EQ(world.defaults.object("download_resources"), PropertyDictionary{});
    EXPECT_EQ(counter("resources.errors"), 0);

    changeBag(bag);
    EXPECT_THAT(begun(), UnorderedElementsAre("map update (none)", "lookup_hints_weekly update (none)"));
}

TEST_F(ResourcesRoadTest, LookupHintsNeedTheBagsAndTheUsersConsent) {
    start();
    const URLs bag = {{std::string(weekly), "https://r.example/w"}};
    changeBag(bag, R"("lookup_enabled": false)");
    world.lookupDefaults.store("LookupSuggestionsDisabled", true);
    changeBag(bag);
    EXPECT_THAT(begun(), IsEmpty());
    EXPECT_TRUE(world.log.contains(LogLevel::info, "Orvex_DownloadManager",
                                   "lookup_hints_weekly is disabled, not downloading"));
    world.lookupDefaults.store("LookupSuggestionsDisabled", false);
    changeBag(bag);
    EXPECT_EQ(begun().size(), 1u);
}

TEST_F(ResourcesRoadTest, AStartTakesUpTheSavedListAndBringsTheDataDetectorsUpToDate) {
    const auto caches = world.files.cachesDirectory().value();
    ASSERT_TRUE(caches->replace("map", "the map"));
    ASSERT_TRUE(caches->replace("lookup_hints_weekly", "weekly words"));
    ASSERT_TRUE(caches->replace("lookup_hints_monthly", "monthly words"));
    const auto store = world.files.stateDirectory().value()->directory("data-detectors").value();
    ASSERT_TRUE(store->replace("3", "as they are"));
    ASSERT_TRUE(store->replace("3.signature", "c-d-monthly"));
    const auto entry = [](const char* url, const char* redirect) {
        return PropertyDictionary{{"url", url}, {"redirect_url", redirect}};
    };
    world.defaults.store(
        "download_resources",
        PropertyDictionary{
            {"map", PropertyDictionary{{"url", "https://r.example/map?version=1"}}},
            {"bad", PropertyDictionary{{"url", 7}}},
            {"worse", "x"},
            {"lookup_hints_weekly", entry("https://r.example/w", "https://r.example/h/weekly/a/b/x")},
            {"lookup_hints_monthly", entry("https://r.example/m", "https://r.example/h/monthly/c/d/x")}});
    // No bag comes: it alone would start over.
    world.serveBag(std::nullopt);
    start();
    EXPECT_THAT(world.assembly.downloadManager()->resourceVersions(),
                UnorderedElementsAre(Pair("map", "1"), Pair("lookup_hints_weekly", "a-b-weekly"),
                                     Pair("lookup_hints_monthly", "c-d-monthly")));
    EXPECT_EQ(hints("2"), std::pair(std::string("weekly words"), std::string("a-b-weekly")));
    EXPECT_EQ(hints("3").first, "as they are");
    changeBag({{"map", "https://r.example/map?version=1"}});
    EXPECT_THAT(begun(), IsEmpty());
    EXPECT_EQ(file("map"), "the map");
    EXPECT_THAT(signals(), UnorderedElementsAre("DidDeleteResource lookup_hints_weekly",
                                                "DidDeleteResource lookup_hints_monthly"));
}

TEST_F(ResourcesRoadTest, TheSignatureFollowsTheWhitelistAndTheApplications) {
    const std::string inner =
        R"({\"version\": \"0a1b2c\", \"apps\": {\"maps\": [{\"encoding_id\": 3}], \"mail\": [{\"encoding_id\": 9}]}})";
    const std::string document = R"({"compression": "RLE", "encoding": "bitmap", "apps": ")" + inner + "\"}";
    world.applications.install({{"maps", "1"}, {"mail", "2"}, {"other", "3"}});
    start();
    EXPECT_EQ(signature(), std::nullopt);
    install(std::string(whitelist), "https://r.example/w?version=1", document);
    EXPECT_EQ(signature(), "+eoP1xssAALtKoWbEEA=");
    EXPECT_TRUE(world.log.contains(LogLevel::standard, "-", "installed app signature: "));

    world.applications.install({{"maps", "1"}, {"mail", ""}});
    world.time.advance(40s);
    world.applications.install({{"maps", ""}, {"mail", ""}});  // begins the minute anew
    world.time.advance(59s);
    EXPECT_EQ(signature(), "+eoP1xssAALtKoWbEEA=");
    world.time.advance(1s);
    EXPECT_EQ(signature(), std::nullopt);
    EXPECT_FALSE(world.defaults.stored().contains("ORXAppWhitelistSignature"));
}

TEST_F(ResourcesRoadTest, AStoredSignatureIsTakenOverAndNoneIsMadeAtStart) {
    world.defaults.store("ORXAppWhitelistSignature", "STORED");
    start();
    EXPECT_FALSE(world.log.contains(LogLevel::standard, "-", "generating app whitelist"));
    EXPECT_EQ(signature(), "STORED");
}

}  // namespace
}  // namespace orvex
