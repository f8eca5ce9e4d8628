#include "platform/text.h"

#include <unicode/bytestream.h>
#include <unicode/casemap.h>

#include <algorithm>

namespace orvex::platform {
namespace {

bool isASCII(std::string_view text) {
    return std::ranges::all_of(text, [](char character) { return static_cast<unsigned char>(character) < 0x80; });
}

std::string lowercasedASCII(std::string_view text) {
    std::string result(text);
    for (char& character : result) {
        if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
    }
    return result;
}

}  // namespace

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
