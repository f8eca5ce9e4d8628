#include "tools/tool/commands.h"

#include <fmt/format.h>

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <chrono>
#include <optional>

#include "core/constants.h"
#include "core/json.h"
#include "tools/tool/bus_json.h"
#include "tools/tool/daemon_client.h"
#include "tools/tool/feedback_json.h"
#include "tools/tool/pages.h"
#include "tools/tool/prometheus_page.h"
#include "tools/tool/status_page.h"

namespace orvex::tool {
namespace {

namespace json = boost::json;
using platform::BusArguments;
using Answer = std::expected<BusArguments, platform::BusError>;

ExitStatus tellWrongUsage(const std::string& why) {
    fmt::print(stderr, "orvex_tool: {}\n", why);
    return ExitStatus::wrongUsage;
}

std::expected<DaemonClient, ExitStatus> connect(const Options& options) {
    auto client = DaemonClient::connect(options.busAddress);
    if (client) return *std::move(client);
    fmt::print(stderr, "orvex_tool: no bus: {}\n", client.error().text);
    return std::unexpected(ExitStatus::noDaemon);
}

void print(const json::value& document) { fmt::print("{}\n", json::serialize(document)); }

/// The error that an answer carries beside its result; exit status `refused` when there is one.
std::optional<ExitStatus> tellError(const Options& options, const platform::BusValue& error) {
    const auto& dictionary = *error.as<platform::BusDictionary>();
    if (dictionary.entries.empty()) return std::nullopt;
    const auto document = jsonFromBus(error);
    if (options.json) {
        print(json::object{{"error", document}});
    } else {
        fmt::print(stderr, "orvex_tool: {}\n", errorText(document.get_object()));
    }
    return ExitStatus::refused;
}

/// One method without arguments of an operator's interface, its only result printed.
ExitStatus show(const Options& options, std::string_view interface, const char* member,
                std::string (*page)(const json::value&)) {
    const bool ofClients = interface == kORXDaemonInterface;
    auto client = ofClients ? connectAsClient(options) : connect(options);
    if (!client) return client.error();
    const Answer answer = client->call(interface, member, "", {});
    if (!answer) return tell(answer.error());
    const auto document = jsonFromBus(answer->front());
    if (options.json) {
        print(document);
    } else {
        fmt::print("{}", page(document));
    }
    return ExitStatus::done;
}

/// One method of the clients' interface whose answer is empty.
ExitStatus tellDaemon(const Options& options, const char* member, std::string_view signature, BusArguments arguments,
                      const json::object& done) {
    auto client = connectAsClient(options);
    if (!client) return client.error();
    const Answer answer = client->call(kORXDaemonInterface, member, signature, std::move(arguments));
    if (!answer) return tell(answer.error());
    if (options.json) print(done);
    return ExitStatus::done;
}

platform::Result<platform::BusDictionary> requestDictionary(const RequestOptions& options) {
    platform::BusDictionary request;
    if (!options.entry.empty()) request.set(options.entry, options.text);
    for (const auto& setting : options.settings) {
        const auto equals = setting.find('=');
        if (equals == std::string::npos)
            return platform::failure(0, fmt::format("--set {}: expected ENTRY=VALUE", setting));
        auto value = requestEntry(setting.substr(0, equals), setting.substr(equals + 1));
        if (!value) return std::unexpected(value.error());
        request.set(setting.substr(0, equals), *std::move(value));
    }
    return request;
}

}  // namespace

ExitStatus tell(const platform::BusError& error) {
    if (meansNoDaemon(error)) {
        fmt::print(stderr, "orvex_tool: no orvexd on the bus ({})\n", error.message);
        return ExitStatus::noDaemon;
    }
    fmt::print(stderr, "orvex_tool: {} ({})\n", error.message, error.name);
    return ExitStatus::refused;
}

std::expected<DaemonClient, ExitStatus> connectAsClient(const Options& options) {
    auto client = connect(options);
    if (!client) return client;
    if (auto configured = client->configure(options.identifier, options.userAgent); !configured) {
        return std::unexpected(tell(configured.error()));
    }
    return client;
}

ExitStatus sendRequest(const Options& options, const RequestOptions& requestOptions) {
    auto request = requestDictionary(requestOptions);
    if (!request) return tellWrongUsage(request.error().text);
    auto client = connectAsClient(options);
    if (!client) return client.error();
    const auto begin = std::chrono::steady_clock::now();
    const Answer answer =
        client->call(kORXDaemonInterface, "Request", "sa{sv}", {requestOptions.kind, *std::move(request)});
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
    if (!answer) return tell(answer.error());
    if (const auto status = tellError(options, answer->at(2))) return *status;
    const auto reply = jsonFromBus(answer->at(1));
    if (options.json) {
        print(json::object{{"query_id", jsonFromBus(answer->at(0))}, {"reply", reply}, {"milliseconds", took.count()}});
    } else {
        fmt::print("{}", replyPage(reply.get_object(), took.count()));
    }
    return ExitStatus::done;
}

ExitStatus explainRequest(const Options& options, const RequestOptions& requestOptions) {
    auto request = requestDictionary(requestOptions);
    if (!request) return tellWrongUsage(request.error().text);
    auto client = connect(options);
    if (!client) return client.error();
    const Answer answer =
        client->call(kORXDiagnosticsInterface, "Explain", "sa{sv}", {requestOptions.kind, *std::move(request)});
    if (!answer) return tell(answer.error());
    const auto rows = jsonFromBus(answer->front());
    if (options.json) {
        print(rows);
    } else {
        fmt::print("{}", explainedPage(rows));
    }
    return ExitStatus::done;
}

ExitStatus showBag(const Options& options) {
    auto client = connectAsClient(options);
    if (!client) return client.error();
    const Answer answer = client->call(kORXDaemonInterface, "Bag", "", {});
    if (!answer) return tell(answer.error());
    if (const auto status = tellError(options, answer->at(1))) return *status;
    fmt::print("{}\n", bagPage(*answer->at(0).as<std::string>(), options.json));
    return ExitStatus::done;
}

ExitStatus showSessions(const Options& options) {
    return show(options, kORXDaemonInterface, "ListSessions", sessionsPage);
}
ExitStatus showImages(const Options& options) { return show(options, kORXDaemonInterface, "GetImageMap", mapPage); }
ExitStatus showStatus(const Options& options) { return show(options, kORXDiagnosticsInterface, "Status", statusPage); }
ExitStatus showTransfers(const Options& options) {
    return show(options, kORXDiagnosticsInterface, "Transfers", transfersPage);
}
ExitStatus showCounters(const Options& options) { return show(options, kORXDiagnosticsInterface, "Counters", mapPage); }

ExitStatus showCountersForPrometheus(const Options& options) {
    return show(options, kORXDiagnosticsInterface, "Counters", prometheusPage);
}

ExitStatus erase(const Options& options, const std::string& what) {
    auto client = connect(options);
    if (!client) return client.error();
    const Answer answer = client->call(kORXDiagnosticsInterface, "Erase", "s", {what});
    if (!answer) return tell(answer.error());
    const auto removed = jsonFromBus(answer->front());
    if (options.json) {
        print(removed);
        return ExitStatus::done;
    }
    for (const auto& [kind, count] : removed.as_object()) {
        fmt::print("{}: {} removed\n", std::string_view(kind), json::serialize(count));
    }
    return ExitStatus::done;
}

ExitStatus addCompletion(const Options& options, const std::string& completion, const std::string& input) {
    return tellDaemon(options, "AddCompletion", "ss", {completion, input}, {{"added", completion}});
}

ExitStatus clearCompletions(const Options& options, std::optional<double> from, std::optional<double> to) {
    constexpr double endOfTime = 1e12;  // later than any date that the daemon knows
    const double begin = from.value_or(-endOfTime), end = to.value_or(endOfTime);
    return tellDaemon(options, "ClearEngagedCompletions", "dd", {begin, end},
                      {{"cleared_from", begin}, {"cleared_to", end}});
}

ExitStatus reportFeedback(const Options& options, const ReportOptions& report) {
    auto payload = payloadFromJSON(report.payload);
    if (!payload) return tellWrongUsage(payload.error().text);
    const json::object done{{"reported", payloadTypeName(*payload)}};
    return tellDaemon(options, "ReportFeedbackPayloadData", "ayt",
                      {platform::BusBytes::of(*std::move(payload)), report.queryId}, done);
}

ExitStatus showFeedback(const Options& options) {
    auto client = connectAsClient(options);
    if (!client) return client.error();
    const Answer answer = client->call(kORXDaemonInterface, "Feedback", "s", {""});
    if (!answer) return tell(answer.error());
    if (const auto status = tellError(options, answer->at(1))) return *status;
    const auto records = recordsAsJSON(answer->at(0));
    fmt::print("{}", options.json ? compactJSON(records) + '\n' : recordsPage(records));
    return ExitStatus::done;
}

ExitStatus showPendingFeedback(const Options& options) {
    auto client = connect(options);
    if (!client) return client.error();
    const Answer answer = client->call(kORXDiagnosticsInterface, "PendingFeedback", "", {});
    if (!answer) return tell(answer.error());
    json::array sessions;
    for (const auto& text : answer->at(0).as<platform::BusArray>()->items) {
        sessions.push_back(parseJSON(*text.as<std::string>(), kReplyJSONDepth).value_or(json::value()));
    }
    if (options.json) {
        fmt::print("{}\n", compactJSON(sessions));
        return ExitStatus::done;
    }
    for (const auto& session : sessions) fmt::print("{}\n", compactJSON(session));
    return ExitStatus::done;
}

ExitStatus runActivity(const Options& options, const std::string& name) {
    auto client = connect(options);
    if (!client) return client.error();
    const Answer answer = client->call(kORXLaunchEventsInterface, "RunActivity", "s", {name});
    if (!answer) return tell(answer.error());
    if (options.json) print(json::object{{"ran", name}});
    return ExitStatus::done;
}

}  // namespace orvex::tool
