#include "platform/bus_value.h"

#include <algorithm>
#include <ranges>

namespace orvex::platform {
namespace {

constexpr std::string_view basicTypes = "ybnqiuxtdsogh";

struct SignatureOf {
    std::string operator()(bool) const { return "b"; }
    std::string operator()(std::uint8_t) const { return "y"; }
    std::string operator()(std::int16_t) const { return "n"; }
    std::string operator()(std::uint16_t) const { return "q"; }
    std::string operator()(std::int32_t) const { return "i"; }
    std::string operator()(std::uint32_t) const { return "u"; }
    std::string operator()(std::int64_t) const { return "x"; }
    std::string operator()(std::uint64_t) const { return "t"; }
    std::string operator()(double) const { return "d"; }
    std::string operator()(const std::string&) const { return "s"; }
    std::string operator()(const BusObjectPath&) const { return "o"; }
    std::string operator()(const BusSignature&) const { return "g"; }
    std::string operator()(const BusBytes&) const { return "ay"; }
    std::string operator()(const BusArray& array) const { return "a" + array.elementSignature; }
    std::string operator()(const BusStruct& value) const { return "(" + signatureOf(value.members) + ")"; }
    std::string operator()(const BusDictionary& dictionary) const { return "a{s" + dictionary.valueSignature + "}"; }
    std::string operator()(const BusFile&) const { return "h"; }
};

bool fitsType(std::string_view type, const BusValue& value);

bool fitsArray(std::string_view elementType, const BusValue& value) {
    const auto fitsElement = [elementType](const BusValue& item) { return fitsType(elementType, item); };
    if (const auto* array = value.as<BusArray>()) {
        return array->elementSignature == elementType && std::ranges::all_of(array->items, fitsElement);
    }
    if (value.as<BusBytes>()) return elementType == "y";
    const auto* dictionary = value.as<BusDictionary>();
    if (!dictionary || !elementType.starts_with("{s")) return false;
    const auto valueType = elementType.substr(2, elementType.size() - 3);
    return dictionary->valueSignature == valueType && std::ranges::all_of(dictionary->entries, [&](const auto& entry) {
               return fitsType(valueType, entry.second);
           });
}

bool fitsType(std::string_view type, const BusValue& value) {
    switch (type.front()) {
        case 'v':
            return fitsType(value.signature(), value);
        case 'a':
            return fitsArray(type.substr(1), value);
        case '(':
        case '{': {
            const auto* members = value.as<BusStruct>();
            return members && fits(type.substr(1, type.size() - 2), members->members);
        }
        default:
            return value.signature() == type;
    }
}

}  // namespace

const BusValue* BusDictionary::find(std::string_view key) const {
    for (const auto& entry : std::views::reverse(entries)) {
        if (entry.first == key) return &entry.second;
    }
    return nullptr;
}

BusDictionary& BusDictionary::set(std::string key, BusValue value) {
    const auto found = std::ranges::find(entries, key, &std::pair<std::string, BusValue>::first);
    if (found != entries.end()) {
        found->second = std::move(value);
    } else {
        entries.emplace_back(std::move(key), std::move(value));
    }
    return *this;
}

std::string BusValue::signature() const { return std::visit(SignatureOf(), _storage); }

std::string signatureOf(const BusArguments& arguments) {
    std::string signature;
    for (const auto& argument : arguments) signature += argument.signature();
    return signature;
}

std::string_view firstCompleteType(std::string_view signature) {
    const std::size_t start = std::min(signature.find_first_not_of('a'), signature.size());
    if (start == signature.size()) return {};
    const char first = signature[start];
    if (first == 'v' || basicTypes.contains(first)) return signature.substr(0, start + 1);
    if (first != '(' && first != '{') return {};

    const char last = first == '(' ? ')' : '}';
    for (std::size_t end = start + 1; end < signature.size();) {
        if (signature[end] == last) return end == start + 1 ? std::string_view() : signature.substr(0, end + 1);
        const auto member = firstCompleteType(signature.substr(end));
        if (member.empty()) return {};
        end += member.size();
    }
    return {};
}

bool fits(std::string_view signature, const BusArguments& arguments) {
    for (const auto& argument : arguments) {
        const auto type = firstCompleteType(signature);
        if (type.empty() || !fitsType(type, argument)) return false;
        signature.remove_prefix(type.size());
    }
    return signature.empty();
}

}  // namespace orvex::platform
