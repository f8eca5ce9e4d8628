#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/file_manager.h"

namespace orvex::platform {

class BusValue;

/// `ay`. Shared, so that a body goes from the network to the bus without a copy of ours.
struct BusBytes {
    std::shared_ptr<const std::string> bytes;

    [[nodiscard]] static BusBytes of(std::string bytes) {
        return {std::make_shared<const std::string>(std::move(bytes))};
    }
    [[nodiscard]] std::string_view view() const { return bytes ? std::string_view(*bytes) : std::string_view(); }
};
struct BusObjectPath {
    std::string path;
};
/// `g`
struct BusSignature {
    std::string signature;
};
/// Any array but `ay` and the dictionaries below. A dictionary whose keys are no strings is one too: its element
/// signature is then "{us}" for example, each item a `BusStruct` of key and value.
struct BusArray {
    std::string elementSignature;
    std::vector<BusValue> items;
};
struct BusStruct {
    std::vector<BusValue> members;
};
/// A dictionary with string keys, in order of arrival; a later entry of the same key wins for `find`.
/// `valueSignature` is "v" for the a{sv} of most methods, or "s", "x", "u".
struct BusDictionary {
    std::string valueSignature = "v";
    std::vector<std::pair<std::string, BusValue>> entries;

    [[nodiscard]] const BusValue* find(std::string_view key) const;
    BusDictionary& set(std::string key, BusValue value);
};
/// `h`. Shared, since values can be copied; closed with the last of them.
struct BusFile {
    std::shared_ptr<FileDescriptor> file;
};

/// One D-Bus value. Where the type is a variant it stands for the variant's content; its D-Bus type is its
/// alternative's. Text is UTF-8 without NUL; any other is sent `escaped`, since what it is part of matters more.
class BusValue {
public:
    using Storage = std::variant<bool, std::uint8_t, std::int16_t, std::uint16_t, std::int32_t, std::uint32_t,
                                 std::int64_t, std::uint64_t, double, std::string, BusObjectPath, BusSignature,
                                 BusBytes, BusArray, BusStruct, BusDictionary, BusFile>;

    template <class T>
        requires(!std::is_same_v<std::remove_cvref_t<T>, BusValue> && std::is_constructible_v<Storage, T>)
    BusValue(T&& value) : _storage(std::forward<T>(value)) {}
    BusValue(const char* text) : _storage(std::string(text)) {}
    BusValue(std::string_view text) : _storage(std::string(text)) {}

    template <class T>
    [[nodiscard]] const T* as() const {
        return std::get_if<T>(&_storage);
    }
    [[nodiscard]] const Storage& storage() const { return _storage; }

    /// The D-Bus signature, "a{sv}" for example. That of a struct is its present members': a variant in it shows as
    /// its content.
    [[nodiscard]] std::string signature() const;

private:
    Storage _storage;
};

using BusArguments = std::vector<BusValue>;

[[nodiscard]] std::string signatureOf(const BusArguments& arguments);

/// The first complete type that `signature` begins with; empty when there is none or it is malformed.
[[nodiscard]] std::string_view firstCompleteType(std::string_view signature);

/// Whether `arguments` can be sent where `signature` is declared. A variant takes any one value.
[[nodiscard]] bool fits(std::string_view signature, const BusArguments& arguments);

}  // namespace orvex::platform
