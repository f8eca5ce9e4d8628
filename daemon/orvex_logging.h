#pragma once

#include <cstdint>

#include "platform/log.h"

namespace orvex {

/// What a log line is about. Each category has one logger of the subsystem "com.kelvar.orvexd".
enum class OrvexLoggingCategory : std::uint32_t {
    general,
    feedback,  ///< feedback records
    session,   ///< feedback sessions
    request,   ///< request building
    flusher,   ///< feedback flushing
    search,    ///< search queries
    zeroKeyword,
    moreResults,
    card,
    lookUp,  ///< lookup queries and hints
    flight,
    images,           ///< image map
    connection,       ///< the listener and client connections
    downloadManager,  ///< resource downloads
    bag,              ///< the server configuration bag
    subscription,
    caching,  ///< query cache, URL cache
    feedbackErrors,
    feedbackStorage,
    protocol,       ///< request and response details
    uploadManager,  ///< feedback upload
};
inline constexpr std::uint32_t OrvexLoggingCategoryCount = 21;

/// The logger of a category; lives as long as the process. Callable from any thread.
/// A value of 21 or more is a programming error: it aborts, in release builds too.
const platform::Logger& OrvexLogForCategory(OrvexLoggingCategory category);

}  // namespace orvex
