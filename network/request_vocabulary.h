#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orvex {

class Assembly;
class ORXBag;
class OrvexURLRequestBuilder;
struct ORXFlightSearchRequest;
struct ORXLookupRequest;
struct ORXRequest;
struct ORXSearchRequest;
struct RequestContext;

/// What is asked of a request builder beside its inputs. A bit field.
enum class FieldMask : std::uint32_t {
    none = 0,
    withoutLocation = 1,  ///< leave out where the user is
};

enum class RequestKind : std::uint8_t {
    bagFetch,
    bagCache,  ///< only for its URL, by which a cached bag is known to fit
    warm,
    search,
    zeroKeyword,
    moreResults,
    lookup,
    flight,
    card,
    fileDownload,
    feedbackUpload,
};

/// What a request may tell of where the user is, once the rules have been applied.
struct LocationTold {
    std::string_view latLng;  ///< empty: not told, as the next
    std::string_view source;
    bool movement = false;  ///< whether routine and transportation modes are told
};

/// A suggestion that the client showed of late, with the code of its origin.
struct SuggestionTold {
    std::string_view text;
    std::string origin;
    double score;
};

/// What one request is made of. Everything referred to outlives the building of it.
struct RequestInputs {
    RequestKind kind = RequestKind::warm;
    const RequestContext* context = nullptr;  ///< filled in by the factory
    const Assembly* assembly = nullptr;       ///< the same: settings, and peers that hold a part of the context
    const ORXBag* bag = nullptr;              ///< of a query

    // A client's query, and the same where it is of that kind.
    const ORXRequest* request = nullptr;
    const ORXSearchRequest* search = nullptr;
    const ORXLookupRequest* lookup = nullptr;
    const ORXFlightSearchRequest* flight = nullptr;
    std::string_view queryString = {};
    std::string_view temperatureUnit = {};
    std::string_view clientContext = {};

    std::string_view userAgent = {};
    std::string_view userGuid = {};
    std::string_view version = {};  ///< of the bag or file that is asked for, or of what we have
    std::string_view digest = {};   ///< of an upload's body
    bool includeLatLong = false;    ///< of a download
    FieldMask fieldMask = FieldMask::none;

    // Worked out once, by `addVocabulary`.
    LocationTold location = {};
    std::vector<SuggestionTold> suggestions = {};
};

/// One query item or header that requests may carry: how it is made, and what to tell a user who asks why.
struct VocabularyEntry {
    enum class Where : std::uint8_t { query, header };
    enum class Precedence : std::uint8_t { byDefault, forced };
    /// What is sent for these inputs; none: nothing.
    using Value = std::optional<std::string> (*)(const RequestInputs&);
    /// For the two entries that stand for items of other names: the client's own, and the debug parameters.
    using Add = void (*)(const RequestInputs&, OrvexURLRequestBuilder&);

    std::string_view name;  ///< exactly as sent; in angle brackets where `add` gives the names
    Where where = Where::query;
    Precedence precedence = Precedence::byDefault;
    bool personal = false;             ///< tells something about the person, not only about device and settings
    std::string_view source;           ///< where the value comes from
    std::string_view purpose;          ///< what the server does with it
    std::string_view switchedBy = {};  ///< the setting that changes or removes it
    Value value = nullptr;
    Add add = nullptr;
};

/// Everything that a request may carry.
[[nodiscard]] std::span<const VocabularyEntry> requestVocabulary();

/// Which entries, as positions in `requestVocabulary`, a request of this kind is made of, in the order of adding. The
/// order decides where two would set the same name.
[[nodiscard]] std::span<const std::uint8_t> constructionOrder(RequestKind kind);

/// Adds to `builder` what `inputs` call for. Runs in a read of the context queue.
void addVocabulary(RequestInputs inputs, OrvexURLRequestBuilder& builder);

}  // namespace orvex
