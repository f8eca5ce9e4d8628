#include <boost/json.hpp>
#include <cstdint>
#include <cstdlib>

#include "core/feedback_dictionary.h"
#include "core/feedback_record.h"
#include "core/feedback_records.pb.h"
#include "core/json.h"
#include "platform/counters.h"

/// A payload that is taken from the bus must come back from a session's file, and its dictionary must be JSON that is
/// the same each time.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orvex;
    static const bool quiet = [] {
        routeProtobufLog();
        return true;
    }();
    auto payload = decodeFeedbackPayload({reinterpret_cast<const char*>(data), size});
    if (!quiet || !payload) return 0;

    CXClientSession session;
    *session.add_feedbacks() = *orvexFeedbackWithPayload(*std::move(payload), {.queryId = 1, .userAgent = "fuzz"});
    CXClientSession read;
    if (!read.ParseFromString(session.SerializeAsString()) || read.feedbacks_size() != 1) std::abort();
    if (codableOf(read.feedbacks(0)) == nullptr) std::abort();

    const auto first = dictionary(session.feedbacks(0));
    const auto again = dictionary(read.feedbacks(0));
    if (first.has_value() != again.has_value()) std::abort();
    if (!first) return 0;
    const auto text = compactJSON(*first);
    if (text != compactJSON(*again) || !parseJSON(text, 2 * kORXMaximumDictionaryNesting)) std::abort();
    platform::Counters counters;
    if (!description(session.feedbacks(0), counters)) std::abort();
    return 0;
}
