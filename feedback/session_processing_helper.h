#pragma once

#include <set>
#include <string>
#include <vector>

#include "core/feedback_records.pb.h"

namespace orvex {

/// Looks through the records of one session, in their order, for what was used but never announced.
///
/// A result is missing when a record shows it or says that it was engaged (types 7 and 8) and no earlier one ranked or
/// received it (3, 4, 5, 6, 23, 24); a suggestion, when an engagement (20) carries it and no earlier record showed it
/// (22). What tells them apart is their identifier; one without is never missing.
/// Threading: none of its own.
class SessionProcessingHelper {
public:
    void process(const google::protobuf::Message& codable);

    /// Each once, as the first record had it, in the order of first appearance.
    [[nodiscard]] const std::vector<CXResult>& missingResults() const { return _missingResults; }
    [[nodiscard]] const std::vector<CXSuggestion>& missingSuggestions() const { return _missingSuggestions; }

private:
    void _announce(const CXResult& result) { _knownResults.insert(result.identifier()); }
    void _use(const CXResult& result);
    void _use(const CXSuggestion& suggestion);
    template <class Sections>
    void _announceSections(const Sections& sections);

    std::set<std::string> _knownResults;  ///< announced, or missing already
    std::set<std::string> _knownSuggestions;
    std::vector<CXResult> _missingResults;
    std::vector<CXSuggestion> _missingSuggestions;
};

}  // namespace orvex
