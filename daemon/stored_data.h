#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace orvex {

class Assembly;

/// What the daemon keeps about its user, for the user to see and to remove.
/// Threading: any queue but those of the components asked.
class StoredData {
public:
    /// How many of each kind were removed: completions that were picked; feedback sessions, uploads and reports;
    /// resource files.
    using Removed = std::map<std::string, std::uint32_t>;
    using Erased = std::move_only_function<void(Removed removed)>;

    explicit StoredData(Assembly& assembly) : _assembly(assembly) {}

    /// Whether there is a kind of that name: "completions", "feedback", "resources" or "all".
    [[nodiscard]] static bool isKind(std::string_view what);

    /// Removes what is stored and what is pending of that kind; open feedback sessions are ended first. `erased`
    /// comes when it is gone from the disk, on the queue of a component.
    void erase(std::string_view what, Erased erased);

    /// Each session that waits for upload, as the JSON text that would be sent.
    [[nodiscard]] std::vector<std::string> pendingFeedback() const;

private:
    [[nodiscard]] std::uint32_t _removeWaitingSessions() const;
    [[nodiscard]] std::uint32_t _removeReports() const;

    Assembly& _assembly;
};

}  // namespace orvex
