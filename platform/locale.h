#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/thread_annotations.h"

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
    std::string keyboardLayout;              ///< XKB's name of the first one, "de"; empty when it is not known

    bool operator==(const LocaleSettings&) const = default;
};

/// The settings as last read or told, remembered: reading them is slow.
///
/// Threading: callable from any thread. A change handler comes on the thread that noticed the change, without a lock.
class LocaleService {
public:
    virtual ~LocaleService() = default;
    LocaleService(const LocaleService&) = delete;
    LocaleService& operator=(const LocaleService&) = delete;

    [[nodiscard]] LocaleSettings current() const;

    /// Adds a handler that is called after the settings have changed. It stays for the service's life.
    void addChangeHandler(std::function<void(const LocaleSettings&)> handler);

protected:
    explicit LocaleService(LocaleSettings settings) : _settings(std::move(settings)) {}

    /// Calls the handlers, in the order that they were added, if `settings` differ from what was remembered.
    void _remember(const LocaleSettings& settings);

private:
    using ChangeHandler = std::function<void(const LocaleSettings&)>;

    mutable Mutex _mutex;
    LocaleSettings _settings ORX_GUARDED_BY(_mutex);
    std::vector<ChangeHandler> _changeHandlers ORX_GUARDED_BY(_mutex);
};

}  // namespace orvex::platform
