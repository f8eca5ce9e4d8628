#include "daemon/orvex_logging.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace orvex {
namespace {

constexpr std::array<std::string_view, OrvexLoggingCategoryCount> categoryNames = {
    "Orvex",
    "Orvex_Feedback",
    "Orvex_Session",
    "Orvex_Request",
    "Orvex_Flusher",
    "Orvex_Search",
    "Orvex_ZeroKeyword",
    "Orvex_MoreResults",
    "Orvex_Card",
    "Orvex_LookUp",
    "Orvex_Flight",
    "Orvex_Images",
    "Orvex_Connection",
    "Orvex_DownloadManager",
    "Orvex_Bag",
    "Orvex_Subscription",
    "Orvex_Caching",
    "Orvex_Feedback_Errors",
    "Orvex_Feedback_Storage",
    "Orvex_Protocol",
    "Orvex_UploadManager",
};

template <std::size_t... Index>
std::array<platform::Logger, sizeof...(Index)> makeLoggers(std::index_sequence<Index...>) {
    return {platform::Logger("com.kelvar.orvexd", std::string(categoryNames[Index]))...};
}

}  // namespace

const platform::Logger& OrvexLogForCategory(OrvexLoggingCategory category) {
    const auto index = static_cast<std::uint32_t>(category);
    if (index >= OrvexLoggingCategoryCount) {
        std::fputs("assertion failed: category < OrvexLoggingCategoryCount (orvexd/OrvexLogging:15)\n", stderr);
        std::abort();
    }
    // Never destroyed: a thread may log until the very end of the process.
    static const auto& loggers = *new auto(makeLoggers(std::make_index_sequence<OrvexLoggingCategoryCount>()));
    return loggers[index];
}

}  // namespace orvex
