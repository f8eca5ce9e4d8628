#pragma once

#include <boost/json/fwd.hpp>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

/// The records that a request to the server leaves: one when it is sent, one when it has ended, and of a failure a
/// third one. Pure functions.
namespace orvex {

class CXEndNetworkSearchFeedback;
class CXErrorFeedback;
class CXStartNetworkSearchFeedback;
struct ORXError;

namespace platform {
struct URLRequest;
}

/// What a request was sent to, as records name it.
enum class SearchEndpoint : std::int32_t { search = 6, bag = 10, card = 11, warm = 12, flight = 13 };

/// Why a request is sent.
struct NetworkSearchOccasion {
    std::uint64_t queryId = 0;
    std::string input = {};
    std::uint32_t triggerEvent = 0;
    SearchEndpoint endpoint = SearchEndpoint::search;
    std::optional<std::uint32_t> lookupSelectionType = std::nullopt;
    std::optional<std::int32_t> cindoraStatus = std::nullopt;
};

/// What the transport tells of its end.
struct NetworkSearchOutcome {
    std::size_t responseSize = 0;  ///< bytes of the body
    std::int64_t statusCode = 0;   ///< 0: there was no answer
    std::map<std::string, double> timing;
};

[[nodiscard]] CXStartNetworkSearchFeedback startNetworkSearchFeedback(std::string_view uuid,
                                                                      const platform::URLRequest& request,
                                                                      const NetworkSearchOccasion& occasion);

/// The end of the request whose start has `startUUID`.
[[nodiscard]] CXEndNetworkSearchFeedback endNetworkSearchFeedback(std::string_view startUUID,
                                                                  const NetworkSearchOutcome& outcome);
/// Takes over what the server says of its own work: in the first element of a list; nothing from any other answer.
void readServersAccount(const boost::json::value& answer, CXEndNetworkSearchFeedback& end);
/// Takes over through which proxy the request went.
void tellConnection(std::string_view proxyURL, CXEndNetworkSearchFeedback& end);

/// Without an error: a failure that has no name, an answer without a body.
[[nodiscard]] CXErrorFeedback errorFeedback(const std::optional<ORXError>& error);

}  // namespace orvex
