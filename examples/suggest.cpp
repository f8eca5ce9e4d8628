#include <orvex/client.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>
#include <cerrno>
#include <iostream>
#include <string>
#include <vector>

#include "feedback_records.pb.h"

// Suggestions while the user types. Each line of standard input is what is in the search field by now; an empty line is
// the Enter key, which picks the first suggestion. docs/client.md walks through it.

namespace {

using namespace orvex::client;

constexpr std::uint32_t typed = 24;       ///< the trigger event of a search as the user types
constexpr int suggestionEngagement = 20;  ///< the type of a CXSuggestionEngagementFeedback

/// The texts that the server suggests. Its body is JSON: a list of result sets. What has another form is left out.
std::vector<std::string> suggestionsIn(const std::string& body) {
    std::vector<std::string> suggestions;
    boost::system::error_code error;
    const auto value = boost::json::parse(body, error);
    const auto* sets = error ? nullptr : value.if_array();
    if (sets == nullptr) return suggestions;
    for (const auto& set : *sets) {
        const auto* object = set.if_object();
        const auto* text = object != nullptr ? object->if_contains("suggestion") : nullptr;
        if (text != nullptr && text->is_string()) suggestions.emplace_back(text->get_string());
    }
    return suggestions;
}

/// What the daemon files: that the user picked this one.
std::string pickedRecord(const std::string& suggestion, const std::string& input) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    orvex::CXFeedbackPayload payload;
    payload.set_type(suggestionEngagement);
    auto& engagement = *payload.mutable_suggestion_engagement();
    engagement.set_timestamp(static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 +
                             static_cast<std::uint64_t>(now.tv_nsec));
    engagement.mutable_suggestion()->set_suggestion(suggestion);
    engagement.mutable_suggestion()->set_query(input);
    return payload.SerializeAsString();
}

class SearchField {
public:
    explicit SearchField(Client& client) : _client(client) {
        _client.onBagDidLoad([](const std::expected<std::string, Error>& bag) {
            std::cout << "configuration: " << (bag ? "loaded" : bag.error().reason) << std::endl;
        });
        _client.onDaemon([](Client::Daemon change) {
            std::cout << "daemon: " << (change == Client::Daemon::came ? "here" : "gone") << std::endl;
        });
    }

    void take(const std::string& line) {
        if (!line.empty()) return _search(line);
        _picks = true;
        if (_shown == _newest) _pick();
    }

    [[nodiscard]] bool isBusy() const { return _underWay > 0; }

private:
    void _search(const std::string& text) {
        _text = text;
        _picks = false;
        ++_newest;
        ++_underWay;
        Request request{.kind = Request::Kind::search, .queryId = _newest};
        request.queryString = text;
        request.triggerEvent = typed;
        _client.request(request, [this](std::expected<Reply, Error> reply) {
            --_underWay;
            if (!reply) return _tell(reply.error());
            if (reply->queryId == _newest) _show(*reply);  // else the user has typed on
        });
    }

    void _show(const Reply& reply) {
        _shown = reply.queryId;
        _suggestions = suggestionsIn(reply.data);
        std::cout << _text << ':';
        for (const auto& suggestion : _suggestions) std::cout << "  " << suggestion;
        std::cout << std::endl;
        if (_picks) _pick();
    }

    /// Remembered, so that it is offered for this beginning again, and reported, so that the server may learn.
    void _pick() {
        _picks = false;
        if (_suggestions.empty()) return;
        const auto& picked = _suggestions.front();
        _underWay += 2;
        _client.addCompletion(picked, _text, [this](auto result) { _noted("remembered", result); });
        _client.reportFeedback(pickedRecord(picked, _text), _shown,
                               [this](auto result) { _noted("reported", result); });
    }

    void _noted(const char* what, const std::expected<void, Error>& result) {
        --_underWay;
        if (!result) return _tell(result.error());
        std::cout << what << std::endl;
    }

    static void _tell(const Error& error) { std::cerr << error.reason << ' ' << error.domain << std::endl; }

    Client& _client;
    std::string _text;
    std::uint64_t _newest = 0;  ///< query
    std::uint64_t _shown = 0;
    std::vector<std::string> _suggestions;
    bool _picks = false;  ///< the first suggestion to the newest query, once it is there
    int _underWay = 0;
};

/// The lines that have come whole; false at the end of the input.
bool readLines(std::string& rest, SearchField& field) {
    char piece[4096];
    const ssize_t got = ::read(STDIN_FILENO, piece, sizeof piece);
    if (got <= 0) return false;
    rest.append(piece, static_cast<std::size_t>(got));
    for (std::size_t end = 0; (end = rest.find('\n')) != std::string::npos; rest.erase(0, end + 1)) {
        field.take(rest.substr(0, end));
    }
    return true;
}

/// The program's main loop: what the client waits for is one source of it.
int run(Client& client) {
    SearchField field(client);
    std::string rest;
    for (bool reads = true; reads || field.isBusy();) {
        const auto limit = client.timeout();
        pollfd sources[] = {{client.descriptor(), client.events(), 0}, {reads ? STDIN_FILENO : -1, POLLIN, 0}};
        if (::poll(sources, 2, limit ? static_cast<int>(limit->count()) : -1) < 0 && errno != EINTR) return 1;
        if (sources[1].revents != 0) reads = readLines(rest, field);
        if (const auto processed = client.process(); !processed) {
            std::cerr << processed.error().reason << std::endl;
            return 3;
        }
    }
    return 0;
}

}  // namespace

int main() {
    auto client = Client::connect({.identifier = "com.example.suggest", .userAgent = "suggest/1.0"});
    if (!client) {
        std::cerr << client.error().reason << std::endl;
        return 3;
    }
    return run(*client);
}
