#pragma once

#include <boost/json/fwd.hpp>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/dispatch.h"
#include "platform/thread_annotations.h"

namespace orvex {

class Assembly;
struct ORXFileDeletedNotification;
struct ORXFileDownloadCompletedNotification;
struct ORXLookupRequest;

/// The hints of lookups: words that the system's data detectors recognise in any text. The weekly and the monthly hints
/// are resources; when one comes or goes it is handed to the data-detector store, and at start whatever the store does
/// not have as it is here.
///
/// Threading: callable from any thread. Files are handled on a queue of its own.
class Lookup : public std::enable_shared_from_this<Lookup> {
public:
    static std::shared_ptr<Lookup> create(Assembly& assembly);
    ~Lookup();
    Lookup(const Lookup&) = delete;
    Lookup& operator=(const Lookup&) = delete;

    /// Whether the user lets hints be downloaded: "LookupSuggestionsDisabled" of the shared settings is not on.
    [[nodiscard]] static bool lookupEnabled(const Assembly& assembly);

    /// "FIRST-SECOND-KIND" of a URL with the path "/x/KIND/FIRST/SECOND/…"; empty, and logged, for any other.
    [[nodiscard]] static std::string signatureFromURL(std::string_view url);

    /// Drops from each element of a server's answer the "results" whose "lookup_instructions" do not fit the text
    /// around the selection, `request.queryContext`: too low a sum of the weights of the keywords in it, a completion
    /// that is not in it, too few words in common with the subject. `locale` says how letters compare.
    static void filterLookupResultsWithRequest(const ORXLookupRequest& request, boost::json::value& response,
                                               const std::string& locale);

    /// Waits until what was queued has run.
    void drainQueue() {
        _queue.sync([] {});
    }

private:
    explicit Lookup(Assembly& assembly);

    struct Hints {
        std::string identifier;
        std::optional<std::string> location;  ///< none: deleted
        std::string version;
    };
    void _handleHintsFile(Hints hints);
    void _process(const Hints& hints) ORX_REQUIRES(_queue);
    void _reprocessHintsFiles();
    void _reprocess(std::string_view identifier, const std::optional<std::string>& version) ORX_REQUIRES(_queue);

    // Constant after construction.
    Assembly& _assembly;

    // Synchronised by themselves.
    platform::SerialQueue _queue;
};

}  // namespace orvex
