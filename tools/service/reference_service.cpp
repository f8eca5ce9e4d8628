#include "tools/service/reference_service.h"

#include <fmt/core.h>

#include <algorithm>
#include <boost/json.hpp>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <utility>

#include "platform/text.h"
#include "tools/service/bag_document.h"
#include "tools/service/word_net.h"

namespace orvex {
namespace {

namespace json = boost::json;

constexpr std::size_t loggedBytes = 2000;

std::string printable(const std::string& text) {
    return platform::isValidUTF8(text) ? text : platform::percentEncode(text);
}

json::array pairsAsJSON(const std::vector<platform::QueryItem>& pairs) {
    json::array list;
    for (const auto& [name, value] : pairs) list.push_back({printable(name), printable(value)});
    return list;
}

ServerAnswer errorAnswer(int status, std::string_view text) {
    return {.status = status, .body = json::serialize(json::object{{"error", printable(std::string(text))}})};
}

ServerAnswer refusal(const ServerRequest& request, const platform::Failure& why) {
    fmt::print(stderr, "refused {} {}: {}\n", platform::escaped(request.method, loggedBytes),
               platform::escaped(request.path, loggedBytes), platform::escaped(why.text, loggedBytes));
    return errorAnswer(why.code, why.text);
}

// The address that the client used, which its further requests are to use too. None where it is no plain address.
std::optional<std::string> baseOf(const ServerRequest& request) {
    const auto host = request.header("Host");
    const bool isPlain = host && !host->empty() && std::ranges::all_of(*host, [](unsigned char c) {
                             return std::isalnum(c) != 0 || c == '.' || c == '-' || c == ':' || c == '[' || c == ']';
                         });
    if (!isPlain) return {};
    return fmt::format("{}://{}", request.isSecure ? "https" : "http", *host);
}

}  // namespace

struct ReferenceService::Note {
    ServerRequest request;  // without its body
    std::size_t bodyBytes = 0;
    int status = 0;

    [[nodiscard]] json::object asJSON() const {
        return {{"method", printable(request.method)},
                {"path", printable(request.path)},
                {"items", pairsAsJSON(request.items)},
                {"headers", pairsAsJSON(request.headers)},
                {"body_bytes", bodyBytes},
                {"status", status}};
    }
};

ReferenceService::ReferenceService(const WordNet& words, Options options)
    : _options(std::move(options)),
      _answers(words),
      _resources(words),
      _uploads(_options.feedbackDirectory) {}

ReferenceService::~ReferenceService() = default;

ServerAnswer ReferenceService::answer(const ServerRequest& request) {
    if (request.path == "/control") return _control(request);
    const auto checked = _check(request);
    ServerAnswer answer = checked ? _misbehaviour.answer(request.path,
                                                         [&](bool isReplaced) {
                                                             if (isReplaced) return ServerAnswer();
                                                             return _answerOf(*checked, request);
                                                         })
                                  : refusal(request, checked.error());
    _note(request, answer.status, checked.has_value());
    return answer;
}

std::optional<std::size_t> ReferenceService::cut(const ServerRequest& head) {
    const Endpoint endpoint = endpointOf(head.path);
    if (endpoint == Endpoint::unknown || violationIn(endpoint, head)) return {};  // /control is unknown too
    std::size_t length = 0;
    if (const auto given = head.header("Content-Length"))
        std::from_chars(given->data(), given->data() + given->size(), length);
    const auto bytes = _misbehaviour.cut(head.path, length);
    if (bytes) _note(head, 0, true);
    return bytes;
}

platform::Result<ReferenceService::Checked> ReferenceService::_check(const ServerRequest& request) {
    Checked checked{.endpoint = endpointOf(request.path), .base = {}, .upload = {}};
    if (auto violation = violationIn(checked.endpoint, request))
        return platform::failure(violation->status, std::move(violation->text));
    auto base = baseOf(request);
    if (!base) return platform::failure(400, "header Host is missing or malformed");
    checked.base = *std::move(base);
    if (checked.endpoint != Endpoint::feedback && checked.endpoint != Endpoint::crowdsourcing) return checked;
    auto upload = UploadStore::checked(request);
    if (!upload) return std::unexpected(upload.error());
    checked.upload = *std::move(upload);
    return checked;
}

ServerAnswer ReferenceService::_answerOf(const Checked& checked, const ServerRequest& request) {
    const std::string& base = checked.base;
    switch (checked.endpoint) {
        case Endpoint::bag:
            return {.body = _options.bag.empty() ? bagDocument(base, _resources) : _options.bag};
        case Endpoint::search:
            return {.body = _search(request, base)};
        case Endpoint::more:
            return {.body = _answers.moreResults(request.item("q").value_or(""), base)};
        case Endpoint::card:
            return {.body = _answers.card(request.item("word").value_or(""), base)};
        case Endpoint::flight:
            return _flight(request);
        case Endpoint::warm:
            return {.body = "{}"};
        case Endpoint::resource:
        case Endpoint::hints:
            return _resources.answer(request);
        case Endpoint::feedback:
        case Endpoint::crowdsourcing:
            return _keep(request, *checked.upload);
        case Endpoint::unknown:
            break;
    }
    return errorAnswer(404, "no such path");
}

std::string ReferenceService::_search(const ServerRequest& request, const std::string& base) const {
    const auto kind = request.item("qtype").value_or("");
    const auto text = request.item("q").value_or("");
    if (kind == "zkw") return _answers.zeroKeyword(base);
    if (request.item("ltype")) return _answers.lookup(text, base);
    return _answers.search({.input = text,
                            .wantsWordOnly = kind == "explicit",
                            .wantsCardsOfTopOnly = request.item("suggest_queries") == "withtop"},
                           base);
}

ServerAnswer ReferenceService::_flight(const ServerRequest& request) {
    double date = 0;
    if (const auto given = request.item("timestamp"))
        std::from_chars(given->data(), given->data() + given->size(), date, std::chars_format::fixed);
    const auto flight = SearchAnswers::flight(request.item("q").value_or(""), date);
    if (request.header("Accept") != "application/x-protobuf") return {.body = SearchAnswers::flightAsJSON(flight)};
    return {.contentType = "application/x-protobuf", .body = SearchAnswers::flightAsProtobuf(flight)};
}

ServerAnswer ReferenceService::_keep(const ServerRequest& request, const UploadStore::Upload& upload) {
    if (const auto kept = _uploads.keep(request, upload); !kept) return refusal(request, kept.error());
    return {.body = "{}"};
}

ServerAnswer ReferenceService::_control(const ServerRequest& request) {
    if (request.method == "GET") return {.body = _state()};
    if (request.method == "POST") return _addRules(request.body);
    if (request.method != "DELETE") return errorAnswer(405, "GET, POST or DELETE");
    _reset();
    return {.body = "{}"};
}

ServerAnswer ReferenceService::_addRules(std::string_view text) {
    boost::system::error_code error;
    const json::value rules = json::parse(text, error);
    if (error) return errorAnswer(400, "the body is no JSON: " + error.message());
    const json::array list = rules.is_array() ? rules.get_array() : json::array{rules};
    for (const json::value& rule : list)
        if (const auto added = _misbehaviour.add(rule); !added)
            return errorAnswer(added.error().code, added.error().text);
    return {.body = "{}"};
}

std::string ReferenceService::_state() const {
    json::object state = {{"rules", _misbehaviour.pendingRules()},
                          {"connections", _connectionCount ? _connectionCount() : 0}};
    const platform::MutexLock lock(_mutex);
    json::object requests;
    for (const auto& [path, count] : _requestsByPath) requests[path] = count;
    json::array last;
    for (const Note& note : _last) last.push_back(note.asJSON());
    state["requests"] = std::move(requests);
    state["violations"] = _violations;
    state["last_requests"] = std::move(last);
    return json::serialize(state);
}

void ReferenceService::_reset() {
    _misbehaviour.clear();
    const platform::MutexLock lock(_mutex);
    _requestsByPath.clear();
    _violations = 0;
    _last.clear();
}

void ReferenceService::_note(const ServerRequest& request, int status, bool isGood) {
    Note note{.request = request, .bodyBytes = request.body.size(), .status = status};
    note.request.body.clear();
    const std::string line = _options.logsRequests ? json::serialize(note.asJSON()) + '\n' : std::string();
    const platform::MutexLock lock(_mutex);
    const bool isFull = _requestsByPath.size() >= maxCountedPaths && !_requestsByPath.contains(request.path);
    ++_requestsByPath[isFull ? "other" : printable(request.path)];
    if (!isGood) ++_violations;
    _last.push_back(std::move(note));
    if (_last.size() > maxNotedRequests) _last.pop_front();
    std::fwrite(line.data(), 1, line.size(), stdout);
    if (!line.empty()) std::fflush(stdout);
}

}  // namespace orvex
