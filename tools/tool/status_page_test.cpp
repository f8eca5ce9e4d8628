#include "tools/tool/status_page.h"

#include <gmock/gmock.h>

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <regex>
#include <set>

#include "core/counter_vocabulary.h"
#include "core/json.h"
#include "tools/tool/prometheus_page.h"

namespace orvex::tool {
namespace {

namespace json = boost::json;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr double now = 1'700'000'000;

json::object parsed(std::string_view text) { return parseJSON(text, kReplyJSONDepth)->as_object(); }

json::object busyStatus() {
    return parsed(R"({
        "version": "1.2", "uptime_seconds": 200.5, "connections": 2, "calls_in_flight": 1,
        "transactions": ["addFeedback", "client connection", "client connection", "of its own"],
        "activities": [{"name": "com.kelvar.orvexd.dp.flush", "under_way": false, "due": 1699999999.0},
                       {"name": "com.kelvar.orvexd.flusher.background", "under_way": false, "due": 1700010000.0}],
        "switched_off": ["ORXFeedbackDisabled", "ORXLocationDisabled"],
        "bag_version": "7", "bag_fetched": 1699999280.0, "bag_expires": 1700013680.0,
        "bag_enabled": true, "feedback_enabled": false,
        "session_state": 1, "sessions_open": 1, "records_open": 14, "sessions_waiting": 3,
        "sessions_waiting_bytes": 12700, "uploads_pending": 2, "downloads_pending": 1, "transfers_bytes": 1258291,
        "next_transfer": 1700000040.0, "next_transfer_why": "status 503",
        "query_cache_entries": 12, "query_cache_cost": 44100, "engaged_completions": 120,
        "engaged_completions_bytes": 98304, "resources": 1, "resources_bytes": 512,
        "counters_changed": {"com.kelvar.orvexd.brovia.localCompletionIndex.size": 98304,
            "com.kelvar.orvexd.feedbackdropped.filefull": 3, "com.kelvar.orvexd.lumisk.keystrokes": 12,
            "com.kelvar.orvexd.of\nits own": 1, "com.kelvar.orvexd.search": 9}})");
}

TEST(StatusPage, TellsWhatIsDoneWhatIsKeptAndWhyThingsWereDropped) {
    const auto before = parsed(R"({"uptime_seconds": 190, "counters_changed": {"com.kelvar.orvexd.search": 7,
                                   "com.kelvar.orvexd.lumisk.keystrokes": 12}})");
    EXPECT_EQ(statusPage(busyStatus(), {.now = now, .before = &before}),
              R"(orvexd 1.2 is running, up 3 min

clients       2 connections, 1 call under way
busy with     of its own, serving clients (2), taking records
by the clock  upload of reports: due, waits for a network or for mains
              upload of sessions: next in 2 h 46 min
bag           version 7, 12 min old, good for 3 h 48 min
              the server asks for no feedback
switched off  by ORXFeedbackDisabled, ORXLocationDisabled
sessions      1 open with 14 records, past the soft limit; 3 wait for upload, 12.4 KiB
transfers     2 uploads, 1 download, 1.2 MiB; next in 40 s: status 503
queries       12 answers kept, cost 44100
completions   120 stored, 96.0 KiB
resources     1 file, 512 bytes

since the start
       12         searches asked for (lumisk)
        1     +1  com.kelvar.orvexd.of\x0Aits own
        9     +2  searches sent to the server

dropped since the start
        3     +3  records dropped: the session's file is full
)");
    const auto earlierRun = parsed(R"({"uptime_seconds": 900, "counters_changed": {"com.kelvar.orvexd.search": 7}})");
    EXPECT_THAT(statusPage(busyStatus(), {.now = now, .before = &earlierRun}), Not(HasSubstr("+")));
}

TEST(StatusPage, OfADaemonThatHasNothingYetAndSaysLittle) {
    EXPECT_EQ(statusPage(parsed(R"({"version": "1.2"})"), {.now = now}),
              R"(orvexd 1.2 is running, up 0 s

clients       0 connections, 0 calls under way
busy with     nothing; it may leave when it has been idle
bag           none yet: the server's configuration has not come
sessions      none is open; none waits for upload
transfers     none is pending
queries       0 answers kept, cost 0
completions   0 stored, 0 bytes
resources     0 files, 0 bytes

nothing was dropped since the start
)");
}

/// What the format asks of a page (text format 0.0.4): one HELP and one TYPE before a metric's samples, which stand
/// together, legal names, escaped label values, and no sample twice.
void expectWellFormed(const std::string& page) {
    static const std::regex help("# HELP ([a-zA-Z_:][a-zA-Z0-9_:]*) [^\n]+");
    static const std::regex type("# TYPE ([a-zA-Z_:][a-zA-Z0-9_:]*) (counter|gauge)");
    static const std::string labelPattern = R"re([a-zA-Z_][a-zA-Z0-9_]*="([^"\\\n]|\\[\\"n])*")re";
    static const std::regex sample("([a-zA-Z_:][a-zA-Z0-9_:]*)(\\{" + labelPattern + "(," + labelPattern +
                                   ")*\\})? -?[0-9]+");
    std::set<std::string> metrics, samples;
    std::string helped, typed;
    ASSERT_TRUE(page.ends_with('\n'));
    for (std::size_t begin = 0; begin < page.size();) {
        const auto end = page.find('\n', begin);
        const std::string text = page.substr(begin, end - begin);
        begin = end + 1;
        std::smatch found;
        if (std::regex_match(text, found, help)) {
            helped = found[1];
            EXPECT_TRUE(metrics.insert(helped).second) << text;
        } else if (std::regex_match(text, found, type)) {
            typed = found[1];
            EXPECT_EQ(typed, helped);
            EXPECT_EQ(found[2] == "counter", typed.ends_with("_total")) << text;
        } else {
            ASSERT_TRUE(std::regex_match(text, found, sample)) << text;
            EXPECT_EQ(found[1], typed);
            EXPECT_TRUE(samples.insert(text.substr(0, text.rfind(' '))).second) << text;
        }
    }
}

TEST(PrometheusPage, IsWellFormedWhateverIsCounted) {
    json::object counters{{"com.kelvar.orvexd.a.b", 1},
                          {"com.kelvar.orvexd.a_b", 2},
                          {"", 3},
                          {"com.kelvar.orvexd.line\nend", 4},
                          {"caf\xc3\xa9 {\"}\\", -5},
                          {"activity.ended", 6},
                          {"com.kelvar.orvexd.Lumisk/1 \"x\\.fedapicall.serverstatus200", 7},
                          {"com.kelvar.orvexd.search", std::int64_t{9'007'199'254'740'993}}};
    for (const auto& meaning : counterMeanings()) {
        std::string name(meaning.pattern);
        for (auto star = name.find('*'); star != name.npos; star = name.find('*')) name.replace(star, 1, "x");
        counters.emplace(std::string(counterPrefix) + name, 1);
    }
    const auto page = prometheusPage(counters);
    expectWellFormed(page);
    for (const char* line : {
             "# HELP orvexd_search_total searches sent to the server\n# TYPE orvexd_search_total counter\n"
             "orvexd_search_total 9007199254740993\n",
             "orvexd_keystrokes_total{client=\"x\"} 1\n",
             R"(orvexd_fedapicall_serverstatus_total{client="Lumisk/1 \"x\\",status="200"} 7)",
             "# TYPE orvexd_brovia_localCompletionIndex_entries gauge\n",
             R"(orvexd_counter_total{name="com.kelvar.orvexd.line\nend"} 4)",
         }) {
        EXPECT_THAT(page, HasSubstr(line));
    }
}

}  // namespace
}  // namespace orvex::tool
