#pragma once

#include "platform/locale.h"

namespace orvex::platform {

/// A locale that the test sets: at first a German one in Berlin.
class FakeLocale : public LocaleService {
public:
    FakeLocale()
        : LocaleService({.identifier = "de_DE",
                         .preferredLanguages = {"de-DE", "en-GB"},
                         .calendarIdentifier = "gregorian",
                         .measurementSystem = MeasurementSystem::metric,
                         .temperatureUnit = "C",
                         .uses24HourClock = true,
                         .timeZoneName = "Europe/Berlin",
                         .countryCode = "DE"}) {}

    /// Calls the change handlers on this thread, if anything differs.
    void set(const LocaleSettings& settings) { _remember(settings); }
};

}  // namespace orvex::platform
