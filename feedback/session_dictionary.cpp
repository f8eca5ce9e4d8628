#include "feedback/session_dictionary.h"

#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <map>
#include <utility>

#include "core/feedback_dictionary.h"
#include "core/feedback_record.h"
#include "core/feedback_vocabulary.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "feedback/daemon_record.h"
#include "feedback/session_processing_helper.h"
#include "platform/counters.h"
#include "platform/property_value.h"
#include "platform/text.h"
#include "query/cba_filter_controller.h"

namespace orvex {
namespace {

const platform::Logger& feedbackLog() { return OrvexLogForCategory(OrvexLoggingCategory::feedback); }

/// Time within the session: milliseconds since the first record that has a time.
class RelativeTime {
public:
    void stamp(CXOrvexFeedback& record) {
        const auto timestamp = codableTimestamp(record);
        if (_base == 0) _base = timestamp;
        record.set_rel_timestamp(timestamp > _base ? timestampMilliseconds(timestamp - _base) : 0);
    }

private:
    std::uint64_t _base = 0;
};

void insertFirst(boost::json::array& dictionaries, std::unique_ptr<CXOrvexFeedback> record) {
    record->set_rel_timestamp(0);
    if (auto form = dictionary(*record)) dictionaries.insert(dictionaries.begin(), *std::move(form));
}

boost::json::value resourceVersions(const CXClientSession& session) {
    if (session.resource_versions().empty()) return nullptr;
    const std::map<std::string, std::string> sorted(session.resource_versions().begin(),
                                                    session.resource_versions().end());
    boost::json::object versions;
    for (const auto& [identifier, version] : sorted) versions[identifier] = version;
    return versions;
}

std::int64_t baseTime(const CXClientSession& session) {
    if (session.remove_timestamps() || !session.has_session_start()) return 0;
    return platform::integerFromDouble(session.session_start());
}

}  // namespace

void sortByTime(SessionRecords& records) {
    std::vector<std::pair<std::uint64_t, std::size_t>> byTime;  // reading a record's time is slow
    byTime.reserve(records.size());
    for (const auto& record : records) byTime.emplace_back(codableTimestamp(record), byTime.size());
    std::ranges::sort(byTime);
    SessionRecords sorted;
    sorted.reserve(records.size());
    for (const auto& [time, position] : byTime) sorted.push_back(std::move(records[position]));
    records = std::move(sorted);
}

boost::json::array privacyFilteredFeedbacksWithRelativeTimestamp(const Assembly& assembly,
                                                                 const CXClientSession& session,
                                                                 SessionRecords records) {
    boost::json::array dictionaries;
    RelativeTime time;
    SessionProcessingHelper helper;
    for (auto& record : records) {
        time.stamp(record);
        if (const auto* codable = codableOf(record)) helper.process(*codable);
        if (auto form = dictionary(record)) {
            dictionaries.push_back(*std::move(form));
        } else {
            feedbackLog().error("nil feedback dictionary for type : {}", feedbackType(record));
            assembly.counters().add("com.kelvar.orvexd.feedbackdropped.nodictionary");
        }
    }
    const DaemonRecordOrigin origin{.userGuid = session.user_guid_string(), .userAgent = session.agent()};
    if (!helper.missingResults().empty()) {
        CXSessionMissingResultsFeedback missing;
        for (const auto& result : helper.missingResults()) *missing.add_results() = result;
        insertFirst(dictionaries, daemonRecord(assembly, missing, origin));
    }
    if (!helper.missingSuggestions().empty()) {
        CXSessionMissingSuggestionsFeedback missing;
        for (const auto& suggestion : helper.missingSuggestions()) *missing.add_suggestions() = suggestion;
        insertFirst(dictionaries, daemonRecord(assembly, missing, origin));
    }
    return dictionaries;
}

boost::json::object feedbacksToSend(const Assembly& assembly, const CXClientSession& session, SessionRecords records) {
    if (platform::lowercased(session.agent()).find("brovia") != std::string::npos) {
        records = CBAFilterController::arrayOfCBAFilteredFeedback(std::move(records));
    }
    auto filtered = privacyFilteredFeedbacksWithRelativeTimestamp(assembly, session, std::move(records));
    boost::json::object dictionary;
    dictionary["agent"] = session.agent();
    dictionary["base_time"] = baseTime(session);
    dictionary["fb"] = filtered.empty() ? boost::json::value() : boost::json::value(std::move(filtered));
    dictionary["first_use"] = session.first_use_of_the_day();
    dictionary["previous_session_end_reason"] = sessionEndReasonText(session.previous_session_end_reason());
    dictionary["resource_versions"] = resourceVersions(session);
    dictionary["user_guid"] = session.user_guid_string();
    return dictionary;
}

}  // namespace orvex
