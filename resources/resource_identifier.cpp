#include "resources/resource_identifier.h"

#include <algorithm>

namespace orvex {
namespace {

constexpr std::size_t maxBytes = 128;

bool isWordCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

}  // namespace

bool isAcceptableResourceIdentifier(std::string_view identifier) {
    if (identifier.empty() || identifier.size() > maxBytes || !isWordCharacter(identifier.front())) return false;
    const bool plain =
        std::ranges::all_of(identifier, [](char c) { return isWordCharacter(c) || c == '.' || c == '-'; });
    const bool ours = identifier == "CustomFeedback" || identifier == "EngagedCompletions" ||
                      identifier.starts_with("session.") || identifier.starts_with("bag.plist") ||
                      identifier.ends_with(".corrupt");
    return plain && !ours;
}

}  // namespace orvex
