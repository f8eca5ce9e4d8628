#include "platform/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <iterator>

namespace orvex::platform {
namespace {

constexpr char32_t replacementCharacter = 0xFFFD;

bool isDigit(char character) { return character >= '0' && character <= '9'; }

/// One character at the head of a text.
struct Decoded {
    char32_t codePoint;
    std::size_t bytes;
    bool valid;
};

constexpr Decoded malformed = {replacementCharacter, 1, false};

// RFC 3629: no overlong forms, no surrogates, nothing above U+10FFFF. A sequence that breaks off is malformed byte by
// byte. `text` is not empty.
Decoded decodeFirst(std::string_view text) {
    const auto byteAt = [text](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    const auto lead = byteAt(0);
    if (lead < 0x80) return {lead, 1, true};

    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return malformed;
    char32_t codePoint = lead & (0x7Fu >> length);
    for (std::size_t index = 1; index < length; ++index) {
        if ((byteAt(index) & 0xC0u) != 0x80u) return malformed;
        codePoint = codePoint << 6 | (byteAt(index) & 0x3Fu);
    }
    constexpr std::array<char32_t, 5> smallest = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    if (codePoint < smallest[length] || codePoint > 0x10FFFF || surrogate) return malformed;
    return {codePoint, length, true};
}

std::size_t utf16Units(char32_t codePoint) { return codePoint > 0xFFFF ? 2 : 1; }

// The order of UTF-16 code units is that of code points, but for U+E000 to U+FFFF, which come after the surrogates of
// everything above them.
std::uint32_t utf16Rank(char32_t codePoint) {
    if (codePoint >= 0xE000 && codePoint <= 0xFFFF) return codePoint + 0x110000;
    return codePoint;
}

std::string_view takeDigits(std::string_view& text) {
    const auto end = std::ranges::find_if_not(text, isDigit) - text.begin();
    auto digits = text.substr(0, end);
    text.remove_prefix(end);
    digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
    return digits;
}

int compareAsIntegers(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
    return a.compare(b);
}

bool isUnfitForALine(const Decoded& character) {
    const auto codePoint = character.codePoint;
    return !character.valid || codePoint < 0x20 || (codePoint >= 0x7F && codePoint <= 0x9F) || codePoint == 0x2028 ||
           codePoint == 0x2029;
}

}  // namespace

std::size_t utf16Length(std::string_view utf8) {
    if (isASCII(utf8)) return utf8.size();
    std::size_t length = 0;
    while (!utf8.empty()) {
        const auto character = decodeFirst(utf8);
        length += utf16Units(character.codePoint);
        utf8.remove_prefix(character.bytes);
    }
    return length;
}

bool isASCII(std::string_view bytes) {
    unsigned found = 0;  // not left early, so that the compiler may look at many bytes at once
    for (const char byte : bytes) found |= static_cast<unsigned char>(byte);
    return found < 0x80;
}

bool isValidUTF8(std::string_view bytes) {
    if (isASCII(bytes)) return true;
    while (!bytes.empty()) {
        const auto character = decodeFirst(bytes);
        if (!character.valid) return false;
        bytes.remove_prefix(character.bytes);
    }
    return true;
}

std::string wellFormed(std::string_view bytes) {
    if (isValidUTF8(bytes)) return std::string(bytes);
    std::string result;
    while (!bytes.empty()) {
        const auto character = decodeFirst(bytes);
        result += character.valid ? bytes.substr(0, character.bytes) : "\xEF\xBF\xBD";
        bytes.remove_prefix(character.bytes);
    }
    return result;
}

bool hasControlCharacter(std::string_view text) {
    unsigned found = 0;  // not left early, so that the compiler may look at many bytes at once
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        found |= static_cast<unsigned>(byte < 0x20) | static_cast<unsigned>(byte == 0x7F);
    }
    return found != 0;
}

int compareNumerically(std::string_view a, std::string_view b) {
    while (!a.empty() && !b.empty()) {
        if (isDigit(a.front()) && isDigit(b.front())) {
            const auto left = takeDigits(a);
            const auto right = takeDigits(b);
            if (const int order = compareAsIntegers(left, right); order != 0) return order;
            continue;
        }
        const auto left = decodeFirst(a);
        const auto right = decodeFirst(b);
        if (left.codePoint != right.codePoint) {
            return utf16Rank(left.codePoint) < utf16Rank(right.codePoint) ? -1 : 1;
        }
        a.remove_prefix(left.bytes);
        b.remove_prefix(right.bytes);
    }
    if (a.empty() == b.empty()) return 0;
    return a.empty() ? -1 : 1;
}

std::string shortestDecimal(double value) {
    if (value == 0) return "0";    // not "-0"
    std::array<char, 400> digits;  // the longest, 5e-324, has 326
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value, std::chars_format::fixed).ptr;
    return {digits.data(), end};
}

std::string escaped(std::string_view text, std::size_t maxBytes) {
    if (text.size() <= maxBytes && isASCII(text) && !hasControlCharacter(text)) return std::string(text);
    std::string result;
    result.reserve(std::min(text.size(), maxBytes));
    while (!text.empty()) {
        const auto character = decodeFirst(text);
        const auto bytes = text.substr(0, character.bytes);
        const bool escape = isUnfitForALine(character);
        if (result.size() + bytes.size() * (escape ? 4 : 1) > maxBytes) return result + "…";
        if (escape) {
            for (const char byte : bytes) {
                fmt::format_to(std::back_inserter(result), "\\x{:02X}", static_cast<unsigned char>(byte));
            }
        } else {
            result += bytes;
        }
        text.remove_prefix(character.bytes);
    }
    return result;
}

}  // namespace orvex::platform
