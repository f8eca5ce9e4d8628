#include "tools/tool/commands.h"

#include <fmt/format.h>

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <chrono>
#include <map>
#include <optional>
#include <vector>

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

ExitStatus tellWrongUsage(const std::string& why) {
    fmt::print(stderr, "orvex_tool: {}\n", why);
    return ExitStatus::wrongUsage;
}

void print(const json::value& document) { fmt::print("{}\n", json::serialize(document)); }

using Page = std::string(const json::value&);

ExitStatus show(const Options& options, const json::value& document, Page* page) {
    if (options.json) {
        print(document);
    } else {
        fmt::print("{}", page(document));
    }
    return ExitStatus::done;
}

/// What a page can show: the only result of an answer, of that kind.
std::expected<json::value, client::Error> documentIn(const std::expected<client::List, client::Error>& answer,
                                                     json::kind kind) {
    if (!answer) return std::unexpected(answer.error());
    auto document = answer->size() == 1 ? jsonFromValue(answer->front()) : json::value();
    if (document.kind() == kind) return document;
    return std::unexpected(client::Error{.kind = client::Error::Kind::malformed, .reason = "a malformed answer"});
}

/// One method of an operator's interface.
ExitStatus operate(const Options& options, const char* member, const client::List& arguments, json::kind kind,
                   Page* page) {
    auto client = connect(options);
    if (!client) return client.error();
    const auto document = documentIn(call(*client, kORXDiagnosticsInterface, member, arguments), kind);
    return document ? show(options, *document, page) : tell(options, document.error());
}

/// One method of the clients' interface whose answer is empty.
template <class Start>
ExitStatus tellDaemon(const Options& options, const json::object& done, Start start) {
    auto client = connectAsClient(options);
    if (!client) return client.error();
    const auto answer = resultOf<void>(*client, [&](auto callback) { start(*client, std::move(callback)); });
    if (!answer) return tell(options, answer.error());
    if (options.json) print(done);
    return ExitStatus::done;
}

platform::Result<client::Request> requestFrom(const RequestOptions& options) {
    using Kind = client::Request::Kind;
    static const std::map<std::string_view, Kind> kinds = {
        {"search", Kind::search}, {"more_results", Kind::moreResults},
        {"card", Kind::card},     {"zero_keyword", Kind::zeroKeyword},
        {"lookup", Kind::lookup}, {"flight", Kind::flight},
    };
    client::Request request{.kind = kinds.at(options.kind)};
    if (!options.entry.empty()) {
        if (auto set = setRequestEntry(request, options.entry, options.text); !set) return std::unexpected(set.error());
    }
    for (const auto& setting : options.settings) {
        const auto equals = setting.find('=');
        if (equals == std::string::npos)
            return platform::failure(0, fmt::format("--set {}: expected ENTRY=VALUE", setting));
        const auto set = setRequestEntry(request, setting.substr(0, equals), setting.substr(equals + 1));
        if (!set) return std::unexpected(set.error());
    }
    return request;
}

std::string erasedPage(const json::value& removed) {
    std::string page;
    for (const auto& [kind, count] : removed.as_object()) {
        page += fmt::format("{}: {} removed\n", std::string_view(kind), json::serialize(count));
    }
    return page;
}

}  // namespace

ExitStatus sendRequest(const Options& options, const RequestOptions& requestOptions) {
    const auto request = requestFrom(requestOptions);
    if (!request) return tellWrongUsage(request.error().text);
    auto client = connectAsClient(options);
    if (!client) return client.error();
    const auto begin = std::chrono::steady_clock::now();
    const auto reply =
        resultOf<client::Reply>(*client, [&](auto callback) { client->request(*request, std::move(callback)); });
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
    if (!reply) return tell(options, reply.error());
    const auto document = jsonFromReply(*reply);
    if (options.json) {
        print(json::object{{"query_id", reply->queryId}, {"reply", document}, {"milliseconds", took.count()}});
    } else {
        fmt::print("{}", replyPage(document, took.count()));
    }
    return ExitStatus::done;
}

ExitStatus explainRequest(const Options& options, const RequestOptions& requestOptions) {
    const auto request = requestFrom(requestOptions);
    if (!request) return tellWrongUsage(request.error().text);
    auto client = connect(options);
    if (!client) return client.error();
    const auto rows =
        resultOf<client::List>(*client, [&](auto callback) { client->explain(*request, std::move(callback)); });
    return rows ? show(options, jsonFromValue(*rows), explainedPage) : tell(options, rows.error());
}

ExitStatus showBag(const Options& options) {
    auto client = connectAsClient(options);
    if (!client) return client.error();
    const auto bag = resultOf<std::string>(*client, [&](auto callback) { client->bag(std::move(callback)); });
    if (!bag) return tell(options, bag.error());
    fmt::print("{}\n", bagPage(*bag, options.json));
    return ExitStatus::done;
}

ExitStatus showSessions(const Options& options) {
    using Sessions = std::vector<client::Session>;
    auto client = connectAsClient(options);
    if (!client) return client.error();
    const auto known = resultOf<Sessions>(*client, [&](auto callback) { client->listSessions(std::move(callback)); });
    if (!known) return tell(options, known.error());
    json::array sessions;
    for (const auto& [identifier, agent] : *known) {
        sessions.push_back(json::object{{"identifier", identifier}, {"agent", agent}});
    }
    return show(options, sessions, sessionsPage);
}

ExitStatus showImages(const Options& options) {
    using Images = std::map<std::string, std::string>;
    auto client = connectAsClient(options);
    if (!client) return client.error();
    const auto known = resultOf<Images>(*client, [&](auto callback) { client->imageMap(std::move(callback)); });
    if (!known) return tell(options, known.error());
    json::object images;
    for (const auto& [identifier, url] : *known) images[identifier] = url;
    return show(options, images, mapPage);
}

ExitStatus showStatus(const Options& options) { return operate(options, "Status", {}, json::kind::object, statusPage); }
ExitStatus showTransfers(const Options& options) {
    return operate(options, "Transfers", {}, json::kind::array, transfersPage);
}
ExitStatus showCounters(const Options& options) {
    return operate(options, "Counters", {}, json::kind::object, mapPage);
}

ExitStatus showCountersForPrometheus(const Options& options) {
    return operate(options, "Counters", {}, json::kind::object, prometheusPage);
}

ExitStatus erase(const Options& options, const std::string& what) {
    return operate(options, "Erase", {what}, json::kind::object, erasedPage);
}

ExitStatus addCompletion(const Options& options, const std::string& completion, const std::string& input) {
    return tellDaemon(options, {{"added", completion}}, [&](client::Client& client, auto callback) {
        client.addCompletion(completion, input, std::move(callback));
    });
}

ExitStatus clearCompletions(const Options& options, std::optional<double> from, std::optional<double> to) {
    constexpr double endOfTime = 1e12;  // later than any date that the daemon knows
    const double begin = from.value_or(-endOfTime), end = to.value_or(endOfTime);
    return tellDaemon(options, {{"cleared_from", begin}, {"cleared_to", end}},
                      [&](client::Client& client, auto callback) {
                          client.clearEngagedCompletions(client::Date(begin), client::Date(end), std::move(callback));
                      });
}

ExitStatus reportFeedback(const Options& options, const ReportOptions& report) {
    const auto payload = payloadFromJSON(report.payload);
    if (!payload) return tellWrongUsage(payload.error().text);
    return tellDaemon(options, {{"reported", payloadTypeName(*payload)}}, [&](client::Client& client, auto callback) {
        client.reportFeedback(*payload, report.queryId, std::move(callback));
    });
}

ExitStatus showFeedback(const Options& options) {
    using Records = std::vector<std::string>;
    auto client = connectAsClient(options);
    if (!client) return client.error();
    const auto answer = resultOf<Records>(*client, [&](auto callback) { client->feedback(std::move(callback)); });
    if (!answer) return tell(options, answer.error());
    const auto records = recordsAsJSON(*answer);
    fmt::print("{}", options.json ? compactJSON(records) + '\n' : recordsPage(records));
    return ExitStatus::done;
}

ExitStatus showPendingFeedback(const Options& options) {
    auto client = connect(options);
    if (!client) return client.error();
    const auto texts = documentIn(call(*client, kORXDiagnosticsInterface, "PendingFeedback"), json::kind::array);
    if (!texts) return tell(options, texts.error());
    json::array sessions;
    for (const auto& text : texts->get_array()) {
        const auto* session = text.if_string();
        sessions.push_back(session != nullptr ? parseJSON(*session, kReplyJSONDepth).value_or(nullptr) : nullptr);
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
    const auto answer = call(*client, kORXLaunchEventsInterface, "RunActivity", {name});
    if (!answer) return tell(options, answer.error());
    if (options.json) print(json::object{{"ran", name}});
    return ExitStatus::done;
}

}  // namespace orvex::tool
