#include <gtest/gtest.h>

#include <map>

#include "platform/fakes/fake_locale.h"
#include "platform/linux/icu_locale.h"

// What any locale service does, the fake and the real one.

namespace orvex::platform {
namespace {

class FakeLocaleUnderTest {
public:
    LocaleService& service() { return _locale; }
    void moveTo(const std::string& language, const std::string& country) {
        auto settings = _locale.current();
        settings.identifier = language + "_" + country;
        settings.preferredLanguages = {language + "-" + country};
        _locale.set(settings);
    }

private:
    FakeLocale _locale;
};

class IcuLocaleUnderTest {
public:
    LocaleService& service() { return _locale; }
    void moveTo(const std::string& language, const std::string& country) {
        _variables["LANG"] = language + "_" + country + ".UTF-8";
        _locale.refresh();
    }

private:
    std::map<std::string, std::string> _variables = {{"LANG", "de_DE.UTF-8"}, {"TZ", "Europe/Berlin"}};
    IcuLocale _locale{[this](const char* name) { return _variables[name]; }};
};

template <class UnderTest>
class LocaleContract : public testing::Test {
protected:
    UnderTest underTest;
    LocaleService& locale = underTest.service();
};

using Implementations = testing::Types<FakeLocaleUnderTest, IcuLocaleUnderTest>;
TYPED_TEST_SUITE(LocaleContract, Implementations);

TYPED_TEST(LocaleContract, TheSettingsAreComplete) {
    const auto settings = this->locale.current();
    EXPECT_EQ(settings.identifier, "de_DE");
    ASSERT_FALSE(settings.preferredLanguages.empty());
    EXPECT_EQ(settings.preferredLanguages[0], "de-DE");
    EXPECT_EQ(settings.calendarIdentifier, "gregorian");
    EXPECT_EQ(settings.measurementSystem, MeasurementSystem::metric);
    EXPECT_EQ(settings.temperatureUnit, "C");
    EXPECT_TRUE(settings.uses24HourClock);
    EXPECT_EQ(settings.timeZoneName, "Europe/Berlin");
    EXPECT_EQ(settings.countryCode, "DE");
}

TYPED_TEST(LocaleContract, AChangeIsToldToEveryHandlerOnce) {
    std::vector<std::string> told;
    this->locale.addChangeHandler([&](const LocaleSettings& settings) { told.push_back("a " + settings.identifier); });
    this->locale.addChangeHandler(
        [&](const LocaleSettings&) { told.push_back("b " + this->locale.current().identifier); });
    this->underTest.moveTo("fr", "FR");
    EXPECT_EQ(told, (std::vector<std::string>{"a fr_FR", "b fr_FR"}));
    this->underTest.moveTo("fr", "FR");  // no change
    EXPECT_EQ(told.size(), 2u);
    EXPECT_EQ(this->locale.current().preferredLanguages, std::vector<std::string>{"fr-FR"});
}

}  // namespace
}  // namespace orvex::platform
