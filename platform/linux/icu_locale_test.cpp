#include "platform/linux/icu_locale.h"

#include <gtest/gtest.h>

#include <map>

namespace orvex::platform {
namespace {

using Variables = std::map<std::string, std::string>;

LocaleSettings settingsUnder(Variables variables) {
    return IcuLocale([&variables](const char* name) { return variables[name]; }).current();
}

std::string identifierUnder(Variables variables) { return settingsUnder(std::move(variables)).identifier; }

std::vector<std::string> languagesUnder(Variables variables) {
    return settingsUnder(std::move(variables)).preferredLanguages;
}

TEST(IcuLocale, TheFirstVariableThatIsSetNamesTheLocale) {
    EXPECT_EQ(identifierUnder({{"LC_ALL", "de_DE.UTF-8"}, {"LC_MESSAGES", "fr_FR"}, {"LANG", "it_IT"}}), "de_DE");
    EXPECT_EQ(identifierUnder({{"LC_MESSAGES", "fr_FR.ISO-8859-1"}, {"LANG", "it_IT"}}), "fr_FR");
    EXPECT_EQ(identifierUnder({{"LANG", "it"}}), "it");
    EXPECT_EQ(identifierUnder({}), "en_US_POSIX");
}

TEST(IcuLocale, TheCLocaleIsPosixEnglish) {
    for (const auto* name : {"C", "POSIX", "C.UTF-8", "C.utf8", "POSIX.UTF-8"}) {
        EXPECT_EQ(identifierUnder({{"LANG", name}}), "en_US_POSIX") << name;
    }
    EXPECT_EQ(languagesUnder({{"LANG", "C.UTF-8"}}), std::vector<std::string>{"en-US"});
}

TEST(IcuLocale, CharsetAndModifierGoButAScriptStays) {
    EXPECT_EQ(identifierUnder({{"LANG", "de_AT.UTF-8@euro"}}), "de_AT");
    EXPECT_EQ(identifierUnder({{"LANG", "sr_RS.UTF-8@latin"}}), "sr_Latn_RS");
    EXPECT_EQ(identifierUnder({{"LANG", "uz_UZ@cyrillic"}}), "uz_Cyrl_UZ");
    EXPECT_EQ(languagesUnder({{"LANG", "sr_RS@latin"}}), std::vector<std::string>{"sr-Latn-RS"});
}

TEST(IcuLocale, ANameThatIsNoneIsPosixEnglish) {
    for (const auto* name : {"../../etc", "_", "\x01\x02", ".UTF-8", "@latin"}) {
        EXPECT_EQ(identifierUnder({{"LANG", name}}), "en_US_POSIX") << name;
    }
    EXPECT_EQ(identifierUnder({{"LANG", std::string(10'000, 'x')}}), "en_US_POSIX");
}

TEST(IcuLocale, LanguagesAreThoseOfTheListElseTheLocales) {
    EXPECT_EQ(languagesUnder({{"LANG", "de_DE.UTF-8"}}), std::vector<std::string>{"de-DE"});
    EXPECT_EQ(languagesUnder({{"LANG", "de_DE"}, {"LANGUAGE", "fr_CH.UTF-8:fr:en_GB:fr"}}),
              (std::vector<std::string>{"fr-CH", "fr", "en-GB"}));
    EXPECT_EQ(languagesUnder({{"LANG", "de_DE"}, {"LANGUAGE", "::/:nl"}}), std::vector<std::string>{"nl"});
    EXPECT_EQ(languagesUnder({{"LANG", "de_DE"}, {"LANGUAGE", ":"}}), std::vector<std::string>{"de-DE"});
}

TEST(IcuLocale, UnitsClockAndCalendarAreTheLocales) {
    const auto german = settingsUnder({{"LANG", "de_DE.UTF-8"}});
    EXPECT_EQ(german.measurementSystem, MeasurementSystem::metric);
    EXPECT_EQ(german.temperatureUnit, "C");
    EXPECT_TRUE(german.uses24HourClock);
    EXPECT_EQ(german.calendarIdentifier, "gregorian");

    const auto american = settingsUnder({{"LANG", "en_US.UTF-8"}});
    EXPECT_EQ(american.measurementSystem, MeasurementSystem::us);
    EXPECT_EQ(american.temperatureUnit, "F");
    EXPECT_FALSE(american.uses24HourClock);

    EXPECT_EQ(settingsUnder({{"LANG", "en_GB.UTF-8"}}).measurementSystem, MeasurementSystem::uk);
    EXPECT_EQ(settingsUnder({{"LANG", "th_TH.UTF-8"}}).calendarIdentifier, "buddhist");
}

TEST(IcuLocale, TheTimeZoneIsNamedByTheEnvironment) {
    for (const auto* text : {"Europe/Berlin", ":Europe/Berlin", "/usr/share/zoneinfo/Europe/Berlin"}) {
        EXPECT_EQ(settingsUnder({{"TZ", text}}).timeZoneName, "Europe/Berlin") << text;
    }
    EXPECT_FALSE(settingsUnder({{"TZ", "Nowhere/AtAll"}}).timeZoneName.empty());
    EXPECT_NE(settingsUnder({{"TZ", "Nowhere/AtAll"}}).timeZoneName, "Nowhere/AtAll");
}

TEST(IcuLocale, TheCountryIsTheTimeZonesElseTheLocales) {
    EXPECT_EQ(settingsUnder({{"LANG", "en_US"}, {"TZ", "Europe/Berlin"}}).countryCode, "DE");
    EXPECT_EQ(settingsUnder({{"LANG", "en_US"}, {"TZ", "Etc/UTC"}}).countryCode, "US");
    EXPECT_EQ(settingsUnder({{"LANG", "de"}, {"TZ", "Etc/UTC"}}).countryCode, std::nullopt);
    EXPECT_EQ(settingsUnder({{"LANG", "es_419"}, {"TZ", "Etc/UTC"}}).countryCode, std::nullopt);
}

}  // namespace
}  // namespace orvex::platform
