#pragma once

#include <memory>
#include <string>

/// What is announced within the process, on the assembly's notification centre.
namespace orvex {

class ORXBag;

/// Once, when start-up is through.
struct ORXStartupNotification {};

/// A new bag. Posted from inside the bag queue's barrier: an observer takes the bag from here and goes on elsewhere; it
/// never asks for `currentBag` and never waits on a queue.
struct ORXBagChangeNotification {
    std::shared_ptr<const ORXBag> bag;
};

/// Locale, country or another thing that the bag depends on has changed.
struct ORXBagRefreshRequiredNotification {};

/// The user GUID has rolled.
struct ORXUserGUIDChangeNotification {};

/// A feedback session has reached its soft or its greatest age.
struct ORXSessionSoftLimitNotification {};
struct ORXSessionMaxLimitNotification {};

// Where and how the user is has changed: the country, the time zone, and anything else of the locale.
struct CountryCodeDidChangeNotification {};
struct SystemTimeZoneDidChangeNotification {};
struct CurrentLocaleDidChangeNotification {};

// What the device's owner allows, and whose it is.
struct EffectiveSettingsChangedNotification {};
struct AccountStoreDidChangeNotification {};
struct AccountCredentialsDidChangeNotification {};

/// A resource was installed, or deleted. Posted from the download manager's queue: an observer goes on elsewhere before
/// it asks that manager for anything.
struct ORXFileDownloadCompletedNotification {
    std::string identifier;
    std::string url;      ///< the installed file's path
    std::string version;  ///< empty: it has none
};
struct ORXFileDeletedNotification {
    std::string identifier;
};

}  // namespace orvex
