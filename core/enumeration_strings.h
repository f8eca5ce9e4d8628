#pragma once

#include <cstdint>
#include <string_view>

/// Small vocabularies that clients and daemon share, and their wire strings. A string that is none of them reads as the
/// unknown value, and a value that is none of them writes as it. "unkonwn" and "unkonw" are spelled so on the wire.
namespace orvex {

enum class FeatureType : std::uint32_t { domain = 0, mediaType = 1, topic = 2, unknown = 3 };
enum class ClientType : std::uint32_t { brovia = 0, lumisk = 1, unknown = 2 };
enum class FunctionType : std::uint32_t { engagement = 0, engagementToRender = 1, unknown = 2 };
enum class ResultPlacement : std::int32_t { unknown = 0, top = 1, bottom = 2 };

/// Exact, but "mediatype" in any letter case; "tld" is a domain too, "mt" a media type.
FeatureType featureTypeFromString(std::string_view text);
std::string_view stringFromFeatureType(FeatureType type);

ClientType clientTypeFromString(std::string_view text);
std::string_view stringFromClientType(ClientType type);

/// "engrate" is an older word for "eng/render": read, never written.
FunctionType funcTypeFromString(std::string_view text);
std::string_view stringFromFunctionType(FunctionType type);

ResultPlacement resultPlacementFromString(std::string_view text);
std::string_view stringFromResultPlacement(ResultPlacement placement);

}  // namespace orvex
