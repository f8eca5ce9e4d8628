#include "daemon/bus_interfaces.h"

#include "core/constants.h"

namespace orvex {
namespace {

platform::BusInterface daemonInterface() {
    return {
        .name = std::string(kORXDaemonInterface),
        .methods =
            {
                {"Configure", "a{sv}", {"configuration"}, "", {}},
                {"Bag", "", {}, "sa{sv}", {"bag", "error"}},
                {"Request", "sa{sv}", {"kind", "request"}, "ta{sv}a{sv}", {"query_id", "reply", "error"}},
                {"ReportFeedbackPayloadData", "ayt", {"payload", "query_id"}, "", {}},
                {"Feedback", "s", {"unused"}, "aaya{sv}", {"records", "error"}},
                {"ListenToFlusher", "", {}, "o", {"endpoint"}},
                {"ListSessions", "", {}, "aa{ss}", {"sessions"}},
                {"FileHandleAndAttributesForResource", "s", {"identifier"}, "ha{sv}", {"file", "attributes"}},
                {"ClearEngagedCompletions", "dd", {"from_date", "to_date"}, "", {}},
                {"AddCompletion", "ss", {"completion", "input"}, "", {}},
                {"UpdateParameters",
                 "ddddddd",
                 {"brovia_last_1hour", "brovia_last_1day", "brovia_last_1week", "brovia_last_1month", "brovia_all",
                  "brovia_most_recent", "min_threshold_to_send"},
                 "",
                 {}},
                {"GetImageMap", "", {}, "a{sv}", {"images"}},
            },
        .signals =
            {
                {"BagDidLoad", "sa{sv}", {"bag", "error"}, "", {}},
                {"DidDownloadResource", "s", {"identifier"}, "", {}},
                {"DidDeleteResource", "s", {"identifier"}, "", {}},
            },
    };
}

platform::BusInterface launchEventsInterface() {
    return {
        .name = std::string(kORXLaunchEventsInterface),
        .methods =
            {
                {"RunActivity", "s", {"name"}, "", {}},
                {"NotificationMatched", "s", {"name"}, "", {}},
                {"SessionEvents", "s", {"session_identifier"}, "", {}},
            },
        .signals = {},
    };
}

platform::BusInterface diagnosticsInterface() {
    return {
        .name = std::string(kORXDiagnosticsInterface),
        .methods =
            {
                {"Counters", "", {}, "a{sx}", {"counters"}},
                {"Status", "", {}, "a{sv}", {"status"}},
                {"Explain", "sa{sv}", {"kind", "request"}, "aa{sv}", {"rows"}},
                {"Transfers", "", {}, "aa{sv}", {"transfers"}},
                {"PendingFeedback", "", {}, "as", {"sessions"}},
                {"Erase", "s", {"what"}, "a{su}", {"removed"}},
            },
        .signals = {},
    };
}

}  // namespace

std::vector<platform::BusInterface> orvexdInterfaces() {
    return {daemonInterface(), launchEventsInterface(), diagnosticsInterface()};
}

}  // namespace orvex
