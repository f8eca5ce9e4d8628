#include "network/request_context.h"

#include <algorithm>
#include <boost/json.hpp>
#include <ranges>

#include "core/settings.h"
#include "daemon/orvex_logging.h"
#include "platform/locale.h"
#include "platform/log.h"
#include "platform/text.h"
#include "platform/user_defaults.h"

namespace orvex {
namespace {

constexpr std::size_t maxLanguages = 3;

const platform::Logger& requestLog() { return OrvexLogForCategory(OrvexLoggingCategory::request); }

std::string measurementSystemName(platform::MeasurementSystem system) {
    switch (system) {
        case platform::MeasurementSystem::metric:
            return "SI";
        case platform::MeasurementSystem::us:
            return "US";
        case platform::MeasurementSystem::uk:
            return "UK";
    }
    return {};
}

std::string encodedLanguages(const std::vector<std::string>& languages) {
    if (languages.empty()) return {};
    boost::json::array array;
    for (std::size_t index = 0; index < std::min(languages.size(), maxLanguages); ++index) {
        if (!platform::isValidUTF8(languages[index])) {
            requestLog().error("Error encoding preferred languages {}.", "not UTF-8");
            return {};
        }
        array.emplace_back(languages[index]);
    }
    return boost::json::serialize(array);
}

/// "a=1&b=2"; a part is split at every "=", and its second piece is the value.
std::vector<platform::QueryItem> debugItems(std::string_view parameters) {
    std::vector<platform::QueryItem> items;
    for (const auto range : std::views::split(parameters, '&')) {
        const std::string_view part(range.begin(), range.end());
        const auto equals = part.find('=');
        if (equals == std::string_view::npos) {
            requestLog().log("invalid query components: {}", part);
            continue;
        }
        const auto value = part.substr(equals + 1);
        items.emplace_back(part.substr(0, equals), value.substr(0, value.find('=')));
    }
    return items;
}

}  // namespace

bool RequestContext::setLocale(const platform::LocaleSettings& settings) {
    const RequestContext before = *this;
    localeIdentifier = settings.identifier;
    effectiveSystemLanguage = settings.preferredLanguages.empty() ? "" : settings.preferredLanguages.front();
    preferredLanguages = encodedLanguages(settings.preferredLanguages);
    localeCalendarIdentifier = settings.calendarIdentifier;
    localeMeasurementSystem = measurementSystemName(settings.measurementSystem);
    tempUnits = settings.temperatureUnit.substr(0, 1);
    is24hDateFormat = settings.uses24HourClock;
    geoDeviceCountryCode = settings.countryCode.value_or("");
    localTimeZoneName = before.localTimeZoneName;
    const bool changed = *this != before;
    localTimeZoneName = settings.timeZoneName;
    return changed;
}

void RequestContext::readUserDefaults(const platform::UserDefaults& userDefaults) {
    alwaysSendTophit = userDefaults.boolean(setting::alwaysOnTophit);
    const auto parameters = userDefaults.string(setting::debugParameters);
    if (!parameters) return;
    requestLog().log("processing debug parameters: ({})", *parameters);
    debuggingQueryItems = debugItems(*parameters);
}

}  // namespace orvex
