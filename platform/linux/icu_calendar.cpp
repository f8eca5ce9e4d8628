#include <unicode/calendar.h>
#include <unicode/timezone.h>

#include <array>
#include <memory>

#include "platform/calendar.h"

namespace orvex::platform {
namespace {

using Day = std::array<std::int32_t, 3>;

Day dayOf(WallTime time, icu::Calendar& calendar, UErrorCode& status) {
    calendar.setTime(secondsSince1970(time) * 1000, status);
    return {calendar.get(UCAL_ERA, status), calendar.get(UCAL_YEAR, status), calendar.get(UCAL_DAY_OF_YEAR, status)};
}

}  // namespace

bool isSameDay(WallTime a, WallTime b, const LocaleSettings& locale) {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale named(locale.identifier.c_str());
    named.setKeywordValue("calendar", locale.calendarIdentifier.c_str(), status);
    const std::unique_ptr<icu::Calendar> calendar(icu::Calendar::createInstance(
        icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(locale.timeZoneName)), named, status));
    if (U_FAILURE(status)) return false;
    const bool same = dayOf(a, *calendar, status) == dayOf(b, *calendar, status);
    return U_SUCCESS(status) && same;
}

}  // namespace orvex::platform
