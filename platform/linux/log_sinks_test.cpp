#include "platform/linux/log_sinks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>

#include "platform/log_events.h"

namespace orvex::platform {
namespace {

using testing::ElementsAre;
using testing::MatchesRegex;

constexpr const char* timeRegex = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z";

/// A stream whose lines the test reads back.
class CapturedStream {
public:
    ~CapturedStream() { std::fclose(_file); }
    LogSinkOptions options() const { return {.stream = _file, .journalSocket = "/nonexistent/socket"}; }
    std::vector<std::string> lines() const {
        std::vector<std::string> result;
        std::rewind(_file);
        std::string line;
        for (int character = std::fgetc(_file); character != EOF; character = std::fgetc(_file)) {
            if (character == '\n') {
                result.push_back(std::exchange(line, {}));
            } else {
                line += static_cast<char>(character);
            }
        }
        if (!line.empty()) result.push_back(line + "(no line end)");
        return result;
    }

private:
    std::FILE* _file = std::tmpfile();
};

std::shared_ptr<LogSink> sink(std::string_view format, const CapturedStream& stream) {
    return makeLogSink(format, stream.options()).value();
}

LogRecord record(LogLevel level, std::string_view message) {
    return {.level = level, .subsystem = "com.kelvar.orvexd", .category = "Orvex_Bag", .message = message};
}

TEST(LogSinks, AConsoleLineIsTimeLevelCategoryMessage) {
    const CapturedStream stream;
    const auto console = sink("console", stream);
    console->write(record(LogLevel::debug, "fetching"));
    console->write(record(LogLevel::standard, "fetched 100%v {}"));
    const std::string time = timeRegex;
    EXPECT_THAT(stream.lines(), ElementsAre(MatchesRegex(time + " debug Orvex_Bag fetching"),
                                            MatchesRegex(time + " default Orvex_Bag fetched 100%v \\{\\}")));
}

TEST(LogSinks, AJSONLineIsOneObject) {
    const CapturedStream stream;
    sink("json", stream)->write(record(LogLevel::fault, R"(it said "é\" \x0A)"));
    ASSERT_EQ(stream.lines().size(), 1u);
    const auto line = boost::json::parse(stream.lines()[0]);
    EXPECT_THAT(line.at("time").as_string().c_str(), MatchesRegex(timeRegex));
    EXPECT_EQ(line.at("level").as_string(), "fault");
    EXPECT_EQ(line.at("subsystem").as_string(), "com.kelvar.orvexd");
    EXPECT_EQ(line.at("category").as_string(), "Orvex_Bag");
    EXPECT_EQ(line.at("message").as_string(), R"(it said "é\" \x0A)");
}

TEST(LogSinks, AnEventHasItsIdentityAndFieldsInJSONAndInTheJournal) {
    const auto& event = describe(LogEvent::writeFailed);
    const std::vector<LogField> fields = {{"ORVEX_FILE", "/a"}, {"ORVEX_REASON", "full"}};
    auto written = record(LogLevel::error, "lost");
    written.event = event.event;
    written.fields = fields;
    EXPECT_THAT(
        journalFields(written),
        testing::IsSupersetOf({std::string("MESSAGE_ID=").append(event.id), std::string("ORVEX_EVENT=write-failed"),
                               std::string("ORVEX_FILE=/a"), std::string("ORVEX_REASON=full")}));
    const CapturedStream stream;
    sink("json", stream)->write(written);
    const auto line = boost::json::parse(stream.lines().at(0));
    EXPECT_EQ(line.at("event").as_string(), "write-failed");
    EXPECT_EQ(line.at("message_id").as_string(), event.id);
    EXPECT_EQ(line.at("ORVEX_REASON").as_string(), "full");
}

TEST(LogSinks, WithoutAJournalTheConsoleIsUsedAndSaysSo) {
    const CapturedStream stream;
    sink("journal", stream)->write(record(LogLevel::error, "lost"));
    const std::string time = timeRegex;
    EXPECT_THAT(stream.lines(), ElementsAre(MatchesRegex(time + " default - there is no journal .*"),
                                            MatchesRegex(time + " error Orvex_Bag lost")));
}

TEST(LogSinks, AJournalEntryHasOurFields) {
    EXPECT_THAT(journalFields(record(LogLevel::error, "lost")),
                ElementsAre("MESSAGE=lost", "PRIORITY=3", "SUBSYSTEM=com.kelvar.orvexd", "CATEGORY=Orvex_Bag"));
    const auto priority = [](LogLevel level) { return journalFields(record(level, ""))[1]; };
    EXPECT_EQ(priority(LogLevel::debug), "PRIORITY=7");
    EXPECT_EQ(priority(LogLevel::info), "PRIORITY=6");
    EXPECT_EQ(priority(LogLevel::standard), "PRIORITY=5");
    EXPECT_EQ(priority(LogLevel::fault), "PRIORITY=2");
}

TEST(LogSinks, AStreamThatTakesNothingLosesTheLineAndNothingElse) {
    std::FILE* full = std::fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    const auto console = makeLogSink("console", {.stream = full}).value();
    console->write(record(LogLevel::error, "lost"));
    console->flush();
    EXPECT_TRUE(std::ferror(full));
    std::fclose(full);
}

}  // namespace
}  // namespace orvex::platform
