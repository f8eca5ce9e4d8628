#include "core/network_search_record.h"

#include <boost/json/value.hpp>

#include "core/feedback_records.pb.h"
#include "core/json.h"
#include "core/orx_error.h"
#include "platform/http_session.h"

namespace orvex {
namespace {

constexpr std::int32_t connectionInformationKey = 49;  // of a timing's fields with integer keys

}  // namespace

CXStartNetworkSearchFeedback startNetworkSearchFeedback(std::string_view uuid, const platform::URLRequest& request,
                                                        const NetworkSearchOccasion& occasion) {
    CXStartNetworkSearchFeedback start;
    start.set_query_id(occasion.queryId);
    start.set_input(occasion.input);
    start.set_url(request.url);
    for (const auto& [name, value] : request.headers) (*start.mutable_headers())[name] = value;
    start.set_uuid(std::string(uuid));
    start.set_trigger_event(static_cast<std::int32_t>(occasion.triggerEvent));
    start.set_endpoint(static_cast<std::int32_t>(occasion.endpoint));
    if (occasion.lookupSelectionType) {
        start.set_lookup_selection_type(static_cast<std::int32_t>(*occasion.lookupSelectionType));
    }
    if (occasion.cindoraStatus) start.set_cindora_status(*occasion.cindoraStatus);
    return start;
}

CXEndNetworkSearchFeedback endNetworkSearchFeedback(std::string_view startUUID, const NetworkSearchOutcome& outcome) {
    CXEndNetworkSearchFeedback end;
    end.set_uuid(std::string(startUUID));
    end.set_response_size(static_cast<std::int64_t>(outcome.responseSize));
    end.set_status_code(outcome.statusCode);
    auto& measured = *end.mutable_network_timing_data()->mutable_values();
    for (const auto& [phase, seconds] : outcome.timing) measured[phase] = seconds;
    return end;
}

void readServersAccount(const boost::json::value& answer, CXEndNetworkSearchFeedback& end) {
    const auto* list = answer.if_array();
    const auto* first = list != nullptr && !list->empty() ? list->front().if_object() : nullptr;
    if (first == nullptr) return;
    if (auto status = stringMember(*first, "status")) end.set_orvex_status(*std::move(status));
    if (auto fbq = stringMember(*first, "fbq")) end.set_fbq(*std::move(fbq));
    if (auto address = stringMember(*first, "partial_client_ip")) end.set_partial_client_ip(*std::move(address));
    const auto* duration = first->if_contains("duration");
    if (const auto number = duration != nullptr ? numberFromJSON(*duration) : std::nullopt) {
        end.set_orvex_duration(*number);
    }
}

void tellConnection(std::string_view proxyURL, CXEndNetworkSearchFeedback& end) {
    CXValue url;
    url.set_string_value(std::string(proxyURL));
    auto& fields = *end.mutable_network_timing_data()->mutable_int_key_fields();
    (*fields[connectionInformationKey].mutable_map_value()->mutable_values())["proxy_url"] = std::move(url);
}

CXErrorFeedback errorFeedback(const std::optional<ORXError>& error) {
    CXErrorFeedback feedback;
    if (!error) return feedback;
    feedback.mutable_error()->set_domain(error->domain);
    feedback.mutable_error()->set_code(error->code);
    if (error->reason) {
        (*feedback.mutable_error()->mutable_user_info())["reason"].set_string_value(*error->reason);
    }
    return feedback;
}

}  // namespace orvex
