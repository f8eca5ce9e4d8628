#include "query/cached_result_set.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/json.hpp>
#include <charconv>
#include <limits>

#include "core/json.h"
#include "platform/text.h"

namespace orvex {
namespace {

double number(std::string_view text) {
    float value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

double numberMember(const boost::json::object& object, std::string_view name) {
    const auto* member = object.if_contains(name);
    return member != nullptr ? numberFromJSON(*member).value_or(0) : 0;
}

std::optional<platform::MonotonicTime> expiry(const boost::json::object& resultSet, platform::MonotonicTime now) {
    const double seconds = numberMember(resultSet, "max_age");
    if (seconds == 0) return std::nullopt;
    constexpr double limit = 4e9;  // more than a century; twice that still fits
    const std::chrono::duration<double> bounded(std::clamp(seconds, -limit, limit));
    return now + std::chrono::duration_cast<std::chrono::nanoseconds>(bounded);
}

/// Saturates.
float scoreOf(const boost::json::object& resultSet) {
    constexpr double limit = std::numeric_limits<float>::max();
    return static_cast<float>(std::clamp(numberMember(resultSet, "completion_score"), -limit, limit));
}

}  // namespace

std::vector<platform::QueryItem> queryItemsOf(const platform::URLRequest& request) {
    const auto url = std::string_view(request.url).substr(0, request.url.find('#'));
    const auto mark = url.find('?');
    return mark == std::string_view::npos ? std::vector<platform::QueryItem>()
                                          : platform::decodeQuery(url.substr(mark + 1));
}

std::optional<std::string> findQueryParam(const std::vector<platform::QueryItem>& items, std::string_view name) {
    for (const auto& [itemName, value] : items)
        if (itemName == name) return value;
    return std::nullopt;
}

RequestVariant::RequestVariant(const platform::URLRequest& request) {
    const auto items = queryItemsOf(request);
    qtype = findQueryParam(items, "qtype");
    suggestQueries = findQueryParam(items, "suggest_queries");
    localCompletion = findQueryParam(items, "lc");
}

double scaleOnTheWire(double scale) { return number(fmt::format("{:.1f}", scale)); }

CachedResponse::CachedResponse(std::string_view typedInput, const platform::URLRequest& request,
                               std::string networkUUID, platform::Body body, platform::MonotonicTime arrivedAt)
    : input(platform::lowercased(typedInput)),
      inputLength(platform::utf16Length(input)),
      uuid(std::move(networkUUID)),
      uiScale(number(platform::headerValue(request.headers, "X-Kelvar-UI-Scale").value_or(""))),
      variant(request),
      data(std::move(body)),
      arrived(arrivedAt) {}

CachedResultSet::CachedResultSet(std::shared_ptr<const CachedResponse> cameWith, const boost::json::object& resultSet)
    : response(std::move(cameWith)),
      query(platform::lowercased(stringMember(resultSet, "query").value_or(""))),
      queryLength(platform::utf16Length(query)),
      expireTime(expiry(resultSet, response->arrived)),
      completionScore(scoreOf(resultSet)) {}

std::vector<std::shared_ptr<const CachedResultSet>> resultSetsIn(
    const boost::json::value& decoded, const std::shared_ptr<const CachedResponse>& response) {
    std::vector<std::shared_ptr<const CachedResultSet>> resultSets;
    const auto* elements = decoded.if_array();
    if (elements == nullptr) return resultSets;
    for (const auto& element : *elements) {
        const auto* resultSet = element.if_object();
        if (resultSet == nullptr || stringMember(*resultSet, "status") == "ERROR") continue;
        resultSets.push_back(std::make_shared<const CachedResultSet>(response, *resultSet));
    }
    return resultSets;
}

}  // namespace orvex
