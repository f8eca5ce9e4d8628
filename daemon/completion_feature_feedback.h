#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace orvex {

class Assembly;
class CXResult;
class ORXBag;

/// Reports of how the engaged completions of this device did: for a result that was shown or engaged, how often its
/// input had led to which completion. Each report is a file that the custom-feedback flusher uploads later.
///
/// Only results that carry the server's blob, only where the bag asks for it, only in as many seconds of a hundred as
/// the bag says, and none while feedback is switched off.
/// Threading: callable from any thread; the rest happens on the pool.
class CompletionFeatureFeedback {
public:
    enum class Engaged : bool { no, yes };

    /// `bag` may be null. It is outlived by the assembly.
    CompletionFeatureFeedback(Assembly& assembly, const ORXBag* bag) : _assembly(assembly), _bag(bag) {}

    /// `client` is a number of `EngagedClient`.
    void sendForResult(const CXResult& result, std::int64_t client, Engaged didEngage) const;

    /// Writes one report, unless it is empty: whole or not at all. A failure is logged.
    static void sendCounts(Assembly& assembly, const std::map<std::string, std::int64_t>& counts);

private:
    [[nodiscard]] bool _isSampled() const;

    Assembly& _assembly;
    const ORXBag* const _bag;
};

}  // namespace orvex
