#include "client/message.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "client/answers.h"

// Inside this file an error is a negative errno, as sd-bus gives them.

namespace orvex::client {
namespace {

constexpr std::size_t maxValueBytes = std::size_t{64} << 20;  ///< of what one message is read into
constexpr int maxDepth = 64;                                  ///< of containers; what D-Bus allows in a message

const char* kindName(Request::Kind kind) {
    switch (kind) {
        case Request::Kind::search:
            return "search";
        case Request::Kind::moreResults:
            return "more_results";
        case Request::Kind::card:
            return "card";
        case Request::Kind::zeroKeyword:
            return "zero_keyword";
        case Request::Kind::lookup:
            return "lookup";
        case Request::Kind::flight:
            return "flight";
    }
    return "";
}

/// Each step gives a negative errno, 0 at the end of the container, or more.
class ValueReader {
public:
    explicit ValueReader(sd_bus_message* message) : _message(message) {}

    int list(List& into) {
        for (;;) {
            Value value;
            if (const int r = _next(value); r <= 0) return r;
            into.push_back(std::move(value));
        }
    }

private:
    int _next(Value& value) {
        char type = 0;
        const char* contents = nullptr;
        if (const int r = sd_bus_message_peek_type(_message, &type, &contents); r <= 0) return r;
        if (const int r = _spend(sizeof(Value)); r < 0) return r;
        switch (type) {
            case 'y':
                return _number<std::uint8_t, std::uint64_t>(type, value);
            case 'q':
                return _number<std::uint16_t, std::uint64_t>(type, value);
            case 'u':
                return _number<std::uint32_t, std::uint64_t>(type, value);
            case 't':
                return _number<std::uint64_t, std::uint64_t>(type, value);
            case 'n':
                return _number<std::int16_t, std::int64_t>(type, value);
            case 'i':
                return _number<std::int32_t, std::int64_t>(type, value);
            case 'x':
                return _number<std::int64_t, std::int64_t>(type, value);
            case 'd':
                return _number<double, double>(type, value);
            case 'b':
                return _number<int, bool>(type, value);
            case 's':
            case 'o':
            case 'g':
                return _text(type, value);
            case 'h':
                return _file();
            default:
                return _container(type, contents, value);
        }
    }

    template <class Wire, class Kept>
    int _number(char type, Value& value) {
        Wire read{};
        const int r = sd_bus_message_read_basic(_message, type, &read);
        value.content = static_cast<Kept>(read);
        return r;
    }

    int _text(char type, Value& value) {
        const char* text = "";
        const int r = sd_bus_message_read_basic(_message, type, &text);
        if (r <= 0) return r;
        value.content = std::string(text);
        return _spend(std::string_view(text).size());
    }

    int _file() {
        int lent = -1;
        return sd_bus_message_read_basic(_message, 'h', &lent);
    }

    int _container(char type, const char* contents, Value& value) {
        if (type == 'a' && std::string_view(contents) == "y") return _bytes(value);
        if (_depth == maxDepth) return -ELOOP;
        int r = sd_bus_message_enter_container(_message, type, contents);
        if (r <= 0) return r < 0 ? r : -EBADMSG;
        ++_depth;
        if (type == 'v') {
            r = _next(value);
            if (r == 0) r = -EBADMSG;
        } else if (type == 'a' && std::string_view(contents).starts_with("{s")) {
            r = _dictionary(value.content.emplace<Dictionary>());
        } else {
            r = list(value.content.emplace<List>());
        }
        --_depth;
        if (r >= 0) r = sd_bus_message_exit_container(_message);
        return r < 0 ? r : 1;
    }

    int _bytes(Value& value) {
        const void* bytes = nullptr;
        std::size_t size = 0;
        if (const int r = sd_bus_message_read_array(_message, 'y', &bytes, &size); r < 0) return r;
        if (const int r = _spend(size); r < 0) return r;
        value.content = Bytes{std::string(static_cast<const char*>(bytes), size)};
        return 1;
    }

    int _dictionary(Dictionary& dictionary) {
        for (;;) {
            char type = 0;
            const char* contents = nullptr;
            int r = sd_bus_message_peek_type(_message, &type, &contents);
            if (r <= 0) return r;
            const char* key = "";
            r = sd_bus_message_enter_container(_message, type, contents);
            if (r > 0) r = sd_bus_message_read_basic(_message, 's', &key);
            if (r > 0) r = _spend(std::string_view(key).size());
            Value value;
            if (r > 0) r = _next(value);
            if (r <= 0) return r < 0 ? r : -EBADMSG;
            dictionary.entries.emplace_back(key, std::move(value));
            if (r = sd_bus_message_exit_container(_message); r < 0) return r;
        }
    }

    int _spend(std::size_t bytes) {
        _spent += bytes;
        return _spent > maxValueBytes ? -E2BIG : 1;
    }

    sd_bus_message* const _message;
    int _depth = 0;
    std::size_t _spent = 0;
};

}  // namespace

File::~File() {
    if (_descriptor >= 0) ::close(_descriptor);
}

// What comes.

std::expected<List, Error> readValues(sd_bus_message* message) {
    List values;
    const int r = ValueReader(message).list(values);
    if (r < 0) return std::unexpected(malformed(std::generic_category().message(-r)));
    return values;
}

std::expected<Resource, Error> readResource(sd_bus_message* message) {
    int lent = -1;  // the message closes it
    if (sd_bus_message_read_basic(message, 'h', &lent) <= 0) return std::unexpected(malformed("no file"));
    File file(::fcntl(lent, F_DUPFD_CLOEXEC, 3));
    if (file.descriptor() < 0) return std::unexpected(malformed(std::generic_category().message(errno)));
    const auto attributes = readValues(message);
    if (!attributes) return std::unexpected(attributes.error());
    return resourceIn(std::move(file), *attributes);
}

// What goes.

OutgoingMessage::OutgoingMessage(sd_bus* bus, const Method& method) {
    sd_bus_message* made = nullptr;
    _error =
        sd_bus_message_new_method_call(bus, &made, "com.kelvar.orvexd", method.path, method.interface, method.member);
    _message.reset(_error < 0 ? nullptr : made);
    if (_error > 0) _error = 0;
}

template <class Add>
OutgoingMessage& OutgoingMessage::_add(Add add) {
    if (_error == 0) {
        const int r = add();
        if (r < 0) _error = r;
    }
    return *this;
}

OutgoingMessage& OutgoingMessage::text(std::string_view text) {
    return _add([&] {
        if (text.contains('\0')) return -EINVAL;
        return sd_bus_message_append_basic(_message.get(), 's',
                                           std::string(text).c_str());  // refuses what is not UTF-8
    });
}

OutgoingMessage& OutgoingMessage::bytes(std::string_view bytes) {
    return _add([&] { return sd_bus_message_append_array(_message.get(), 'y', bytes.data(), bytes.size()); });
}

OutgoingMessage& OutgoingMessage::number(std::uint64_t number) {
    return _add([&] { return sd_bus_message_append_basic(_message.get(), 't', &number); });
}

OutgoingMessage& OutgoingMessage::number(double number) {
    return _add([&] { return sd_bus_message_append_basic(_message.get(), 'd', &number); });
}

OutgoingMessage& OutgoingMessage::value(const Value& value) {
    if (const auto* own = value.as<std::string>()) return text(*own);
    if (const auto* own = value.as<Bytes>()) return bytes(own->bytes);
    if (const auto* own = value.as<std::uint64_t>()) return number(*own);
    if (const auto* own = value.as<double>()) return number(*own);
    return _add([&] {
        if (const auto* own = value.as<std::int64_t>()) return sd_bus_message_append_basic(_message.get(), 'x', own);
        const auto* truth = value.as<bool>();
        const int sent = truth != nullptr && *truth ? 1 : 0;
        return truth != nullptr ? sd_bus_message_append_basic(_message.get(), 'b', &sent) : -EINVAL;
    });
}

OutgoingMessage& OutgoingMessage::neverStartDaemon() {
    return _add([&] { return sd_bus_message_set_auto_start(_message.get(), 0); });
}

OutgoingMessage& OutgoingMessage::copy(sd_bus_message* sent) {
    return _add([&] {
        const int r = sd_bus_message_rewind(sent, 1);
        return r < 0 ? r : sd_bus_message_copy(_message.get(), sent, 1);
    });
}

OutgoingMessage& OutgoingMessage::beginDictionary() {
    return _add([&] { return sd_bus_message_open_container(_message.get(), 'a', "{sv}"); });
}

OutgoingMessage& OutgoingMessage::endDictionary() {
    return _add([&] { return sd_bus_message_close_container(_message.get()); });
}

template <class Add>
OutgoingMessage& OutgoingMessage::_entry(const char* key, const char* type, Add add) {
    _add([&] { return sd_bus_message_open_container(_message.get(), 'e', "sv"); });
    text(key);
    _add([&] { return sd_bus_message_open_container(_message.get(), 'v', type); });
    add();
    _add([&] { return sd_bus_message_close_container(_message.get()); });
    return _add([&] { return sd_bus_message_close_container(_message.get()); });
}

OutgoingMessage& OutgoingMessage::entry(const char* key, std::string_view text) {
    return text.empty() ? *this : _entry(key, "s", [&] { this->text(text); });
}

OutgoingMessage& OutgoingMessage::entry(const char* key, std::uint32_t number) {
    if (number == 0) return *this;
    return _entry(key, "u", [&] { _add([&] { return sd_bus_message_append_basic(_message.get(), 'u', &number); }); });
}

OutgoingMessage& OutgoingMessage::entry(const char* key, std::uint64_t number) {
    return number == 0 ? *this : _entry(key, "t", [&] { this->number(number); });
}

OutgoingMessage& OutgoingMessage::entry(const char* key, double number) {
    return number == 0 ? *this : _entry(key, "d", [&] { this->number(number); });
}

OutgoingMessage& OutgoingMessage::entry(const char* key, bool truth) {
    return truth ? _entry(key, "b", [&] { value(truth); }) : *this;
}

void OutgoingMessage::_suggestion(const Suggestion& suggestion) {
    beginDictionary();
    entry("suggestion", suggestion.suggestion).entry("query", suggestion.query).entry("score", suggestion.score);
    entry("type", suggestion.type).entry("topic_identifier", suggestion.topicIdentifier).entry("fbr", suggestion.fbr);
    endDictionary();
}

OutgoingMessage& OutgoingMessage::request(const Request& request) {
    text(kindName(request.kind)).beginDictionary();
    entry("query_id", request.queryId).entry("scale", request.scale).entry("verbose_reply", request.verboseReply);
    entry("trigger_event", request.triggerEvent).entry("keyboard_input_mode", request.keyboardInputMode);
    if (!request.queryItems.empty()) {
        _entry("query_items", "a(ss)", [&] {
            _add([&] { return sd_bus_message_open_container(_message.get(), 'a', "(ss)"); });
            for (const auto& [name, value] : request.queryItems) {
                _add([&] { return sd_bus_message_open_container(_message.get(), 'r', "ss"); });
                text(name).text(value);
                endDictionary();
            }
            endDictionary();
        });
    }
    entry("query_string", request.queryString).entry("temperature_unit", request.temperatureUnit);
    entry("l2_version", request.l2Version).entry("l3_version", request.l3Version);
    entry("top_topics", request.topTopics);
    if (request.engagedSuggestion) {
        _entry("engaged_suggestion", "a{sv}", [&] { _suggestion(*request.engagedSuggestion); });
    }
    if (!request.completionCacheSuggestions.empty()) {
        _entry("completion_cache_suggestions", "aa{sv}", [&] {
            _add([&] { return sd_bus_message_open_container(_message.get(), 'a', "a{sv}"); });
            for (const auto& suggestion : request.completionCacheSuggestions) _suggestion(suggestion);
            endDictionary();
        });
    }
    entry("card_url", request.cardURL).entry("query_context", request.queryContext);
    entry("lookup_hint_domain", request.lookupHintDomain).entry("lookup_selection_type", request.lookupSelectionType);
    entry("client_context", request.clientContext).entry("flight_query", request.flightQuery);
    if (request.flightDate) _entry("flight_date", "d", [&] { number(request.flightDate->count()); });
    return endDictionary();
}

}  // namespace orvex::client
