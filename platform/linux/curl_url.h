#pragma once

#include <curl/curl.h>

#include <memory>
#include <string_view>

#include "platform/url.h"

namespace orvex::platform {

struct CurlURLCleanup {
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
using CurlURLHandle = std::unique_ptr<CURLU, CurlURLCleanup>;

/// A URL that may be opened, with libcurl's own parse of it. A transfer takes that one (CURLOPT_CURLU), so the URL is
/// read once, and what was checked is what is opened.
struct AcceptedURL {
    URL url;
    CurlURLHandle handle;
};

/// As `parseAcceptableURL`.
Result<AcceptedURL> acceptURL(std::string_view text);

/// As `resolveRedirect`.
Result<AcceptedURL> acceptRedirect(const URL& from, std::string_view location);

}  // namespace orvex::platform
