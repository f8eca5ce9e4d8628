#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "network/silhouette_topics.h"
#include "platform/url.h"

namespace orvex::platform {
struct LocaleSettings;
class UserDefaults;
}  // namespace orvex::platform

namespace orvex {

/// What the device is like, in the form in which requests tell it. A plain value, kept by the request factory on its
/// context queue. An empty text is not sent.
struct RequestContext {
    std::string localeIdentifier;          ///< "de_DE"
    std::string effectiveSystemLanguage;   ///< "de-DE"
    std::string preferredLanguages;        ///< JSON array of the first three
    std::string localeCalendarIdentifier;  ///< "gregorian"
    std::string localeMeasurementSystem;   ///< "SI", "US" or "UK"
    std::string tempUnits;                 ///< "C" or "F"
    bool is24hDateFormat = false;
    std::string localTimeZoneName;     ///< "Europe/Berlin"
    std::string geoDeviceCountryCode;  ///< "DE"; also chooses the bag endpoint

    std::string geoLocationLatLng;        ///< "52.520000,13.405000"
    std::string geoLocationSource;        ///< "wifi,40.000000"; without a location why there is none, "userno"
    std::string lookupGeoLocationLatLng;  ///< in whole degrees until a search was made
    std::optional<std::int32_t> routineMode;
    std::int32_t transportationMode = 1;  ///< 1 unknown, stationary, walking, running, cycling, 6 automotive
    std::string subscriptionInfo;         ///< JSON array
    std::string storeFrontIdentifier;
    bool isManagedAccount = false;
    bool deviceRestricted = false;
    std::string installedDictionaries;  ///< language codes, "de,en"
    SilhouetteTopics silhouetteTopics;

    bool alwaysSendTophit = false;
    std::vector<platform::QueryItem> debuggingQueryItems;  ///< forced into every request that takes them

    /// Takes over what locale, languages, time zone and country say. Returns whether something changed that a bag
    /// depends on: anything but the time zone.
    bool setLocale(const platform::LocaleSettings& settings);

    /// What is read from the user defaults once, at start-up.
    void readUserDefaults(const platform::UserDefaults& userDefaults);

    bool operator==(const RequestContext&) const = default;
};

}  // namespace orvex
