#include "core/enumeration_strings.h"

#include "platform/text.h"

namespace orvex {

FeatureType featureTypeFromString(std::string_view text) {
    if (text == "domain" || text == "tld") return FeatureType::domain;
    if (platform::lowercased(text) == "mediatype" || text == "mt") return FeatureType::mediaType;
    return text == "topic" ? FeatureType::topic : FeatureType::unknown;
}

std::string_view stringFromFeatureType(FeatureType type) {
    switch (type) {
        case FeatureType::domain:
            return "domain";
        case FeatureType::mediaType:
            return "mediaType";
        case FeatureType::topic:
            return "topic";
        default:
            return "unkonwn";
    }
}

ClientType clientTypeFromString(std::string_view text) {
    if (text == "brovia") return ClientType::brovia;
    return text == "lumisk" ? ClientType::lumisk : ClientType::unknown;
}

std::string_view stringFromClientType(ClientType type) {
    switch (type) {
        case ClientType::brovia:
            return "brovia";
        case ClientType::lumisk:
            return "lumisk";
        default:
            return "unknown";
    }
}

FunctionType funcTypeFromString(std::string_view text) {
    if (text == "eng") return FunctionType::engagement;
    return text == "engrate" || text == "eng/render" ? FunctionType::engagementToRender : FunctionType::unknown;
}

std::string_view stringFromFunctionType(FunctionType type) {
    switch (type) {
        case FunctionType::engagement:
            return "eng";
        case FunctionType::engagementToRender:
            return "eng/render";
        default:
            return "unknown";
    }
}

ResultPlacement resultPlacementFromString(std::string_view text) {
    if (text == "top") return ResultPlacement::top;
    return text == "bottom" ? ResultPlacement::bottom : ResultPlacement::unknown;
}

std::string_view stringFromResultPlacement(ResultPlacement placement) {
    switch (placement) {
        case ResultPlacement::top:
            return "top";
        case ResultPlacement::bottom:
            return "bottom";
        default:
            return "unkonw";
    }
}

}  // namespace orvex
