#include "network/subscriptions_file.h"

#include <boost/json.hpp>
#include <cerrno>

#include "core/json.h"
#include "daemon/orvex_logging.h"
#include "platform/settings_file.h"

namespace orvex {
namespace {

/// Reads members of one object and remembers whether one had another type than it should.
class Members {
public:
    explicit Members(const boost::json::object& object) : _object(object) {}

    std::string text(std::string_view name) {
        const auto* member = _object.if_contains(name);
        if (member && !member->is_string()) _wellTyped = false;
        return stringMember(_object, name).value_or("");
    }
    bool flag(std::string_view name) {
        const auto* member = _object.if_contains(name);
        if (member && !member->is_bool()) _wellTyped = false;
        return member && member->is_bool() && member->get_bool();
    }
    std::optional<double> seconds(std::string_view name) {
        const auto* member = _object.if_contains(name);
        if (!member) return std::nullopt;
        const auto number = numberFromJSON(*member);
        if (!number) _wellTyped = false;
        return number;
    }
    [[nodiscard]] bool wellTyped() const { return _wellTyped; }

private:
    const boost::json::object& _object;
    bool _wellTyped = true;
};

std::optional<Subscriptions::VideoService> videoService(const boost::json::value& json) {
    if (!json.is_object()) return std::nullopt;
    Members members(json.get_object());
    Subscriptions::VideoService service{.provider = members.text("provider"),
                                        .type = members.text("type"),
                                        .active = members.flag("active"),
                                        .domain = members.text("domain"),
                                        .bundleIdentifier = members.text("bundle_identifier"),
                                        .validFrom = members.seconds("valid_from"),
                                        .validUntil = members.seconds("valid_until")};
    if (!members.wellTyped() || service.provider.empty()) return std::nullopt;
    return service;
}

}  // namespace

platform::Result<Subscriptions> readSubscriptions(const platform::SettingsFile& file) {
    const auto text = file.read();
    if (!text && text.error().code == ENOENT) return Subscriptions();
    if (!text) return std::unexpected(text.error());
    const auto json = parseJSON(*text, kBagJSONDepth);
    if (!json) return std::unexpected(json.error());
    if (!json->is_object()) return platform::failure(0, "no JSON object");

    Members members(json->get_object());
    Subscriptions subscriptions{
        .storefront = members.text("storefront"), .weft = members.flag("weft"), .videoServices = {}};
    const auto* list = json->get_object().if_contains("subscriptions");
    if (!members.wellTyped() || (list && !list->is_array())) return platform::failure(0, "an entry of another type");
    if (!list) return subscriptions;
    for (const auto& entry : list->get_array()) {
        if (auto service = videoService(entry)) {
            subscriptions.videoServices.push_back(*std::move(service));
        } else {
            OrvexLogForCategory(OrvexLoggingCategory::subscription).error("a subscription is left out: malformed");
        }
    }
    return subscriptions;
}

}  // namespace orvex
