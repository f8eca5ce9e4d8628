#pragma once

#include <optional>
#include <string>

#include "platform/url.h"

/// What of a page's URL matters when two are compared.
namespace orvex {

/// The page that an accelerated-page URL shows:
///
///     https://VIEWER/amp/s/HOST/PATH       ─▶ https://HOST/PATH      (http without "s/")
///     https://LABEL.CACHE/c/s/HOST/PATH    ─▶ https://HOST/PATH      (as well "v/")
///
/// HOST must have a registrable domain; LABEL is HOST with "-" for "." and "--" for "-", or "cdn". The query stays, the
/// viewer's fragment goes. None for any other URL.
[[nodiscard]] std::optional<platform::URL> componentsForEmbeddedAMPURL(const platform::URL& url);

/// What pages of one site have in common: the registrable domain, else the host.
[[nodiscard]] std::string normalizedURLStringForTLDFeatures(const platform::URL& url);

}  // namespace orvex
