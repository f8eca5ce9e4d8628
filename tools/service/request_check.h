#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tools/service/http_server.h"

namespace orvex {

/// What a path of the server is for.
enum class Endpoint { bag, search, more, card, flight, warm, resource, hints, feedback, crowdsourcing, unknown };
[[nodiscard]] Endpoint endpointOf(std::string_view path);

struct Violation {
    int status = 400;
    std::string text;  ///< for the sender: which item or header, and what is wrong with it
};

/// Whether the request is one that a client of this server sends: its method; the items that such a request always has,
/// and those whose values are a choice; items sorted by name, each name once, and encoded in the one way that there is
/// (everything but letters, digits and "-_.~" as %XX); the form of the headers. Items that it does not know are let
/// pass.
[[nodiscard]] std::optional<Violation> violationIn(Endpoint endpoint, const ServerRequest& request);

}  // namespace orvex
