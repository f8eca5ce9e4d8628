#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orvex::tool {

/// The tool's exit statuses.
enum class ExitStatus : int {
    done = 0,
    refused = 1,  ///< the daemon answered an error
    wrongUsage = 2,
    noDaemon = 3,
};

/// What every command is given.
struct Options {
    std::string busAddress;  ///< empty: the user's session bus
    std::string identifier = "orvex_tool";
    std::string userAgent;
    bool json = false;  ///< one JSON document instead of text for people
};

// Each does one command of the command line and prints its answer to standard output, or its error to standard error.

struct RequestOptions {
    std::string kind;
    std::string entry;  ///< which request entry `text` goes to; empty: none
    std::string text;
    std::vector<std::string> settings;  ///< ENTRY=VALUE
};
ExitStatus sendRequest(const Options& options, const RequestOptions& request);
/// What would be sent for it, item by item; nothing is.
ExitStatus explainRequest(const Options& options, const RequestOptions& request);

ExitStatus showBag(const Options& options);
ExitStatus showSessions(const Options& options);
ExitStatus showImages(const Options& options);
ExitStatus showStatus(const Options& options);
ExitStatus showCounters(const Options& options);
ExitStatus showCountersForPrometheus(const Options& options);
/// "completions", "feedback", "resources" or "all": what is stored and pending of it.
ExitStatus erase(const Options& options, const std::string& what);
ExitStatus showTransfers(const Options& options);
/// Of the engaged completions. Absent dates (seconds since 1970) mean from the beginning, and to the end, of time.
ExitStatus addCompletion(const Options& options, const std::string& completion, const std::string& input);
ExitStatus clearCompletions(const Options& options, std::optional<double> from, std::optional<double> to);
ExitStatus runActivity(const Options& options, const std::string& name);

/// One feedback record; `payload` is a CXFeedbackPayload in protobuf's JSON form.
struct ReportOptions {
    std::string payload;
    std::uint64_t queryId = 0;
};
ExitStatus reportFeedback(const Options& options, const ReportOptions& report);
ExitStatus showFeedback(const Options& options);         ///< the records of the open session
ExitStatus showPendingFeedback(const Options& options);  ///< what would be uploaded of each finished session

// The flusher channel. Listening goes on until the process is interrupted or the daemon leaves (`noDaemon`).
enum class Listening : std::uint8_t { uploads, feedback };
ExitStatus listenTo(const Options& options, Listening listening);
ExitStatus stopFlushing(const Options& options);
ExitStatus dump(const Options& options);  ///< shows what is uploaded, until all that waited is

ExitStatus readDefaults(const Options& options, const std::string& key);  ///< an empty key: all that are stored
ExitStatus writeDefault(const Options& options, const std::string& key, const std::string& value);
/// The settings that keep things to the device. Without `what` they are shown; with it ("search", "feedback",
/// "location", "completions") that one is switched "on" or "off".
ExitStatus privacy(const Options& options, const std::string& what, const std::string& value);
ExitStatus deleteDefault(const Options& options, const std::string& key);

/// A resource's content to `output`, or to standard output when that is empty; its attributes, as JSON or beside a
/// file that was written.
ExitStatus showResource(const Options& options, const std::string& identifier, const std::string& output);

/// Explains a signature of installed applications; an empty text: the one that the daemon has stored.
ExitStatus showSignature(const Options& options, const std::string& text);

}  // namespace orvex::tool
