#include "platform/log_events.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

namespace orvex::platform {
namespace {

std::string document() {
    std::ifstream file(ORVEX_SOURCE_DIR "/docs/messages.md");
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

/// How the document begins to explain an event.
std::string sectionOf(const LogEventDescription& event) {
    std::string fields;
    for (const char letter : std::string(event.fields)) fields += letter == ' ' ? "`, `" : std::string(1, letter);
    if (!fields.empty()) fields = " with `" + fields + "`";
    std::string section = "\n\n## ";
    section.append(event.name).append("\n\n`").append(event.id).append("`").append(fields);
    return section.append("\n\n").append(event.meaning).append("\n\n");
}

TEST(LogEvents, TheDocumentExplainsEachAndNothingElse) {
    const auto text = document();
    std::size_t at = 0;
    for (const auto& event : logEvents()) {
        const auto found = text.find(sectionOf(event), at);
        ASSERT_NE(found, text.npos) << "not explained in docs/messages.md, or not in this order:" << sectionOf(event);
        at = found + sectionOf(event).size();
        EXPECT_NE(text.find_first_not_of("\n#", at), text.npos) << event.name;
    }
    std::size_t sections = 0;
    for (at = text.find("\n## "); at != text.npos; at = text.find("\n## ", at + 1)) ++sections;
    EXPECT_EQ(sections, logEvents().size());
}

TEST(LogEvents, IdentitiesAreDistinctAndTheirFieldsOurOwn) {
    std::set<std::string_view> ids;
    std::set<std::string_view> names;
    for (const auto& event : logEvents()) {
        EXPECT_TRUE(ids.insert(event.id).second) << event.name;
        EXPECT_TRUE(names.insert(event.name).second) << event.name;
        EXPECT_THAT(std::string(event.id), testing::MatchesRegex("[0-9a-f]{32}"));
        EXPECT_THAT(std::string(event.fields), testing::MatchesRegex("(ORVEX_[A-Z_]+( ORVEX_[A-Z_]+)*)?"));
        EXPECT_FALSE(hasField(event.event, "ORVEX_EVENT")) << "every event has this one";
    }
    EXPECT_TRUE(hasField(LogEvent::writeFailed, "ORVEX_FILE"));
    EXPECT_TRUE(hasField(LogEvent::writeFailed, "ORVEX_REASON"));
    EXPECT_FALSE(hasField(LogEvent::writeFailed, "ORVEX"));
    EXPECT_FALSE(hasField(LogEvent::idleExit, "ORVEX_FILE"));
}

}  // namespace
}  // namespace orvex::platform
