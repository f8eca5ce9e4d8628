#include "network/whitelist_document.h"

#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include "core/json.h"
#include "core/run_length_code.h"
#include "core/whitelist_signature.h"
#include "platform/counters.h"
#include "platform/installed_applications.h"
#include "platform/log.h"
#include "platform/property_value.h"

namespace orvex {
namespace {

namespace json = boost::json;

const json::object* objectIn(const platform::Result<json::value>& parsed) {
    return parsed ? parsed->if_object() : nullptr;
}

bool says(const json::object& object, std::string_view name, std::string_view text) {
    const auto* member = object.if_contains(name);
    return member != nullptr && member->is_string() && std::string_view(member->get_string()) == text;
}

/// "encoding_id" of the last element, cut to an integer.
std::optional<std::int64_t> encodingId(const json::value& variants) {
    const auto* array = variants.if_array();
    const auto* last = array != nullptr && !array->empty() ? array->back().if_object() : nullptr;
    const auto* member = last != nullptr ? last->if_contains("encoding_id") : nullptr;
    const auto number = member != nullptr ? numberFromJSON(*member) : std::nullopt;
    return number ? std::optional(platform::integerFromDouble(*number)) : std::nullopt;
}

}  // namespace

std::optional<std::string> processWhitelist(std::string_view document, const InstalledIds& installedIds) {
    json::monotonic_resource memory;
    const auto outer = parseJSON(document, kBagJSONDepth, &memory);
    const auto* frame = objectIn(outer);
    if (frame == nullptr || !says(*frame, "compression", "RLE") || !says(*frame, "encoding", "bitmap"))
        return std::nullopt;
    const auto* text = frame->if_contains("apps");
    if (text == nullptr || !text->is_string()) return std::nullopt;
    const auto inner = parseJSON(text->get_string(), kBagJSONDepth, &memory);
    const auto* whitelist = objectIn(inner);
    const auto version = whitelist != nullptr ? stringMember(*whitelist, "version") : std::nullopt;
    const auto* apps = whitelist != nullptr ? whitelist->if_contains("apps") : nullptr;
    if (!version || apps == nullptr || !apps->is_object()) return std::nullopt;

    const auto ids = installedIds(apps->get_object());
    if (ids.empty()) return std::nullopt;
    const auto bitmap = whitelistBitmap(ids);
    return makeSignature(bitmap.size(), rle_compress(bitmap), *version);
}

std::vector<std::uint32_t> findWhitelistedApplications(const json::object& apps,
                                                       std::span<const platform::InstalledApplication> installed,
                                                       platform::Counters& counters) {
    std::vector<std::uint32_t> ids;
    for (const auto& [identifier, version] : installed) {
        const auto* variants = identifier.empty() || version.empty() ? nullptr : apps.if_contains(identifier);
        const auto id = variants != nullptr ? encodingId(*variants) : std::nullopt;
        if (!id) continue;
        if (*id >= 0 && *id <= WhitelistSignature::maxId) {
            ids.push_back(static_cast<std::uint32_t>(*id));
        } else {
            platform::defaultLogger().error("the whitelisted id {} of {} is left out", *id, identifier);
            counters.add("com.kelvar.orvexd.whitelist.dropped.id");
        }
    }
    std::ranges::sort(ids);
    return ids;
}

}  // namespace orvex
