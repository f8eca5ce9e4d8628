#include "tools/service/search_answers.h"

#include <fmt/core.h>

#include <algorithm>
#include <bit>
#include <boost/json.hpp>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <ranges>
#include <string>

#include "platform/url.h"
#include "tools/service/word_net.h"

namespace orvex {
namespace {

namespace json = boost::json;

constexpr std::size_t wordsInAnswer = 8;
constexpr std::size_t cardsOfTop = 3;
constexpr std::size_t cardsOfWord = 20;
constexpr int secondsToKeep = 3600;
constexpr int secondsToKeepNothing = 60;  // an unknown word may be known soon

std::string cardURL(std::string_view base, std::string_view lemma) {
    return fmt::format("{}/card?word={}", base, platform::percentEncode(lemma));
}

// Grows with use, and is 0 for a word that was never met.
double scoreOf(const WordNet::Word& word) { return std::round(std::log2(1.0 + word.use) * 1000) / 1000; }

json::object resultSet(std::string_view input, std::string_view query) {
    return {{"status", "OK"},           {"input", input},
            {"query", query},           {"fbq", query},
            {"suggestion", query},      {"partial_client_ip", "127.0.0.0"},
            {"results", json::array()}, {"max_age", secondsToKeepNothing}};
}

json::object card(const WordNet::Word& word, const WordNet::Sense& sense, std::size_t number, std::string_view base) {
    json::array synonyms(sense.synonyms.begin(), sense.synonyms.end());
    return {{"identifier", fmt::format("{}#{}", word.lemma, number)},
            {"type", "definition"},
            {"title", sense.title},
            {"subtitle", sense.partOfSpeech},
            {"text", sense.gloss},
            {"url", cardURL(base, word.lemma)},
            {"synonyms", std::move(synonyms)}};
}

struct Cards {
    std::size_t first = 0;  // how many senses are left out before them
    std::size_t count = 1;
};

json::object wordSet(const WordNet& words, std::string_view input, const WordNet::Word& word, Cards cards,
                     std::string_view base) {
    json::object set = resultSet(input, WordNet::spelled(word.lemma));
    const auto senses = words.senses(word, cards.first + cards.count);
    if (!senses.empty()) set["suggestion"] = senses.front().title;
    set["completion_score"] = scoreOf(word);
    set["max_age"] = secondsToKeep;
    json::array& results = set["results"].as_array();
    for (std::size_t i = cards.first; i < senses.size(); ++i) results.push_back(card(word, senses[i], i + 1, base));
    return set;
}

// The first set says how long the answer took, in milliseconds.
std::string finished(json::array sets, std::chrono::steady_clock::time_point started) {
    const std::chrono::duration<double, std::milli> duration = std::chrono::steady_clock::now() - started;
    if (!sets.empty()) sets.front().as_object()["duration"] = duration.count();
    return json::serialize(sets);
}

}  // namespace

std::string SearchAnswers::search(const Search& search, std::string_view base) const {
    const auto started = std::chrono::steady_clock::now();
    json::array sets;
    if (search.wantsWordOnly) {
        if (const auto* word = _words.findBaseForm(search.input))
            sets.push_back(wordSet(_words, search.input, *word, {.count = cardsOfWord}, base));
    } else {
        for (const auto* word : _words.completions(search.input, wordsInAnswer)) {
            const std::size_t further = search.wantsCardsOfTopOnly ? 0 : 1;
            const Cards cards = {.count = sets.empty() ? cardsOfTop : further};
            sets.push_back(wordSet(_words, search.input, *word, cards, base));
        }
    }
    if (sets.empty()) sets.push_back(resultSet(search.input, search.input));
    return finished(std::move(sets), started);
}

std::string SearchAnswers::zeroKeyword(std::string_view base) const {
    const auto started = std::chrono::steady_clock::now();
    json::array sets;
    for (const auto* word : _words.mostUsed() | std::views::take(wordsInAnswer))
        sets.push_back(wordSet(_words, "", *word, {.count = 1}, base));
    return finished(std::move(sets), started);
}

std::string SearchAnswers::lookup(std::string_view selection, std::string_view base) const {
    const auto started = std::chrono::steady_clock::now();
    json::array sets;
    const auto* word = _words.findBaseForm(selection);
    sets.push_back(word == nullptr ? resultSet(selection, selection)
                                   : wordSet(_words, selection, *word, {.count = cardsOfTop}, base));
    return finished(std::move(sets), started);
}

std::string SearchAnswers::moreResults(std::string_view input, std::string_view base) const {
    const auto started = std::chrono::steady_clock::now();
    json::array sets;
    const auto best = _words.completions(input, 1);
    sets.push_back(best.empty()
                       ? resultSet(input, input)
                       : wordSet(_words, input, *best.front(), {.first = cardsOfTop, .count = cardsOfWord}, base));
    return finished(std::move(sets), started);
}

std::string SearchAnswers::card(std::string_view text, std::string_view base) const {
    json::array cards;
    if (const auto* word = _words.find(text)) {
        const auto senses = _words.senses(*word, cardsOfWord);
        for (std::size_t i = 0; i < senses.size(); ++i) cards.push_back(orvex::card(*word, senses[i], i + 1, base));
    }
    return json::serialize(cards);
}

namespace {

bool isLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// FNV-1a: the same on every machine and at every start.
std::uint32_t hashOf(std::string_view text) {
    std::uint32_t hash = 2166136261;
    for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 16777619;
    return hash;
}

// Protobuf's wire format (https://protobuf.dev/programming-guides/encoding): a varint, and the fields that are used.
void addVarint(std::string& out, std::uint64_t value) {
    for (; value >= 0x80; value >>= 7) out.push_back(static_cast<char>(value | 0x80));
    out.push_back(static_cast<char>(value));
}

void addText(std::string& out, unsigned field, std::string_view text) {
    addVarint(out, field << 3 | 2);
    addVarint(out, text.size());
    out.append(text);
}

void addDouble(std::string& out, unsigned field, double value) {
    addVarint(out, field << 3 | 1);
    for (auto bits = std::bit_cast<std::uint64_t>(value), left = std::uint64_t{8}; left > 0; --left, bits >>= 8)
        out.push_back(static_cast<char>(bits));
}

}  // namespace

std::optional<SearchAnswers::Flight> SearchAnswers::flight(std::string_view query, double date) {
    Flight flight;
    const auto* const letters = std::ranges::find_if_not(query, isLetter);
    std::ranges::transform(query.begin(), letters, std::back_inserter(flight.carrierCode),
                           [](char c) { return c & ~0x20; });
    std::string_view rest(letters, query.end());
    if (rest.starts_with('-') || rest.starts_with(' ')) rest.remove_prefix(1);
    if (flight.carrierCode.size() < 2 || flight.carrierCode.size() > 3 || rest.empty() || rest.size() > 4) return {};
    if (!std::ranges::all_of(rest, isDigit)) return {};
    flight.flightNumber = rest;
    const std::uint32_t hash = hashOf(flight.carrierCode + flight.flightNumber);
    constexpr double day = 86400, slot = 300;
    flight.departure = std::floor(date / day) * day + hash % 288 * slot;
    flight.arrival = flight.departure + (12 + hash / 288 % 132) * slot;
    flight.status = hash % 7 == 0 ? "delayed" : "on_time";
    return flight;
}

std::string SearchAnswers::flightAsJSON(const std::optional<Flight>& flight) {
    json::array flights;
    if (flight)
        flights.push_back({{"carrier_code", flight->carrierCode},
                           {"flight_number", flight->flightNumber},
                           {"status", flight->status},
                           {"departure", flight->departure},
                           {"arrival", flight->arrival}});
    return json::serialize(flights);
}

std::string SearchAnswers::flightAsProtobuf(const std::optional<Flight>& flight) {
    std::string reply;
    if (!flight) return reply;
    std::string fields;
    addText(fields, 1, flight->carrierCode);
    addText(fields, 2, flight->flightNumber);
    addText(fields, 3, flight->status);
    addDouble(fields, 4, flight->departure);
    addDouble(fields, 5, flight->arrival);
    addText(reply, 1, fields);
    return reply;
}

}  // namespace orvex
