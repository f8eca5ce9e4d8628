#include "daemon/explained_request.h"

#include <algorithm>

#include "core/constants.h"
#include "core/orx_bag.h"
#include "core/orx_request.h"
#include "daemon/assembly.h"
#include "daemon/bus_dictionaries.h"
#include "daemon/request_defaults.h"
#include "feedback/guid_controller.h"
#include "network/bag_controller.h"
#include "network/orx_network_request_factory.h"
#include "network/request_vocabulary.h"
#include "platform/bus.h"
#include "platform/http_session.h"
#include "platform/url.h"

namespace orvex {
namespace {

using Where = VocabularyEntry::Where;

/// Builds what the client's state would send for a request of any kind.
struct Build {
    ORXNetworkRequestFactory& factory;
    const ORXBag& bag;
    std::string guid;

    using Built = std::optional<platform::URLRequest>;
    Built operator()(const ORXSearchRequest& request) const { return factory.searchRequest(request, bag, guid); }
    Built operator()(const ORXZeroKeywordRequest& request) const {
        return factory.zeroKeywordRequest(request, bag, guid);
    }
    Built operator()(const ORXMoreResultsRequest& request) const {
        return factory.moreResultsRequest(request, bag, guid);
    }
    Built operator()(const ORXCardRequest& request) const { return factory.cardRequest(request, bag, guid); }
    Built operator()(const ORXLookupRequest& request) const { return factory.lookupRequest(request, bag, guid); }
    Built operator()(const ORXFlightSearchRequest& request) const {
        return factory.flightSearchRequest(request, bag, guid);
    }
};

platform::BusDictionary row(std::string_view name, std::string_view value, Where where, std::string_view otherSource) {
    const auto vocabulary = requestVocabulary();
    const auto entry = std::ranges::find_if(
        vocabulary, [&](const VocabularyEntry& one) { return one.where == where && one.name == name; });
    const bool known = entry != vocabulary.end();
    platform::BusDictionary row;
    row.set("name", std::string(name))
        .set("value", std::string(value))
        .set("where", where == Where::query ? "query" : "header")
        .set("source", std::string(known ? entry->source : otherSource))
        .set("purpose", known ? std::string(entry->purpose) : std::string())
        .set("personal", known && entry->personal)
        .set("switch", known ? std::string(entry->switchedBy) : std::string());
    return row;
}

platform::BusArray rows(const platform::URLRequest& request, const ORXRequest& asked) {
    platform::BusArray all{.elementSignature = "a{sv}", .items = {}};
    const auto url = platform::parseURL(request.url);
    if (url && url->query) {
        for (const auto& [name, value] : platform::decodeQuery(*url->query)) {
            const bool clients =
                std::ranges::find(asked.queryItems, name, &platform::QueryItem::first) != asked.queryItems.end();
            all.items.emplace_back(row(name, value, Where::query, clients ? "the client" : "the endpoint"));
        }
    }
    for (const auto& [name, value] : request.headers) {
        all.items.emplace_back(row(name, value, Where::header, "the daemon"));
    }
    return all;
}

}  // namespace

std::expected<platform::BusArray, NotExplained> explainedRequest(Assembly& assembly, std::string_view kind,
                                                                 const platform::BusDictionary& request) {
    auto asked = requestFromBus(kind, request);
    if (!asked) return std::unexpected(NotExplained{platform::bus_error::invalidArgs, asked.error().message});
    std::visit([&](ORXRequest& any) { fillInFromSystem(any, assembly); }, *asked);
    const auto& bags = assembly.bagController();
    const auto bag = bags ? bags->inMemoryBag() : nullptr;
    const auto& factory = assembly.requestFactory();
    if (!bag || !factory) return std::unexpected(NotExplained{kORXInternalError, "there is no bag yet"});
    const auto& guids = assembly.guidController();
    const Build build{*factory, *bag, guids ? guids->currentUserGUID() : std::string()};
    const auto built = std::visit(build, *asked);
    if (!built) return std::unexpected(NotExplained{kORXInternalError, "the bag names no endpoint for such a request"});
    return std::visit([&](const ORXRequest& any) { return rows(*built, any); }, *asked);
}

}  // namespace orvex
