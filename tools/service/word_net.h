#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/result.h"

namespace orvex {

/// The WordNet lexical database, as the files of wndb(5WN) hold it: words by prefix, most used first, and their senses.
///
/// The files are mapped, so what is handed out are views into them. Their indexes are read at `open` (155,000 words,
/// some 50 ms), glosses when asked for.
/// Threading: immutable after `open`, callable from any thread.
class WordNet {
public:
    static constexpr const char* defaultDirectory = "/usr/share/wordnet";

    struct Word {
        std::string_view lemma;  ///< lower case, "_" for blanks
        std::uint32_t use = 0;   ///< how often it was met in the tagged texts, all senses together
        std::uint32_t firstEntry = 0;
        std::uint32_t entryCount = 0;  ///< parts of speech
    };
    struct Sense {
        std::string_view partOfSpeech;      ///< "noun", "verb", "adjective", "adverb"
        std::string title;                  ///< the word in its own spelling: "New York"
        std::string_view gloss;             ///< the definition, and examples in quotes after it
        std::vector<std::string> synonyms;  ///< the other words of that sense, at most `maxSynonyms`
    };
    static constexpr std::size_t maxSynonyms = 6;

    /// Fails when a file is missing or holds no words.
    static platform::Result<std::unique_ptr<WordNet>> open(const std::string& directory);
    ~WordNet();

    /// The words that begin with `text`, whatever its case, "_" and blanks being alike: `text` itself first, then by
    /// use, then the shorter ones. Nothing for an empty text.
    [[nodiscard]] std::vector<const Word*> completions(std::string_view text, std::size_t limit) const;

    [[nodiscard]] const Word* find(std::string_view text) const;  ///< null when there is none

    /// The word that `text` is or is a form of ("mice", "walked"); null when there is none.
    [[nodiscard]] const Word* findBaseForm(std::string_view text) const;

    [[nodiscard]] const std::vector<const Word*>& mostUsed() const { return _mostUsed; }

    /// Most used part of speech first. What the files have wrong is left out.
    [[nodiscard]] std::vector<Sense> senses(const Word& word, std::size_t limit) const;

    [[nodiscard]] std::size_t wordCount() const { return _words.size(); }

    static std::string spelled(std::string_view lemma);  ///< with blanks for "_"

private:
    class File;
    struct Entry;  // a word as one part of speech
    static constexpr std::size_t partsOfSpeech = 4;

    WordNet();
    [[nodiscard]] platform::Result<void> _map(const std::string& directory);
    void _readIndexes();
    void _readUse();
    void _chooseMostUsed();
    [[nodiscard]] bool _readSense(const Entry& entry, std::string_view offset, Sense& sense) const;
    [[nodiscard]] const Word* _findException(std::string_view lemma, std::size_t partOfSpeech) const;

    std::array<std::unique_ptr<File>, partsOfSpeech> _indexes, _data, _exceptions;
    std::unique_ptr<File> _counts;
    std::vector<Entry> _entries;  // by lemma
    std::vector<Word> _words;     // by lemma
    std::vector<const Word*> _mostUsed;
};

}  // namespace orvex
