#pragma once

#include "core/orx_request.h"
#include "network/app_whitelist_signature.h"
#include "network/network_fixture_test.h"

namespace orvex {

inline constexpr std::string_view allSources =
    R"({"search_url": "https://a.example/s", "more_results_url": "https://a.example/m",
        "flight_url": "https://a.example/f", "supported_geo_location_sources": ["gps", "wifi", "cell"],
        "send_geo_environment_header": true, "subscription_ttl": 100, "hashtag_images_enabled": false,
        "subscription_provider_domain_whitelist": ["tv.example"],
        "subscription_provider_bundle_identifier_whitelist": ["example.film"]})";

struct Signature final : AppWhitelistSignature {
    [[nodiscard]] std::optional<std::string> whitelistSignature() const override { return "SIGNATURE"; }
};

/// The context as requests tell it: a test changes the device and looks at the next request.
class ContextTest : public NetworkFixture {
protected:
    void start(std::string_view bagJSON = allSources) {
        makeFactory();
        assembly.setAppWhitelistController(std::make_shared<Signature>());
        useBag(bagJSON);
    }
    void useBag(std::string_view json, std::string agent = "lumisk/1") {
        bag = makeBag(json, std::move(agent));
        notifications.post(ORXBagChangeNotification{bag});
        time.runPending();
    }
    void useAgent(std::string agent) { bag = std::make_shared<const ORXBag>(bag->rawBag(), std::move(agent)); }
    platform::URLRequest search(FieldMask mask = FieldMask::none) {
        return factory().searchRequest({}, *bag, "GUID", mask).value();
    }
    std::optional<std::string> header(std::string_view name) { return platform::headerValue(search().headers, name); }
    std::optional<std::string> fuzzed() {
        return platform::headerValue(
            factory().fileDownloadRequest({.url = "https://a.example/r", .includeLatLong = true}).value().headers,
            "X-Kelvar-FuzzedLatLong");
    }
    void locate(double latitude, double longitude, double accuracy = 12, std::int32_t type = 1) {
        location.report({latitude, longitude, accuracy, type});
        time.runPending();
    }

    std::shared_ptr<const ORXBag> bag;
};

}  // namespace orvex
