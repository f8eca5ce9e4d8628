#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

/// What goes to the daemon and what comes back. Text is UTF-8 without NUL bytes; a call with any other text ends with
/// an error. In a request an empty text, an empty list, 0 and false all mean "not given".
namespace orvex::client {

/// Why a call had no result.
struct Error {
    enum class Kind : std::uint8_t {
        noBus,      ///< there is no bus, or it has gone away: this client is of no more use
        noDaemon,   ///< nobody has the daemon's name, and the bus knows nobody to start
        noAnswer,   ///< time ran out, or the daemon went: whether the call was carried out is not known
        refused,    ///< any other bus error: `domain` is its name
        failed,     ///< the daemon's own error: `domain` and `code`, for example "ORXURLErrorDomain" and -1001
        malformed,  ///< the answer has not the form that it must have
        badCall,    ///< what was to be sent cannot be: text that is not UTF-8, for example
    };
    Kind kind = Kind::failed;
    std::string domain{};  ///< of `failed`; else the bus error's name where there was one
    std::int64_t code = 0;
    std::string reason{};  ///< for people; may be empty when the daemon gave none
};

/// Seconds since 1970, UTC.
using Date = std::chrono::duration<double>;

struct Suggestion {
    std::string suggestion{};
    std::string query{};
    double score = 0;
    std::uint32_t type = 0;
    std::string topicIdentifier{};
    std::string fbr{};
};

/// One request of any kind; an entry that its kind does not know is ignored by the daemon.
struct Request {
    enum class Kind : std::uint8_t { search, moreResults, card, zeroKeyword, lookup, flight };
    Kind kind = Kind::search;

    // Of all kinds.
    std::uint64_t queryId = 0;  ///< comes back in the reply
    double scale = 0;           ///< of the screen; the main screen's when not given
    bool verboseReply = false;  ///< asks for `Reply::httpRequest` and `httpResponse`
    std::uint32_t triggerEvent = 0;
    std::string keyboardInputMode{};
    std::vector<std::pair<std::string, std::string>> queryItems{};  ///< the program's own, in order

    // Of some.
    std::string queryString{};      ///< search, lookup
    std::string temperatureUnit{};  ///< search, zeroKeyword
    std::string l2Version{};        ///< search: ranking models
    std::string l3Version{};
    std::string topTopics{};                               ///< search: a JSON value
    std::optional<Suggestion> engagedSuggestion{};         ///< search: the one that the user picked
    std::vector<Suggestion> completionCacheSuggestions{};  ///< search
    std::string cardURL{};                                 ///< card: https, or http to this machine
    std::string queryContext{};                            ///< lookup: the text around the selection
    std::string lookupHintDomain{};                        ///< lookup
    std::uint32_t lookupSelectionType = 0;                 ///< lookup
    std::string clientContext{};                           ///< lookup, flight
    std::string flightQuery{};                             ///< flight: carrier and number
    std::optional<Date> flightDate{};                      ///< flight
};

struct HTTPRequest {
    std::string url;
    std::map<std::string, std::string> headers;
};
struct HTTPResponse {
    std::int64_t statusCode = 0;
    std::map<std::string, std::string> headers;
};

struct Reply {
    std::uint64_t queryId = 0;
    bool isNothing = true;  ///< there is no answer, which is no error: nothing below is set
    double scale = 0;
    std::string data{};  ///< the server's body, byte by byte
    std::optional<HTTPRequest> httpRequest{};
    std::optional<HTTPResponse> httpResponse{};
    std::optional<std::string> geoSessionEntity{};
    std::vector<Suggestion> localSuggestions{};
};

/// A client that the daemon knows.
struct Session {
    std::string identifier;
    std::string agent;
};

/// How much completions that were picked in these times count.
struct Parameters {
    double broviaLast1Hour = 10;
    double broviaLast1Day = 1;
    double broviaLast1Week = 0.1;
    double broviaLast1Month = 0.01;
    double broviaAll = 0.001;
    double broviaMostRecent = 1;
    double minThresholdToSend = 0;
};

/// An open file, closed with its owner.
class [[gnu::visibility("default")]] File {
public:
    explicit File(int descriptor) : _descriptor(descriptor) {}
    File(File&& other) noexcept : _descriptor(other.release()) {}
    File& operator=(File&& other) noexcept {
        std::swap(_descriptor, other._descriptor);
        return *this;
    }
    ~File();

    [[nodiscard]] int descriptor() const { return _descriptor; }
    [[nodiscard]] int release() { return std::exchange(_descriptor, -1); }  ///< now the caller's to close

private:
    int _descriptor;
};

/// A file that the server gave to keep. The daemon may replace its own at any time; this one stays what it was.
struct Resource {
    File file;  ///< for reading
    std::uint64_t size = 0;
    Date creationDate{};
    Date modificationDate{};
    std::uint32_t permissions = 0;  ///< as chmod(2) takes them
};

struct Value;

/// `ay`
struct Bytes {
    std::string bytes;
};
using List = std::vector<Value>;
/// A dictionary with text for keys, in the order of arrival.
struct Dictionary {
    std::vector<std::pair<std::string, Value>> entries;

    /// Null when there is none.
    [[nodiscard]] const Value* find(std::string_view key) const;
};

/// A D-Bus value of any type, for the calls that have no operation of their own. Numbers come as the widest of their
/// family, object paths and signatures as text, variants as what is in them, structures as lists, files as nothing.
/// It is sent as its alternative's type: b, x, t, d, s or ay; the others cannot be sent.
struct Value {
    using Content =
        std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string, Bytes, List, Dictionary>;

    Value() = default;
    template <class T>
        requires(!std::is_same_v<std::remove_cvref_t<T>, Value> && std::is_constructible_v<Content, T>)
    Value(T&& value) : content(std::forward<T>(value)) {}

    template <class T>
    [[nodiscard]] const T* as() const {
        return std::get_if<T>(&content);
    }

    Content content;
};

inline const Value* Dictionary::find(std::string_view key) const {
    for (const auto& [name, value] : entries) {
        if (name == key) return &value;
    }
    return nullptr;
}

}  // namespace orvex::client
