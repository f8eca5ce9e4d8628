#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <chrono>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>

#include "core/constants.h"
#include "core/feedback_record.h"
#include "tools/tool/commands.h"
#include "tools/tool/status_watch.h"
#include "tools/tool/type_screen.h"

// orvex_tool: talks to the daemon over the bus, for people and for scripts.

namespace {

using orvex::tool::ExitStatus;
using orvex::tool::Options;
using orvex::tool::RequestOptions;

std::string toolUserAgent() {
    const std::string& daemon = orvex::kORXOrvexdNameVersion();
    return "orvex_tool" + daemon.substr(daemon.find('/'));
}

/// Adds the commands to `app`; the one that is used leaves what to do in `chosen`.
class CommandLine {
public:
    CommandLine() {
        _app.set_version_flag("--version", toolUserAgent());
        _app.add_option("--bus", _options.busAddress, "Connect to the bus at ADDRESS, not to the session bus")
            ->type_name("ADDRESS");
        _app.add_option("--identifier", _options.identifier, "The client identifier to call under")->type_name("ID");
        _app.add_option("--user-agent", _options.userAgent, "The user agent to call with")
            ->type_name("UA")
            ->default_val(toolUserAgent());
        _app.add_flag("--json", _options.json, "Print one JSON document");
        _app.require_subcommand(1);
        _app.fallthrough();
        _app.failure_message([](const CLI::App* app, const CLI::Error& error) {
            return std::string("orvex_tool: ") + CLI::FailureMessage::simple(app, error);
        });
        _addRequests();
        _addReads();
        _addFeedback();
        _addCompletions();
        _addDefaults();
        _addPrivacy();
    }

    int run(int argc, char** argv) {
        try {
            _app.parse(argc, argv);
        } catch (const CLI::ParseError& end) {
            const int status = _app.exit(end);
            return status == 0 ? 0 : static_cast<int>(ExitStatus::wrongUsage);
        }
        return static_cast<int>(_chosen());
    }

private:
    void _addRequests() {
        _addRequest({"search", "Search for TEXT", "search", "query_string", "TEXT"});
        _addRequest({"zkw", "Ask for suggestions before anything is typed", "zero_keyword"});
        _addRequest({"more", "Ask for more results; say which with --set query_items=...", "more_results"});
        _addRequest({"card", "Ask for the card at URL", "card", "card_url", "URL"});
        _addRequest({"lookup", "Look TEXT up", "lookup", "query_string", "TEXT"});
        _addRequest({"flight", "Ask for the flight TEXT, carrier and number", "flight", "flight_query", "TEXT"});
        _addExplain();
    }

    /// The same requests, each a subcommand of `explain`; their text may be left out.
    void _addExplain() {
        static constexpr Request kinds[] = {{"search", "A search for TEXT", "search", "query_string", "TEXT"},
                                            {"zkw", "Suggestions before anything is typed", "zero_keyword"},
                                            {"more", "More results", "more_results"},
                                            {"card", "The card at URL", "card", "card_url", "URL"},
                                            {"lookup", "A lookup of TEXT", "lookup", "query_string", "TEXT"},
                                            {"flight", "The flight TEXT", "flight", "flight_query", "TEXT"}};
        auto* explain = _app.add_subcommand("explain", "Show what a request would send, and why");
        explain->require_subcommand(1);
        for (const auto& kind : kinds) {
            auto* command = explain->add_subcommand(kind.command, kind.description);
            if (*kind.entry != '\0') command->add_option(kind.argument, _request.text, "What to ask for");
            _takeSettings(*command);
            command->callback([this, kind] {
                _request.kind = kind.kind;
                if (!_request.text.empty()) _request.entry = kind.entry;
                _chosen = [this] { return orvex::tool::explainRequest(_options, _request); };
            });
        }
    }

    void _takeSettings(CLI::App& command) {
        command.add_option("--set", _request.settings, "Set a request entry; may be repeated")
            ->type_name("ENTRY=VALUE")
            ->expected(1)
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    }

    struct Request {
        const char* command;
        const char* description;
        const char* kind;
        const char* entry = "";  ///< which the command's argument goes to; none: it takes none
        const char* argument = "";
    };
    void _addRequest(const Request& request) {
        auto* command = _app.add_subcommand(request.command, request.description);
        if (*request.entry != '\0') command->add_option(request.argument, _request.text, "What to ask for")->required();
        _takeSettings(*command);
        command->callback([this, request] {
            _request.kind = request.kind;
            _request.entry = request.entry;
            _chosen = [this] { return orvex::tool::sendRequest(_options, _request); };
        });
    }

    void _add(const char* name, const char* description, ExitStatus (*command)(const Options&)) {
        _app.add_subcommand(name, description)->callback([this, command] {
            _chosen = [this, command] { return command(_options); };
        });
    }

    void _addReads() {
        _add("type", "Search as you type, in the terminal", orvex::tool::searchAsYouType);
        _add("bag", "Show the server's configuration as the daemon has it", orvex::tool::showBag);
        _add("sessions", "List the clients that the daemon knows", orvex::tool::showSessions);
        _add("images", "Show the image map of the bag", orvex::tool::showImages);
        _addStatus();
        auto* resource = _app.add_subcommand("resource", "Show a file that the server gave to keep");
        resource->add_option("ID", _name, "Its identifier in the bag")->required();
        resource->add_option("-o,--output", _value, "Write it to FILE and show its attributes")->type_name("FILE");
        resource->callback([this] { _chosen = [this] { return orvex::tool::showResource(_options, _name, _value); }; });
        auto* counters = _app.add_subcommand("counters", "Show what happened how often");
        counters->add_flag("--prometheus", _prometheus, "In Prometheus' text format");
        counters->callback([this] {
            _chosen = [this] {
                return _prometheus ? orvex::tool::showCountersForPrometheus(_options)
                                   : orvex::tool::showCounters(_options);
            };
        });
        _add("transfers", "Show the uploads and downloads that are pending, and what they wait for",
             orvex::tool::showTransfers);
        auto* signature = _app.add_subcommand("signature", "Explain a signature of the installed applications");
        signature->add_option("TEXT", _value, "The signature, base64; by default the one that the daemon has stored");
        signature->callback([this] { _chosen = [this] { return orvex::tool::showSignature(_options, _value); }; });
        auto* activity = _app.add_subcommand("run-activity", "Run a background activity now");
        activity->add_option("NAME", _name, "Its name, for example com.kelvar.orvexd.flusher.background")->required();
        activity->callback([this] { _chosen = [this] { return orvex::tool::runActivity(_options, _name); }; });
    }

    void _addStatus() {
        auto* status = _app.add_subcommand("status", "Show what the daemon is doing");
        auto* watch = status->add_flag("--watch", _watch, "Go on until interrupted, without starting the daemon");
        status->add_option("--interval", _interval, "Look every SECONDS (2)")
            ->type_name("SECONDS")
            ->check(CLI::Range(0.1, 86400.0))
            ->needs(watch);
        status->callback([this] {
            const auto interval =
                std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(_interval));
            _chosen = [this, interval] {
                return _watch ? orvex::tool::watchStatus(_options, interval) : orvex::tool::showStatus(_options);
            };
        });
    }

    void _addFeedback() {
        auto* feedback = _app.add_subcommand("feedback", "Show the records of the open feedback session");
        feedback->add_flag("--pending", _pending, "Instead, finished sessions as they would be uploaded");
        feedback->callback([this] {
            _chosen = [this] {
                return _pending ? orvex::tool::showPendingFeedback(_options) : orvex::tool::showFeedback(_options);
            };
        });
        auto* listen = _app.add_subcommand("listen", "Show what passes through the daemon, until interrupted");
        listen->require_subcommand(1);
        listen->add_subcommand("uploads", "What is uploaded, inflated")->callback([this] {
            _chosen = [this] { return orvex::tool::listenTo(_options, orvex::tool::Listening::uploads); };
        });
        listen->add_subcommand("feedback", "Each record as it comes")->callback([this] {
            _chosen = [this] { return orvex::tool::listenTo(_options, orvex::tool::Listening::feedback); };
        });
        _add("stop-flushing", "Upload no feedback by the clock, until a dump", orvex::tool::stopFlushing);
        _add("dump", "Upload all feedback now, and show it", orvex::tool::dump);
        auto* report = _app.add_subcommand("report", "Report one feedback record");
        report->add_option("JSON", _report.payload, "A CXFeedbackPayload in protobuf's JSON form")->required();
        report->add_option("--query-id", _report.queryId, "The query that it belongs to");
        report->callback([this] { _chosen = [this] { return orvex::tool::reportFeedback(_options, _report); }; });
    }

    void _addCompletions() {
        auto* completions = _app.add_subcommand("completions", "Add and clear completions that were picked");
        completions->require_subcommand(1);
        auto* add = completions->add_subcommand("add", "Note that COMPLETION was picked for INPUT");
        add->add_option("COMPLETION", _name, "What was picked")->required();
        add->add_option("INPUT", _value, "What had been typed")->required();
        add->callback([this] { _chosen = [this] { return orvex::tool::addCompletion(_options, _name, _value); }; });
        auto* clear = completions->add_subcommand("clear", "Clear the completions of the client --identifier");
        clear->add_option("--from", _from, "Not those before D, seconds since 1970")->type_name("D");
        clear->add_option("--to", _to, "Not those after D")->type_name("D");
        clear->callback([this] { _chosen = [this] { return orvex::tool::clearCompletions(_options, _from, _to); }; });
    }

    void _addPrivacy() {
        auto* privacy = _app.add_subcommand("privacy", "Show and change what leaves the device");
        privacy->add_option("WHAT", _name, "search, feedback, location or completions");
        privacy->add_option("VALUE", _value, "on or off");
        privacy->callback([this] { _chosen = [this] { return orvex::tool::privacy(_options, _name, _value); }; });
        auto* erase = _app.add_subcommand("erase", "Remove what is stored and pending");
        erase->add_option("WHAT", _name, "completions, feedback, resources or all")->required();
        erase->callback([this] { _chosen = [this] { return orvex::tool::erase(_options, _name); }; });
    }

    void _addDefaults() {
        auto* defaults = _app.add_subcommand("defaults", "Read and change the daemon's settings");
        defaults->require_subcommand(1);
        auto* read = defaults->add_subcommand("read", "Show a stored setting, or all of them");
        read->add_option("KEY", _name, "The setting");
        read->callback([this] { _chosen = [this] { return orvex::tool::readDefaults(_options, _name); }; });
        auto* write = defaults->add_subcommand("write", "Store a setting; VALUE is JSON, else text");
        write->add_option("KEY", _name, "The setting")->required();
        write->add_option("VALUE", _value, "Its value")->required();
        write->callback([this] { _chosen = [this] { return orvex::tool::writeDefault(_options, _name, _value); }; });
        auto* remove = defaults->add_subcommand("delete", "Forget a stored setting");
        remove->add_option("KEY", _name, "The setting")->required();
        remove->callback([this] { _chosen = [this] { return orvex::tool::deleteDefault(_options, _name); }; });
    }

    CLI::App _app{"Talks to orvexd, the search daemon.", "orvex_tool"};
    Options _options;
    RequestOptions _request;
    orvex::tool::ReportOptions _report;
    bool _pending = false;
    std::string _name;
    std::string _value;
    bool _prometheus = false;
    bool _watch = false;
    double _interval = 2;
    std::optional<double> _from, _to;
    std::function<ExitStatus()> _chosen;
};

}  // namespace

int main(int argc, char** argv) {
    orvex::routeProtobufLog();
    return CommandLine().run(argc, argv);
}
