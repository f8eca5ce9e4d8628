#pragma once

#include <boost/json/fwd.hpp>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace orvex {

class WordNet;

/// What the server answers about words: result sets as docs/reference-server.md defines them, as JSON text. Every
/// answer but `flight`'s is a list of result sets.
/// Threading: immutable, callable from any thread.
class SearchAnswers {
public:
    /// `words` outlives this.
    explicit SearchAnswers(const WordNet& words) : _words(words) {}

    struct Search {
        std::string_view input;
        bool wantsWordOnly = false;        ///< the word itself with all its senses, instead of words that begin so
        bool wantsCardsOfTopOnly = false;  ///< the further words come as bare suggestions
    };

    /// `base` is the server's own address, "http://127.0.0.1:8080": cards carry URLs below it, here and below.
    [[nodiscard]] std::string search(const Search& search, std::string_view base) const;
    [[nodiscard]] std::string zeroKeyword(std::string_view base) const;
    [[nodiscard]] std::string lookup(std::string_view selection, std::string_view base) const;

    /// One result set with the cards that a search for `input` left out; empty for an unknown word.
    [[nodiscard]] std::string moreResults(std::string_view input, std::string_view base) const;

    /// The whole card of one word, every sense in it; an empty list for an unknown word.
    [[nodiscard]] std::string card(std::string_view word, std::string_view base) const;

    /// The status of the flight "AB-123", "AB123" or "AB 123", made up but always the same for one flight and day.
    /// None where `query` is no flight.
    struct Flight {
        std::string carrierCode, flightNumber, status;
        double departure = 0, arrival = 0;  ///< seconds since 1970
    };
    [[nodiscard]] static std::optional<Flight> flight(std::string_view query, double date);
    [[nodiscard]] static std::string flightAsJSON(const std::optional<Flight>& flight);
    [[nodiscard]] static std::string flightAsProtobuf(const std::optional<Flight>& flight);

private:
    const WordNet& _words;
};

}  // namespace orvex
