#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace orvex::platform {

enum class MeasurementSystem { metric, us, uk };

/// The user's locale and languages at one moment.
struct LocaleSettings {
    std::string identifier;                       ///< "de_DE"; "en_US_POSIX" for the C locale
    std::vector<std::string> preferredLanguages;  ///< BCP 47 without extensions, "de-DE"; never empty
    std::string calendarIdentifier;               ///< ICU's calendar type, "gregorian"
    MeasurementSystem measurementSystem = MeasurementSystem::metric;
    std::string temperatureUnit;             ///< "C" or "F"
    bool uses24HourClock = false;            ///< the best pattern for the skeleton "j" contains "HH"
    std::string timeZoneName;                ///< "Europe/Berlin"
    std::optional<std::string> countryCode;  ///< of the time zone's region, else of the locale; upper case

    bool operator==(const LocaleSettings&) const = default;
};

/// Threading: `current` from any thread; a change handler comes on a thread of the service's own.
class LocaleService {
public:
    virtual ~LocaleService() = default;
    [[nodiscard]] virtual LocaleSettings current() const = 0;

    /// Adds a handler that is called after the settings have changed. It stays for the service's life.
    virtual void addChangeHandler(std::function<void(const LocaleSettings&)> handler) = 0;
};

}  // namespace orvex::platform
