#include "platform/text.h"

#include <unicode/bytestream.h>
#include <unicode/casemap.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

namespace orvex::platform {
namespace {

std::string lowercasedASCII(std::string_view text) {
    std::string result(text);
    for (char& character : result) {
        if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
    }
    return result;
}

/// One of ICU's own normalizers, which live as long as the process; none where ICU's data is missing.
using NormalizerOf = const icu::Normalizer2* (*)(UErrorCode&);

icu::UnicodeString normalized(const icu::UnicodeString& text, NormalizerOf form) {
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* normalizer = form(status);
    if (normalizer == nullptr || U_FAILURE(status)) return text;
    icu::UnicodeString result = normalizer->normalize(text, status);
    return U_SUCCESS(status) ? result : text;
}

icu::UnicodeString fromUTF8(std::string_view text) {
    return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
}

std::string toUTF8(const icu::UnicodeString& text) {
    std::string result;
    return text.toUTF8String(result);
}

bool isDiacriticalMark(UChar32 character) {
    return (U_GET_GC_MASK(character) & U_GC_M_MASK) != 0 && u_hasBinaryProperty(character, UCHAR_DIACRITIC);
}

}  // namespace

std::string withoutDiacritics(std::string_view utf8) {
    if (isASCII(utf8)) return std::string(utf8);
    const auto decomposed = normalized(fromUTF8(utf8), icu::Normalizer2::getNFDInstance);
    icu::UnicodeString kept;
    for (std::int32_t offset = 0; offset < decomposed.length(); offset = decomposed.moveIndex32(offset, 1)) {
        const UChar32 character = decomposed.char32At(offset);
        if (!isDiacriticalMark(character)) kept += character;
    }
    return toUTF8(normalized(kept, icu::Normalizer2::getNFCInstance));
}

std::string compatibilityDecomposed(std::string_view utf8) {
    if (isASCII(utf8)) return std::string(utf8);
    return toUTF8(normalized(fromUTF8(utf8), icu::Normalizer2::getNFKDInstance));
}

std::string lowercased(std::string_view utf8) {
    if (isASCII(utf8)) return lowercasedASCII(utf8);
    std::string result;
    icu::StringByteSink<std::string> sink(&result, static_cast<std::int32_t>(utf8.size()));
    UErrorCode status = U_ZERO_ERROR;
    const icu::StringPiece source(utf8.data(), static_cast<std::int32_t>(utf8.size()));
    constexpr const char* rootLocale = "";
    icu::CaseMap::utf8ToLower(rootLocale, 0, source, sink, nullptr, status);
    return U_SUCCESS(status) ? result : lowercasedASCII(utf8);
}

}  // namespace orvex::platform
