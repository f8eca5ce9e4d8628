#include "tools/service/request_check.h"

#include <fmt/core.h>

#include <algorithm>
#include <boost/json.hpp>
#include <cctype>
#include <initializer_list>
#include <utility>

#include "platform/text.h"
#include "platform/url.h"

namespace orvex {
namespace {

constexpr std::string_view apiKey = "tabbycat5208";
constexpr std::size_t maxUserAgentBytes = 1024;

using Finding = std::optional<std::string>;  // what is wrong, or nothing
using Names = std::initializer_list<std::string_view>;

struct Path {
    std::string_view text;
    Endpoint endpoint;
};
constexpr Path paths[] = {{"/bag", Endpoint::bag},           {"/search", Endpoint::search},
                          {"/more", Endpoint::more},         {"/card", Endpoint::card},
                          {"/flight", Endpoint::flight},     {"/warm", Endpoint::warm},
                          {"/feedback", Endpoint::feedback}, {"/crowdsourcing", Endpoint::crowdsourcing}};

bool isUpload(Endpoint endpoint) { return endpoint == Endpoint::feedback || endpoint == Endpoint::crowdsourcing; }
bool isZeroKeyword(const ServerRequest& request) { return request.item("qtype") == "zkw"; }
bool isLookup(const ServerRequest& request) { return request.item("ltype").has_value(); }

bool isHexadecimal(std::string_view text) {
    return std::ranges::all_of(text, [](unsigned char c) { return std::isdigit(c) != 0 || (c >= 'a' && c <= 'f'); });
}

Finding inOrderAndEncodedOnce(const ServerRequest& request) {
    std::string canonical;
    const std::string* last = nullptr;
    for (const auto& [name, value] : request.items) {
        if (last != nullptr && *last == name) return fmt::format("item \"{}\" comes twice", name);
        if (last != nullptr && *last > name) return fmt::format("item \"{}\" comes after \"{}\"", name, *last);
        if (!platform::isValidUTF8(name) || !platform::isValidUTF8(value)) return "an item is not UTF-8";
        canonical += canonical.empty() ? "" : "&";
        canonical += platform::percentEncode(name) + "=" + platform::percentEncode(value);
        last = &name;
    }
    if (canonical != request.rawQuery) return fmt::format("the query is not encoded as it should be: {}", canonical);
    return {};
}

Finding hasItems(const ServerRequest& request, Names names) {
    for (const std::string_view name : names)
        if (!request.item(name)) return fmt::format("item \"{}\" is missing", name);
    return {};
}

Finding isOneOf(const ServerRequest& request, std::string_view name, Names values) {
    const auto value = request.item(name);
    if (!value || std::ranges::find(values, *value) != values.end()) return {};
    return fmt::format("item \"{}\" has no such value: \"{}\"", name, *value);
}

// The items that every request of a kind has.
Finding hasItemsOfItsKind(Endpoint endpoint, const ServerRequest& request) {
    switch (endpoint) {
        case Endpoint::bag:
            return hasItems(request, {"key", "locale", "cindora"});
        case Endpoint::search:
            if (isZeroKeyword(request)) return hasItems(request, {"key", "locale"});
            if (isLookup(request)) return hasItems(request, {"q", "key", "locale"});
            return hasItems(request, {"q", "key", "locale", "card"});
        case Endpoint::flight:
            return hasItems(request, {"q", "key", "locale"});
        case Endpoint::more:
        case Endpoint::card:
            return hasItems(request, {"key", "locale"});
        case Endpoint::resource:
            return hasItems(request, {"key"});
        case Endpoint::feedback:
            return hasItems(request, {"key", "locale", "v"});
        case Endpoint::crowdsourcing:
            return hasItems(request, {"key", "locale", "type"});
        case Endpoint::warm:
        case Endpoint::hints:
        case Endpoint::unknown:
            break;
    }
    return {};
}

Finding hasGoodValues(const ServerRequest& request) {
    Finding findings[] = {
        isOneOf(request, "key", {apiKey}),
        isOneOf(request, "card", {"1"}),
        isOneOf(request, "cindora", {"0", "1"}),
        isOneOf(request, "alwaysSendTophit", {"on", "off"}),
        isOneOf(request, "24h", {"1"}),
        isOneOf(request, "rm", {"1", "2", "3"}),
        isOneOf(request, "mode", {"managed"}),
        isOneOf(request, "ltype", {"hint", "explicit", "default"}),
        isOneOf(request, "units", {"SI", "US", "UK"}),
        isOneOf(request, "du_enabled", {"1"}),
    };
    for (Finding& finding : findings)
        if (finding) return std::move(finding);
    return {};
}

// "NAME/VERSION (DEVICE) NAME/VERSION", as the daemon names itself.
bool isAgentOfDaemon(std::string_view agent) {
    const std::size_t open = agent.find(" ("), close = agent.rfind(") ");
    return agent.starts_with("orvexd/") && open != std::string_view::npos && close != std::string_view::npos &&
           open < close && agent.find('/', close) != std::string_view::npos;
}

Finding hasUserAgent(Endpoint endpoint, const ServerRequest& request) {
    if (endpoint == Endpoint::warm || endpoint == Endpoint::hints) return {};
    const auto agent = request.header("User-Agent");
    if (!agent || agent->empty()) return "header User-Agent is missing";
    if (agent->size() > maxUserAgentBytes || platform::hasControlCharacter(*agent))
        return "header User-Agent is malformed";
    const bool mustBeDaemon = endpoint == Endpoint::bag || endpoint == Endpoint::resource;
    if (mustBeDaemon && !isAgentOfDaemon(*agent))
        return fmt::format("header User-Agent does not name the daemon and its device: \"{}\"", *agent);
    if (endpoint == Endpoint::resource && !agent->ends_with(" Lumisk/1"))
        return "header User-Agent does not end in Lumisk/1";
    return {};
}

bool isUUID(std::string_view text) {
    if (text.size() != 36) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool isDash = i == 8 || i == 13 || i == 18 || i == 23;
        const auto c = static_cast<unsigned char>(text[i]);
        if (isDash ? c != '-' : std::isdigit(c) == 0 && (c < 'A' || c > 'F')) return false;
    }
    return true;
}

Finding hasGoodUserGUID(Endpoint endpoint, const ServerRequest& request) {
    const auto guid = request.header("X-Kelvar-UserGuid");
    if (!guid) return {};
    const bool mayHaveIt = (endpoint == Endpoint::search && !isLookup(request)) || endpoint == Endpoint::more ||
                           endpoint == Endpoint::flight;
    if (!mayHaveIt) return "header X-Kelvar-UserGuid is not for this request";
    return isUUID(*guid) ? Finding() : "header X-Kelvar-UserGuid is no UUID";
}

Finding hasGoodScale(const ServerRequest& request) {
    const auto scale = request.header("X-Kelvar-UI-Scale");
    if (!scale) return {};
    const std::size_t point = scale->find('.');
    const auto isDigits = [](std::string_view text) {
        return !text.empty() && std::ranges::all_of(text, [](unsigned char c) { return std::isdigit(c) != 0; });
    };
    const bool isGood = point != std::string_view::npos && isDigits(scale->substr(0, point)) &&
                        scale->size() == point + 2 && isDigits(scale->substr(point + 1));
    return isGood ? Finding() : fmt::format("header X-Kelvar-UI-Scale has not one decimal: \"{}\"", *scale);
}

Finding hasGoodLanguages(const ServerRequest& request) {
    const auto languages = request.header("X-Kelvar-Languages");
    if (!languages) return {};
    boost::system::error_code error;
    const auto list = boost::json::parse(*languages, error);
    const bool isGood = !error && list.is_array() && list.as_array().size() <= 3 &&
                        std::ranges::all_of(list.as_array(), [](const auto& one) { return one.is_string(); });
    return isGood ? Finding() : "header X-Kelvar-Languages is no list of at most three languages";
}

Finding hasUploadHeaders(const ServerRequest& request) {
    if (request.header("Content-Encoding") != "deflate") return "header Content-Encoding is not deflate";
    const auto digest = request.header("X-Kelvar-Digest");
    if (!digest || digest->size() != 128 || !isHexadecimal(*digest)) return "header X-Kelvar-Digest is no SHA-512";
    return {};
}

Finding hasDownloadHeaders(const ServerRequest& request) {
    const auto identifier = request.header("X-Kelvar-Download-Identifier");
    if (!identifier) return "header X-Kelvar-Download-Identifier is missing";
    if (request.path != fmt::format("/resources/{}", *identifier))
        return fmt::format("header X-Kelvar-Download-Identifier is not that of {}: \"{}\"", request.path, *identifier);
    return {};
}

}  // namespace

Endpoint endpointOf(std::string_view path) {
    const auto* const found = std::ranges::find(paths, path, &Path::text);
    if (found != std::end(paths)) return found->endpoint;
    if (path.starts_with("/resources/")) return Endpoint::resource;
    return path.starts_with("/hints/") ? Endpoint::hints : Endpoint::unknown;
}

std::optional<Violation> violationIn(Endpoint endpoint, const ServerRequest& request) {
    if (endpoint == Endpoint::unknown) return Violation{404, "no such path"};
    const std::string_view method = isUpload(endpoint) ? "POST" : "GET";
    if (request.method != method) return Violation{405, fmt::format("the method is not {}", method)};
    Finding wrong = inOrderAndEncodedOnce(request);
    if (!wrong) wrong = hasItemsOfItsKind(endpoint, request);
    if (!wrong) wrong = hasGoodValues(request);
    if (!wrong) wrong = hasUserAgent(endpoint, request);
    if (!wrong) wrong = hasGoodUserGUID(endpoint, request);
    if (!wrong) wrong = hasGoodScale(request);
    if (!wrong) wrong = hasGoodLanguages(request);
    if (!wrong && isUpload(endpoint)) wrong = hasUploadHeaders(request);
    if (!wrong && endpoint == Endpoint::resource) wrong = hasDownloadHeaders(request);
    return wrong ? std::optional(Violation{400, *std::move(wrong)}) : std::nullopt;
}

}  // namespace orvex
