#include "tools/tool/terminal_text.h"

#include <algorithm>
#include <cstdint>
#include <cwchar>

namespace orvex::tool {
namespace {

bool continues(char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U; }

wchar_t decoded(std::string_view character) {
    const auto lead = static_cast<unsigned char>(character.front());
    if (character.size() == 1) return static_cast<wchar_t>(lead);
    std::uint32_t code = lead & (0xFFU >> (character.size() + 1));
    for (const char byte : character.substr(1)) code = (code << 6U) | (static_cast<unsigned char>(byte) & 0x3FU);
    return static_cast<wchar_t>(code);
}

std::size_t columnsOfCharacter(std::string_view character) {
    const int columns = ::wcwidth(decoded(character));
    return columns < 0 ? 1 : static_cast<std::size_t>(columns);
}

}  // namespace

std::size_t firstCharacterBytes(std::string_view text) {
    std::size_t bytes = 1;
    while (bytes < text.size() && bytes < 4 && continues(text[bytes])) ++bytes;
    return bytes;
}

std::size_t columnsOf(std::string_view text) {
    std::size_t columns = 0;
    while (!text.empty()) {
        const std::size_t bytes = firstCharacterBytes(text);
        columns += columnsOfCharacter(text.substr(0, bytes));
        text.remove_prefix(bytes);
    }
    return columns;
}

std::string_view cutToColumns(std::string_view text, std::size_t columns) {
    std::size_t end = 0;
    while (end < text.size()) {
        const std::size_t bytes = firstCharacterBytes(text.substr(end));
        const std::size_t taken = columnsOfCharacter(text.substr(end, bytes));
        if (taken > columns) break;
        columns -= taken;
        end += bytes;
    }
    return text.substr(0, end);
}

std::string_view endWithinColumns(std::string_view text, std::size_t columns) {
    std::size_t excess = columnsOf(text);
    while (excess > columns) {
        const std::size_t bytes = firstCharacterBytes(text);
        excess -= columnsOfCharacter(text.substr(0, bytes));
        text.remove_prefix(bytes);
    }
    return text;
}

std::vector<std::string> wrapped(std::string_view text, std::size_t columns) {
    std::vector<std::string> lines;
    std::size_t left = 0;  // of the last line
    while (true) {
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
        if (text.empty()) return lines;
        std::string_view word = text.substr(0, text.find(' '));
        text.remove_prefix(word.size());
        if (!lines.empty() && columnsOf(word) < left) {
            lines.back().append(" ").append(word);
            left -= columnsOf(word) + 1;
            continue;
        }
        while (!word.empty()) {
            const auto piece = cutToColumns(word, columns);
            if (!piece.empty()) lines.emplace_back(piece);
            left = columns - std::min(columns, columnsOf(piece));
            word.remove_prefix(piece.empty() ? firstCharacterBytes(word) : piece.size());
        }
    }
}

}  // namespace orvex::tool
