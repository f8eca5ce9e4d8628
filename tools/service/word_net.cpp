#include "tools/service/word_net.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <iterator>
#include <ranges>
#include <utility>

namespace orvex {
namespace {

constexpr std::array<const char*, 4> suffixes = {"noun", "verb", "adj", "adv"};
constexpr std::array<std::string_view, 4> names = {"noun", "verb", "adjective", "adverb"};
constexpr std::size_t mostUsedWords = 64;

// How forms are made: an ending, and what it stands for (morphy(7WN)).
struct Ending {
    std::size_t partOfSpeech;
    std::string_view form, base;
};
constexpr Ending endings[] = {
    {0, "s", ""},      {0, "ses", "s"},   {0, "xes", "x"}, {0, "zes", "z"}, {0, "ches", "ch"},
    {0, "shes", "sh"}, {0, "men", "man"}, {0, "ies", "y"}, {1, "s", ""},    {1, "ies", "y"},
    {1, "es", "e"},    {1, "es", ""},     {1, "ed", "e"},  {1, "ed", ""},   {1, "ing", "e"},
    {1, "ing", ""},    {2, "er", ""},     {2, "est", ""},  {2, "er", "e"},  {2, "est", "e"},
};

// The next piece of `text` up to `separator`, which goes with it.
std::string_view take(std::string_view& text, char separator) {
    const std::size_t end = text.find(separator);
    const std::string_view piece = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return piece;
}

std::uint32_t number(std::string_view text, int base = 10) {
    std::uint32_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value, base);
    return value;
}

std::string lemmaOf(std::string_view text) {
    std::string lemma(text);
    for (char& c : lemma) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (c == ' ') c = '_';
    }
    return lemma;
}

// The spelling of the data files, without the marks that say where an adjective may stand: "outback(a)".
std::string_view unmarked(std::string_view word) { return word.substr(0, word.find('(')); }

bool isBetter(const WordNet::Word* a, const WordNet::Word* b) {
    if (a->use != b->use) return a->use > b->use;
    if (a->lemma.size() != b->lemma.size()) return a->lemma.size() < b->lemma.size();
    return a->lemma < b->lemma;
}

}  // namespace

class WordNet::File {
public:
    static platform::Result<std::unique_ptr<File>> map(const std::string& path) {
        const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat status{};
        if (descriptor < 0 || ::fstat(descriptor, &status) != 0) return _failure(path, descriptor);
        const auto size = static_cast<std::size_t>(status.st_size);
        void* start = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, descriptor, 0);
        if (start == MAP_FAILED) return _failure(path, descriptor);
        ::close(descriptor);
        return std::unique_ptr<File>(new File(start, size));
    }
    ~File() { ::munmap(_start, _size); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    [[nodiscard]] std::string_view text() const { return {static_cast<const char*>(_start), _size}; }

private:
    File(void* start, std::size_t size) : _start(start), _size(size) {}

    static std::unexpected<platform::Failure> _failure(const std::string& path, int descriptor) {
        const int code = errno;
        if (descriptor >= 0) ::close(descriptor);
        return platform::failure(code,
                                 fmt::format("cannot read {}: {} (package wordnet-base)", path, strerrordesc_np(code)));
    }

    void* const _start;
    const std::size_t _size;
};

struct WordNet::Entry {
    std::string_view lemma;
    std::string_view rest;  // of its line in the index
    std::uint32_t use = 0;
    std::uint8_t partOfSpeech = 0;
};

WordNet::WordNet() = default;
WordNet::~WordNet() = default;

platform::Result<std::unique_ptr<WordNet>> WordNet::open(const std::string& directory) {
    std::unique_ptr<WordNet> words(new WordNet);
    if (auto mapped = words->_map(directory); !mapped) return std::unexpected(mapped.error());
    words->_readIndexes();
    if (words->_words.empty()) return platform::failure(0, fmt::format("{} holds no words", directory));
    words->_readUse();
    words->_chooseMostUsed();
    return words;
}

platform::Result<void> WordNet::_map(const std::string& directory) {
    std::vector<std::pair<std::unique_ptr<File>*, std::string>> wanted = {{&_counts, "cntlist.rev"}};
    for (std::size_t i = 0; i < partsOfSpeech; ++i) {
        wanted.emplace_back(&_indexes[i], fmt::format("index.{}", suffixes[i]));
        wanted.emplace_back(&_data[i], fmt::format("data.{}", suffixes[i]));
        wanted.emplace_back(&_exceptions[i], fmt::format("{}.exc", suffixes[i]));
    }
    for (auto& [file, name] : wanted) {
        auto mapped = File::map(directory + "/" + name);
        if (!mapped) return std::unexpected(mapped.error());
        *file = std::move(*mapped);
    }
    return {};
}

void WordNet::_readIndexes() {
    for (std::size_t i = 0; i < partsOfSpeech; ++i) {
        std::vector<Entry> read, merged;
        for (std::string_view text = _indexes[i]->text(); !text.empty();) {
            std::string_view line = take(text, '\n');
            if (line.empty() || line.front() == ' ') continue;  // the licence
            const std::string_view lemma = take(line, ' ');
            read.push_back({.lemma = lemma, .rest = line, .partOfSpeech = static_cast<std::uint8_t>(i)});
        }
        if (!std::ranges::is_sorted(read, {}, &Entry::lemma)) std::ranges::sort(read, {}, &Entry::lemma);
        merged.reserve(_entries.size() + read.size());
        std::ranges::merge(_entries, read, std::back_inserter(merged), {}, &Entry::lemma, &Entry::lemma);
        _entries = std::move(merged);
    }
    for (std::size_t i = 0; i < _entries.size(); ++i) {
        if (_words.empty() || _words.back().lemma != _entries[i].lemma)
            _words.push_back({.lemma = _entries[i].lemma, .firstEntry = static_cast<std::uint32_t>(i)});
        ++_words.back().entryCount;
    }
}

// A line is "lemma%S:… sense-number count", S being the part of speech from 1, 5 an adjective's satellite.
void WordNet::_readUse() {
    for (std::string_view text = _counts->text(); !text.empty();) {
        std::string_view line = take(text, '\n');
        const std::string_view key = take(line, ' ');
        const std::size_t mark = key.find('%');
        if (mark == std::string_view::npos || mark + 1 >= key.size()) continue;
        const std::uint32_t kind = number(key.substr(mark + 1, 1));
        const auto* word = find(key.substr(0, mark));
        if (word == nullptr) continue;
        take(line, ' ');
        const std::uint32_t use = number(line);
        _words[static_cast<std::size_t>(word - _words.data())].use += use;
        for (std::uint32_t i = word->firstEntry; i < word->firstEntry + word->entryCount; ++i)
            if (_entries[i].partOfSpeech + 1U == (kind == 5 ? 3 : kind)) _entries[i].use += use;
    }
}

void WordNet::_chooseMostUsed() {
    for (const Word& word : _words)
        if (word.lemma.size() >= 4 && word.use > 0) _mostUsed.push_back(&word);
    const std::size_t count = std::min(mostUsedWords, _mostUsed.size());
    std::ranges::partial_sort(_mostUsed, _mostUsed.begin() + static_cast<std::ptrdiff_t>(count), isBetter);
    _mostUsed.resize(count);
    _mostUsed.shrink_to_fit();
}

std::vector<const WordNet::Word*> WordNet::completions(std::string_view text, std::size_t limit) const {
    const std::string prefix = lemmaOf(text);
    if (prefix.empty()) return {};
    const auto range = std::ranges::equal_range(_words, std::string_view(prefix), {},
                                                [&](const Word& word) { return word.lemma.substr(0, prefix.size()); });
    std::vector<const Word*> best(std::min(limit, range.size()));
    std::ranges::partial_sort_copy(
        range | std::views::transform([](const Word& word) { return &word; }), best, [&](const Word* a, const Word* b) {
            const bool aIsIt = a->lemma.size() == prefix.size(), bIsIt = b->lemma.size() == prefix.size();
            return aIsIt != bIsIt ? aIsIt : isBetter(a, b);
        });
    return best;
}

const WordNet::Word* WordNet::find(std::string_view text) const {
    const std::string lemma = lemmaOf(text);
    const auto found = std::ranges::lower_bound(_words, std::string_view(lemma), {}, &Word::lemma);
    return found != _words.end() && found->lemma == lemma ? &*found : nullptr;
}

const WordNet::Word* WordNet::findBaseForm(std::string_view text) const {
    const std::string lemma = lemmaOf(text);
    if (const Word* word = find(lemma)) return word;
    for (std::size_t i = 0; i < partsOfSpeech; ++i)
        if (const Word* word = _findException(lemma, i)) return word;
    for (const Ending& ending : endings) {
        if (lemma.size() <= ending.form.size() || !lemma.ends_with(ending.form)) continue;
        std::string base = lemma.substr(0, lemma.size() - ending.form.size()).append(ending.base);
        const Word* word = find(base);
        if (word == nullptr) continue;
        for (std::uint32_t i = word->firstEntry; i < word->firstEntry + word->entryCount; ++i)
            if (_entries[i].partOfSpeech == ending.partOfSpeech) return word;
    }
    return nullptr;
}

// A line is "form base …". The files are small and the look-up is rare.
const WordNet::Word* WordNet::_findException(std::string_view lemma, std::size_t partOfSpeech) const {
    for (std::string_view text = _exceptions[partOfSpeech]->text(); !text.empty();) {
        std::string_view line = take(text, '\n');
        if (take(line, ' ') == lemma) return find(take(line, ' '));
    }
    return nullptr;
}

// What follows the lemma: pos, sense count, pointer count, the pointers, sense count again, tagged senses, the offsets.
std::vector<WordNet::Sense> WordNet::senses(const Word& word, std::size_t limit) const {
    std::vector<const Entry*> entries;
    for (std::uint32_t i = 0; i < word.entryCount; ++i) entries.push_back(&_entries[word.firstEntry + i]);
    std::ranges::sort(entries, std::ranges::greater(), &Entry::use);
    std::vector<Sense> senses;
    for (const Entry* entry : entries) {
        std::string_view rest = entry->rest;
        take(rest, ' ');
        take(rest, ' ');
        for (std::uint32_t skip = number(take(rest, ' ')) + 2; skip > 0 && !rest.empty(); --skip) take(rest, ' ');
        while (senses.size() < limit && rest.size() >= 8) {
            Sense sense;
            if (_readSense(*entry, take(rest, ' '), sense)) senses.push_back(std::move(sense));
        }
    }
    return senses;
}

// A line is "offset file type WORDS word lex-id word lex-id … | gloss", WORDS in hexadecimal.
bool WordNet::_readSense(const Entry& entry, std::string_view offset, Sense& sense) const {
    std::string_view text = _data[entry.partOfSpeech]->text();
    if (const std::uint32_t start = number(offset); start < text.size()) text.remove_prefix(start);
    std::string_view line = take(text, '\n');
    if (take(line, ' ') != offset) return false;
    take(line, ' ');
    take(line, ' ');
    sense.partOfSpeech = names[entry.partOfSpeech];
    sense.title = spelled(entry.lemma);
    for (std::uint32_t count = number(take(line, ' '), 16); count > 0 && !line.empty(); --count) {
        const std::string_view written = unmarked(take(line, ' '));
        take(line, ' ');
        if (lemmaOf(written) == entry.lemma) {
            sense.title = spelled(written);
        } else if (sense.synonyms.size() < maxSynonyms) {
            sense.synonyms.push_back(spelled(written));
        }
    }
    const std::size_t bar = line.find("| ");
    if (bar == std::string_view::npos) return false;
    sense.gloss = line.substr(bar + 2);
    sense.gloss = sense.gloss.substr(0, sense.gloss.find_last_not_of(" \r") + 1);
    return true;
}

std::string WordNet::spelled(std::string_view lemma) {
    std::string text(lemma);
    std::ranges::replace(text, '_', ' ');
    return text;
}

}  // namespace orvex
