#include "core/settings.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <string>

namespace orvex {
namespace {

const std::filesystem::path sources = ORVEX_SOURCE_DIR;

/// What stands in brackets behind a key in the manual: "boolean, false".
std::string described(const Setting& setting) {
    switch (setting.kind) {
        case SettingKind::boolean:
            return setting.registered != 0 ? "boolean, true" : "boolean, false";
        case SettingKind::integer:
            return "integer, " + std::to_string(setting.registered);
        case SettingKind::number:
            return "number";
        case SettingKind::text:
            return "text";
        case SettingKind::kept:
            return "kept";
    }
    return {};
}

/// The keys of the manual page's lists, each with its brackets: `.It Li KEY , KEY Pq TYPE, VALUE , Li KEY Pq …`.
std::map<std::string, std::string> settingsOfTheManual() {
    std::map<std::string, std::string> found;
    std::ifstream page(sources / "packaging/man/orvexd-defaults.5");
    const std::regex group("Li ([A-Za-z_ ,]+?)(?: Ns Ar [a-z]+)? Pq ([a-z]+(?:, [a-z0-9]+)?)");
    const std::regex key("[A-Za-z_]+");
    for (std::string line; std::getline(page, line);) {
        if (!line.starts_with(".It Li ")) continue;
        for (std::sregex_iterator each(line.begin(), line.end(), group), end; each != end; ++each) {
            const auto keys = (*each)[1].str();
            for (std::sregex_iterator one(keys.begin(), keys.end(), key); one != end; ++one)
                found.emplace(one->str(), (*each)[2].str());
        }
    }
    return found;
}

TEST(Settings, TheManualHasEachWithItsTypeAndRegisteredValueAndNoOther) {
    std::map<std::string, std::string> expected;
    for (const auto& setting : settings()) expected.emplace(setting.key, described(setting));
    EXPECT_EQ(expected.size(), settings().size()) << "a key stands twice in the table";
    EXPECT_EQ(settingsOfTheManual(), expected);
}

// So that no key can be read that is not in the table.
TEST(Settings, NoSourceSpellsAKeyButTheTable) {
    const std::regex spelt(R"("ORX[A-Z][A-Za-z]+")");
    for (const auto* folder : {"daemon", "feedback", "network", "query", "resources", "tools"}) {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(sources / folder)) {
            const auto name = entry.path().filename().string();
            if (!name.ends_with(".cpp") || name.ends_with("_test.cpp")) continue;
            std::ifstream file(entry.path());
            for (std::string line; std::getline(file, line);)
                EXPECT_FALSE(std::regex_search(line, spelt)) << entry.path() << ": " << line;
        }
    }
}

}  // namespace
}  // namespace orvex
