#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/service/http_server.h"

namespace orvex {

class WordNet;

/// The files that clients keep: the weekly and the monthly lookup hints, a dictionary and the whitelist of installed
/// applications, each made at start and versioned by what it holds.
///
/// A client names the version it has in If-None-Match (with or without quotes) and gets 304 while that is the current
/// one. Lookup hints live behind a redirect, since their version is read from the redirect's path:
/// `/hints/KIND/FIRST/SECOND/hints` has the version "FIRST-SECOND-KIND".
/// Threading: immutable, callable from any thread.
class ServedResources {
public:
    explicit ServedResources(const WordNet& words);

    [[nodiscard]] std::vector<std::string> identifiers() const;

    /// "/resources/ID", with the version as its query where the version does not come from a redirect.
    [[nodiscard]] std::string path(std::string_view identifier) const;

    /// Answers a path below `/resources/` or `/hints/`; 404 for one that names nothing.
    [[nodiscard]] ServerAnswer answer(const ServerRequest& request) const;

private:
    struct Resource {
        std::string identifier;
        std::string content;
        std::string version;
        std::string redirectPath;  // empty: none
    };
    void _add(std::string_view identifier, std::string content, std::string_view hintsKind = {});

    std::vector<Resource> _resources;
};

}  // namespace orvex
