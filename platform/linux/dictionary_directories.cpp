#include "platform/linux/dictionary_directories.h"

#include <unicode/locid.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>
#include <string_view>

namespace orvex::platform {
namespace {

/// The shortest code of the language ("eng" is "en"); none for what is no such code.
std::optional<std::string> languageCode(std::string_view text) {
    const bool letters = std::ranges::all_of(text, [](char letter) { return letter >= 'a' && letter <= 'z'; });
    if (!letters || text.size() < 2 || text.size() > 3) return std::nullopt;
    const icu::Locale locale = icu::Locale::createCanonical(std::string(text).c_str());
    const std::string_view code = locale.getLanguage();
    // ICU knows a three-letter code for every language that it knows.
    return code.empty() || std::string_view(locale.getISO3Language()).empty() ? std::nullopt
                                                                              : std::optional(std::string(code));
}

std::optional<std::string> hunspellLanguage(std::string_view stem) {
    return languageCode(stem.substr(0, stem.find_first_of("_-")));
}

/// "freedict-eng-deu"
std::optional<std::string> dictdLanguage(std::string_view stem) {
    const auto last = stem.rfind('-');
    const auto first = last == std::string_view::npos || last == 0 ? last : stem.rfind('-', last - 1);
    if (first == std::string_view::npos || first == last || !languageCode(stem.substr(last + 1))) return std::nullopt;
    return languageCode(stem.substr(first + 1, last - first - 1));
}

template <class LanguageOf>
void collect(std::set<std::string>& languages, const std::string& directory, std::string_view extension,
             LanguageOf languageOf) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry->path().extension() != extension) continue;
        if (auto language = languageOf(entry->path().stem().string())) languages.insert(*std::move(language));
    }
}

}  // namespace

std::vector<std::string> DictionaryDirectories::languages() const {
    std::set<std::string> languages;
    collect(languages, _directories.hunspell, ".dic", hunspellLanguage);
    collect(languages, _directories.dictd, ".index", dictdLanguage);
    return {languages.begin(), languages.end()};
}

void DictionaryDirectories::setChangeHandler(std::function<void()> handler) {
    for (const auto& directory : {_directories.hunspell, _directories.dictd})
        _watches.push_back(_watcher.watch(directory, "", handler));
}

}  // namespace orvex::platform
