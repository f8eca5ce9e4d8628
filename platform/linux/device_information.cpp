#include "platform/linux/device_information.h"

#include <algorithm>
#include <fstream>
#include <optional>

#include "platform/text.h"

namespace orvex::platform {
namespace {

using Variables = std::map<std::string, std::string, std::less<>>;

constexpr std::string_view blanks = " \t\r\n";

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// None when it cannot be read.
std::optional<std::string> contents(const std::string& path) {
    constexpr std::streamsize maxBytes = 64 * 1024;
    std::ifstream file(path, std::ios::binary);
    std::string bytes(maxBytes, '\0');
    file.read(bytes.data(), maxBytes);
    if (file.bad() || (file.fail() && !file.eof())) return {};
    bytes.resize(file.gcount());
    return bytes;
}

// A value as a shell would read it: quotes group, a backslash takes the next character as it is, but between double
// quotes only one of those that mean something there, and between single quotes none.
std::string unquoted(std::string_view value) {
    std::string result;
    char quote = '\0';
    for (std::size_t index = 0; index < value.size(); ++index) {
        const char character = value[index];
        if (character == quote) {
            quote = '\0';
        } else if (quote == '\0' && (character == '"' || character == '\'')) {
            quote = character;
        } else if (character == '\\' && quote != '\'' && index + 1 < value.size()) {
            const char next = value[++index];
            if (quote == '"' && std::string_view("\"\\$`").find(next) == std::string_view::npos) result += '\\';
            result += next;
        } else {
            result += character;
        }
    }
    return result;
}

Variables parseOSRelease(std::string_view text) {
    Variables variables;
    while (!text.empty()) {
        const auto end = std::min(text.find('\n'), text.size());
        const auto line = trimmed(text.substr(0, end));
        const auto equals = line.find('=');
        if (!line.starts_with('#') && equals != std::string_view::npos) {
            variables.insert_or_assign(std::string(line.substr(0, equals)), unquoted(line.substr(equals + 1)));
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return variables;
}

Variables readOSRelease(const std::vector<std::string>& paths) {
    for (const auto& path : paths) {
        if (const auto text = contents(path)) return parseOSRelease(*text);
    }
    return {};
}

// Fit for a header; empty for what is not text at all.
std::string clean(std::string_view value) {
    if (!isValidUTF8(value)) return {};
    std::string text(value);
    std::erase_if(text, [](char character) { return hasControlCharacter({&character, 1}); });
    return std::string(trimmed(text));
}

Variables readAnswers(const LinuxDeviceInformation::Files& files) {
    const auto release = readOSRelease(files.osRelease);
    const auto field = [&release](std::string_view name) {
        const auto found = release.find(name);
        return found == release.end() ? std::string() : clean(found->second);
    };
    Variables answers = {{"ProductType", clean(contents(files.productName).value_or(""))},
                         {"ProductName", field("NAME")},
                         {"ProductVersion", field("VERSION_ID")},
                         {"BuildVersion", field("BUILD_ID")}};
    if (answers["BuildVersion"].empty()) answers["BuildVersion"] = field("VERSION_CODENAME");
    std::erase_if(answers, [](const auto& answer) { return answer.second.empty(); });
    return answers;
}

}  // namespace

LinuxDeviceInformation::LinuxDeviceInformation(const Files& files) : _answers(readAnswers(files)) {}

std::string LinuxDeviceInformation::answer(std::string_view question) const {
    const auto found = _answers.find(question);
    return found == _answers.end() ? "Linux" : found->second;
}

}  // namespace orvex::platform
