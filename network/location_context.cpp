#include "network/location_context.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>

namespace orvex {
namespace {

constexpr std::chrono::seconds freshFor(300);

std::string_view sourceOfType(std::int32_t type) {
    switch (type) {
        case 1:
        case 2:
        case 3:
        case 9:
            return "gps";
        case 4:
        case 5:
            return "wifi";
        case 6:
        case 7:
        case 8:
            return "cell";
        default:
            return "unknown";
    }
}

std::string latLng(double latitude, double longitude) { return fmt::format("{:f},{:f}", latitude, longitude); }

std::string bagRefusal(std::string_view source) { return fmt::format("bagno.{}", source); }

}  // namespace

bool LocationContext::take(const platform::Location& location, platform::MonotonicTime now, RequestContext& context) {
    const auto source = sourceOfType(location.type);
    if (std::ranges::find(_supportedSources, source) == _supportedSources.end()) {
        drop(bagRefusal(source), context);
        return false;
    }
    _held = Held{location, now};
    context.geoLocationLatLng = latLng(location.latitude, location.longitude);
    context.geoLocationSource = fmt::format("{},{:f}", source, location.horizontalAccuracy);
    if (context.lookupGeoLocationLatLng.empty())
        context.lookupGeoLocationLatLng = latLng(std::trunc(location.latitude), std::trunc(location.longitude));
    return true;
}

void LocationContext::drop(std::string_view reason, RequestContext& context) {
    _held.reset();
    context.geoLocationLatLng.clear();
    context.lookupGeoLocationLatLng.clear();
    context.geoLocationSource = reason;
}

void LocationContext::performedSearch(RequestContext& context) const {
    if (_held) context.lookupGeoLocationLatLng = latLng(_held->location.latitude, _held->location.longitude);
}

bool LocationContext::isFresh(platform::MonotonicTime now) const { return _held && now - _held->received < freshFor; }

void LocationContext::setSupportedSources(std::vector<std::string> sources, RequestContext& context) {
    _supportedSources = std::move(sources);
    if (_supportedSources.empty()) {
        drop(bagRefusal("all"), context);
    } else if (_held) {
        const auto source = sourceOfType(_held->location.type);
        if (std::ranges::find(_supportedSources, source) == _supportedSources.end()) drop(bagRefusal(source), context);
    }
}

}  // namespace orvex
