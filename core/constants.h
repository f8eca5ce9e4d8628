#pragma once

#include <string>
#include <string_view>

/// Names and numbers that clients, the server and the daemon agree on.
namespace orvex {

inline constexpr std::string_view kORXBusName = "com.kelvar.orvexd";
inline constexpr std::string_view kORXObjectPath = "/com/kelvar/orvexd";
inline constexpr std::string_view kORXDaemonInterface = "com.kelvar.orvexd.Daemon";
inline constexpr std::string_view kORXLaunchEventsInterface = "com.kelvar.orvexd.LaunchEvents";
inline constexpr std::string_view kORXDiagnosticsInterface = "com.kelvar.orvexd.Diagnostics";
inline constexpr std::string_view kORXFlusherPath = "/com/kelvar/orvexd/flusher";
inline constexpr std::string_view kORXFlusherInterface = "com.kelvar.orvexd.Flusher";

/// The bus error of what went wrong within the daemon; its message is the reason.
inline constexpr std::string_view kORXInternalError = "com.kelvar.orvexd.Error.Internal";

/// System-wide notify names are signals of this interface and path.
inline constexpr std::string_view kORXNotifyInterface = "com.kelvar.notifyd";
inline constexpr std::string_view kORXNotifyPath = "/com/kelvar/notifyd";
inline constexpr std::string_view kORXNotifySignal = "Notify";
inline constexpr std::string_view kORXNotifyEnabled = "com.kelvar.orvex.enabled";
inline constexpr std::string_view kORXNotifyDisabled = "com.kelvar.orvex.disabled";

/// "orvexd/" and the project's version.
const std::string& kORXOrvexdNameVersion();

/// The built-in bag endpoints' hosts, chosen when the daemon is built.
std::string_view orvexBagHost();
std::string_view orvexBagHostChina();

// Resources that the bag lists and the daemon itself uses.
inline constexpr std::string_view kORXInstalledAppWhitelist = "installed_app_whitelist";
inline constexpr std::string_view kORXLookupHintsWeekly = "lookup_hints_weekly";
inline constexpr std::string_view kORXLookupHintsMonthly = "lookup_hints_monthly";

/// What a custom-feedback report of this type is filed under; empty for a type that is none of `customFeedbackTypes`.
std::string_view customFeedbackDirectoryName(int type);
inline constexpr int customFeedbackTypes[] = {1, 3, 4, 5, 6, 7};

}  // namespace orvex
