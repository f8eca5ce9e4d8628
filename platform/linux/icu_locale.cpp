#include "platform/linux/icu_locale.h"

#include <unicode/calendar.h>
#include <unicode/dtptngen.h>
#include <unicode/localebuilder.h>
#include <unicode/locid.h>
#include <unicode/numberformatter.h>
#include <unicode/timezone.h>
#include <unicode/ulocdata.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <string_view>

namespace orvex::platform {
namespace {

std::string processEnvironment(const char* variable) {
    const char* value = std::getenv(variable);
    return value ? value : "";
}

std::string utf8(const icu::UnicodeString& text) {
    std::string result;
    return text.toUTF8String(result);
}

std::string scriptOfModifier(std::string_view modifier) {
    static const std::map<std::string_view, std::string> scripts = {
        {"latin", "Latn"}, {"cyrillic", "Cyrl"}, {"devanagari", "Deva"}};
    const auto found = scripts.find(modifier);
    return found == scripts.end() ? std::string() : found->second;
}

// LANGUAGE[_TERRITORY][.CHARSET][@MODIFIER]; none for what ICU cannot read as one.
std::optional<icu::Locale> localeFromName(std::string_view name) {
    const auto base = std::string(name.substr(0, name.find_first_of(".@")));
    if (base == "C" || base == "POSIX") return icu::Locale("en", "US", "POSIX");

    const auto modifier = name.find('@');
    const auto named = icu::Locale::createCanonical(base.c_str());
    std::string script = named.getScript();
    if (modifier != std::string_view::npos && script.empty()) script = scriptOfModifier(name.substr(modifier + 1));
    UErrorCode status = U_ZERO_ERROR;
    auto locale = icu::LocaleBuilder()
                      .setLanguage(named.getLanguage())
                      .setScript(script)
                      .setRegion(named.getCountry())
                      .build(status);
    if (U_FAILURE(status) || locale.isBogus() || std::string_view(locale.getLanguage()).empty()) return {};
    return locale;
}

icu::Locale localeOf(const IcuLocale::Environment& environment) {
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const auto name = environment(variable);
        if (!name.empty()) return localeFromName(name).value_or(icu::Locale("en", "US", "POSIX"));
    }
    return icu::Locale("en", "US", "POSIX");
}

std::string languageTag(const icu::Locale& locale) {
    UErrorCode status = U_ZERO_ERROR;
    const auto plain = icu::LocaleBuilder()  // without variant and keywords
                           .setLanguage(locale.getLanguage())
                           .setScript(locale.getScript())
                           .setRegion(locale.getCountry())
                           .build(status);
    return plain.toLanguageTag<std::string>(status);
}

std::vector<std::string> preferredLanguages(std::string_view names, const icu::Locale& locale) {
    std::vector<std::string> tags;
    while (!names.empty()) {
        const auto end = std::min(names.find(':'), names.size());
        if (const auto language = localeFromName(names.substr(0, end))) {
            const auto tag = languageTag(*language);
            if (std::ranges::find(tags, tag) == tags.end()) tags.push_back(tag);
        }
        names.remove_prefix(std::min(end + 1, names.size()));
    }
    if (tags.empty()) tags.push_back(languageTag(locale));
    return tags;
}

std::string calendarOf(const icu::Locale& locale) {
    UErrorCode status = U_ZERO_ERROR;
    const std::unique_ptr<icu::Calendar> calendar(icu::Calendar::createInstance(locale, status));
    return U_SUCCESS(status) ? calendar->getType() : "gregorian";
}

MeasurementSystem measurementSystemOf(const icu::Locale& locale) {
    UErrorCode status = U_ZERO_ERROR;
    const auto system = ulocdata_getMeasurementSystem(locale.getName(), &status);
    if (U_FAILURE(status) || system == UMS_SI) return MeasurementSystem::metric;
    return system == UMS_US ? MeasurementSystem::us : MeasurementSystem::uk;
}

// The unit in which ICU would show the weather.
std::string temperatureUnitOf(const icu::Locale& locale) {
    UErrorCode status = U_ZERO_ERROR;
    const auto shown = icu::number::NumberFormatter::withLocale(locale)
                           .unit(icu::MeasureUnit::getCelsius())
                           .usage("weather")
                           .formatDouble(20, status);
    const auto unit = shown.getOutputUnit(status);
    return U_SUCCESS(status) && std::string_view(unit.getSubtype()) == "fahrenheit" ? "F" : "C";
}

bool uses24HourClock(const icu::Locale& locale) {
    UErrorCode status = U_ZERO_ERROR;
    const std::unique_ptr<icu::DateTimePatternGenerator> generator(
        icu::DateTimePatternGenerator::createInstance(locale, status));
    if (U_FAILURE(status)) return false;
    return generator->getBestPattern(u"j", status).indexOf(u"HH") >= 0;
}

bool isKnownTimeZone(const std::string& name) {
    const std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(name)));
    return !name.empty() && *zone != icu::TimeZone::getUnknown();
}

// `TZ` may also be ":NAME", a path below a zoneinfo directory, or a rule such as "CET-1CEST", which names no zone.
std::string timeZoneOf(const IcuLocale::Environment& environment) {
    auto name = environment("TZ");
    if (name.starts_with(':')) name.erase(0, 1);
    constexpr std::string_view directory = "/zoneinfo/";
    if (const auto found = name.find(directory); found != std::string::npos) name.erase(0, found + directory.size());
    if (isKnownTimeZone(name)) return name;

    const std::unique_ptr<icu::TimeZone> host(icu::TimeZone::detectHostTimeZone());
    icu::UnicodeString identifier;
    const auto hostName = utf8(host->getID(identifier));
    return isKnownTimeZone(hostName) ? hostName : "Etc/UTC";
}

bool isCountry(std::string_view region) {
    return region.size() == 2 &&
           std::ranges::all_of(region, [](char letter) { return letter >= 'A' && letter <= 'Z'; });
}

std::optional<std::string> countryOf(const std::string& timeZone, const icu::Locale& locale) {
    UErrorCode status = U_ZERO_ERROR;
    std::array<char, 8> region{};
    icu::TimeZone::getRegion(icu::UnicodeString::fromUTF8(timeZone), region.data(), region.size(), status);
    if (U_SUCCESS(status) && isCountry(region.data())) return region.data();  // "001", the world, is none
    if (isCountry(locale.getCountry())) return locale.getCountry();
    return {};
}

/// "de,us" → "de"
std::string firstLayout(const std::string& layouts) { return layouts.substr(0, layouts.find(',')); }

LocaleSettings readSettings(const IcuLocale::Environment& environment) {
    const auto locale = localeOf(environment);
    const auto timeZone = timeZoneOf(environment);
    return {.identifier = locale.getName(),
            .preferredLanguages = preferredLanguages(environment("LANGUAGE"), locale),
            .calendarIdentifier = calendarOf(locale),
            .measurementSystem = measurementSystemOf(locale),
            .temperatureUnit = temperatureUnitOf(locale),
            .uses24HourClock = uses24HourClock(locale),
            .timeZoneName = timeZone,
            .countryCode = countryOf(timeZone, locale),
            .keyboardLayout = firstLayout(environment("XKB_DEFAULT_LAYOUT"))};
}

}  // namespace

IcuLocale::IcuLocale() : IcuLocale(processEnvironment) {}

IcuLocale::IcuLocale(Environment environment)
    : LocaleService(readSettings(environment)),
      _environment(std::move(environment)) {}

void IcuLocale::refresh() { _remember(readSettings(_environment)); }

}  // namespace orvex::platform
