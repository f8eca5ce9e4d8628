#include "client/answers.h"

#include <cmath>
#include <limits>

namespace orvex::client {
namespace {

/// A value as what it must be; false when it is something else.
bool take(const Value& value, std::string& text) {
    const auto* own = value.as<std::string>();
    if (own != nullptr) text = *own;
    return own != nullptr;
}
bool take(const Value& value, double& number) {
    const auto* own = value.as<double>();
    if (own != nullptr) number = *own;
    return own != nullptr && std::isfinite(*own);
}
bool take(const Value& value, Date& date) {
    double seconds = 0;
    const bool good = take(value, seconds);
    date = Date(seconds);
    return good;
}
bool take(const Value& value, std::int64_t& number) {
    const auto* own = value.as<std::int64_t>();
    if (own != nullptr) number = *own;
    return own != nullptr;
}
bool take(const Value& value, std::uint64_t& number) {
    const auto* own = value.as<std::uint64_t>();
    if (own != nullptr) number = *own;
    return own != nullptr;
}
bool take(const Value& value, std::uint32_t& number) {
    std::uint64_t wide = 0;
    const bool good = take(value, wide) && wide <= std::numeric_limits<std::uint32_t>::max();
    number = good ? static_cast<std::uint32_t>(wide) : 0;
    return good;
}
bool take(const Value& value, std::map<std::string, std::string>& texts) {
    const auto* own = value.as<Dictionary>();
    if (own == nullptr) return false;
    for (const auto& [key, text] : own->entries) {
        if (!take(text, texts[key])) return false;
    }
    return true;
}

/// The entries of a dictionary, one after the other; the first that is not as it must be is kept.
class Entries {
public:
    explicit Entries(const Value& value) : _dictionary(value.as<Dictionary>()) {
        if (_dictionary == nullptr) _bad = "a dictionary";
    }

    [[nodiscard]] bool isEmpty() const { return _dictionary != nullptr && _dictionary->entries.empty(); }
    [[nodiscard]] const Value* find(std::string_view key) const {
        return _dictionary != nullptr ? _dictionary->find(key) : nullptr;
    }

    template <class T>
    Entries& read(const char* key, T& into) {
        const Value* value = find(key);
        if (value != nullptr && !take(*value, into)) fail(key);
        return *this;
    }
    template <class T>
    Entries& require(const char* key, T& into) {
        if (find(key) == nullptr) fail(key);
        return read(key, into);
    }
    Entries& fail(const char* what) {
        if (_bad.empty()) _bad = what;
        return *this;
    }
    [[nodiscard]] const std::string& bad() const { return _bad; }

private:
    const Dictionary* const _dictionary;
    std::string _bad;
};

std::optional<Suggestion> suggestionFrom(const Value& value) {
    Entries entries(value);
    Suggestion suggestion;
    entries.read("suggestion", suggestion.suggestion).read("query", suggestion.query).read("score", suggestion.score);
    entries.read("type", suggestion.type).read("topic_identifier", suggestion.topicIdentifier);
    entries.read("fbr", suggestion.fbr);
    if (!entries.bad().empty()) return std::nullopt;
    return suggestion;
}

/// None when the dictionary is empty.
std::optional<Error> errorFrom(const Value& value) {
    Entries entries(value);
    if (entries.isEmpty()) return std::nullopt;
    Error error{.kind = Error::Kind::failed};
    entries.require("domain", error.domain).require("code", error.code).read("reason", error.reason);
    return entries.bad().empty() ? error : malformed("error: " + entries.bad());
}

template <class Part>
void readPart(Entries& entries, const char* key, std::optional<Part>& into, bool (*read)(Entries&, Part&)) {
    const Value* value = entries.find(key);
    if (value == nullptr) return;
    Entries inner(*value);
    if (!read(inner, into.emplace())) entries.fail(key);
}

void readSuggestions(Entries& entries, std::vector<Suggestion>& into) {
    const Value* value = entries.find("local_suggestions");
    if (value == nullptr) return;
    const auto* list = value->as<List>();
    if (list == nullptr) return void(entries.fail("local_suggestions"));
    for (const auto& element : *list) {
        auto suggestion = suggestionFrom(element);
        if (!suggestion) return void(entries.fail("local_suggestions"));
        into.push_back(*std::move(suggestion));
    }
}

/// The reply's body, taken out of its dictionary: it may be long.
bool takeData(Value& reply, std::string& into) {
    auto* dictionary = std::get_if<Dictionary>(&reply.content);
    if (dictionary == nullptr) return false;
    for (auto& [key, value] : dictionary->entries) {
        if (key != "data") continue;
        auto* bytes = std::get_if<Bytes>(&value.content);
        if (bytes == nullptr) return false;
        into = std::move(bytes->bytes);
    }
    return true;
}

bool readHTTPRequest(Entries& entries, HTTPRequest& request) {
    return entries.require("url", request.url).read("headers", request.headers).bad().empty();
}

bool readHTTPResponse(Entries& entries, HTTPResponse& response) {
    return entries.require("status_code", response.statusCode).read("headers", response.headers).bad().empty();
}

std::unexpected<Error> unexpectedlyMalformed(std::string what) { return std::unexpected(malformed(std::move(what))); }

}  // namespace

Error malformed(std::string what) {
    return {.kind = Error::Kind::malformed, .reason = "the daemon's answer is malformed: " + std::move(what)};
}

std::expected<void, Error> nothingIn(List&) { return {}; }

std::expected<Reply, Error> replyIn(List& arguments) {
    Reply reply;
    if (arguments.size() != 3 || !take(arguments[0], reply.queryId)) return unexpectedlyMalformed("query_id");
    if (auto error = errorFrom(arguments[2])) return std::unexpected(*std::move(error));
    if (!takeData(arguments[1], reply.data)) return unexpectedlyMalformed("data");
    Entries entries(arguments[1]);
    reply.isNothing = entries.isEmpty();
    if (reply.isNothing) return reply;
    entries.require("scale", reply.scale);
    readPart(entries, "http_request", reply.httpRequest, readHTTPRequest);
    readPart(entries, "http_response", reply.httpResponse, readHTTPResponse);
    if (entries.find("geo_session_entity") != nullptr) {
        entries.read("geo_session_entity", reply.geoSessionEntity.emplace());
    }
    readSuggestions(entries, reply.localSuggestions);
    if (!entries.bad().empty()) return unexpectedlyMalformed(entries.bad());
    return reply;
}

std::expected<std::string, Error> bagIn(List& arguments) {
    std::string bag;
    if (arguments.size() != 2 || !take(arguments[0], bag)) return unexpectedlyMalformed("bag");
    if (auto error = errorFrom(arguments[1])) return std::unexpected(*std::move(error));
    return bag;
}

std::expected<std::vector<std::string>, Error> recordsIn(List& arguments) {
    const auto* list = arguments.size() == 2 ? arguments[0].as<List>() : nullptr;
    if (list == nullptr) return unexpectedlyMalformed("records");
    if (auto error = errorFrom(arguments[1])) return std::unexpected(*std::move(error));
    std::vector<std::string> records;
    for (const auto& record : *list) {
        const auto* bytes = record.as<Bytes>();
        if (bytes == nullptr) return unexpectedlyMalformed("records");
        records.push_back(bytes->bytes);
    }
    return records;
}

std::expected<std::vector<Session>, Error> sessionsIn(List& arguments) {
    const auto list = listIn(arguments);
    if (!list) return std::unexpected(list.error());
    std::vector<Session> sessions;
    for (const auto& element : *list) {
        Entries entries(element);
        Session session;
        if (!entries.require("identifier", session.identifier).require("agent", session.agent).bad().empty()) {
            return unexpectedlyMalformed("session: " + entries.bad());
        }
        sessions.push_back(std::move(session));
    }
    return sessions;
}

std::expected<std::map<std::string, std::string>, Error> imageMapIn(List& arguments) {
    std::map<std::string, std::string> images;
    if (arguments.size() != 1 || !take(arguments[0], images)) return unexpectedlyMalformed("images");
    return images;
}

std::expected<std::string, Error> textIn(List& arguments) {
    std::string text;
    if (arguments.size() != 1 || !take(arguments[0], text)) return unexpectedlyMalformed("text");
    return text;
}

std::expected<List, Error> listIn(List& arguments) {
    auto* list = arguments.size() == 1 ? std::get_if<List>(&arguments[0].content) : nullptr;
    if (list == nullptr) return unexpectedlyMalformed("a list");
    for (const auto& element : *list) {
        if (element.as<Dictionary>() == nullptr) return unexpectedlyMalformed("a list of dictionaries");
    }
    return std::move(*list);
}

std::expected<List, Error> anythingIn(List& arguments) { return std::move(arguments); }

std::expected<Resource, Error> resourceIn(File file, const List& attributes) {
    Resource resource{.file = std::move(file)};
    if (attributes.size() != 1) return unexpectedlyMalformed("attributes");
    Entries entries(attributes[0]);
    entries.require("size", resource.size).read("creation_date", resource.creationDate);
    entries.read("modification_date", resource.modificationDate).read("permissions", resource.permissions);
    if (!entries.bad().empty()) return unexpectedlyMalformed("attributes: " + entries.bad());
    return resource;
}

}  // namespace orvex::client
