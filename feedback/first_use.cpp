#include "feedback/first_use.h"

#include <array>

#include "core/client_name.h"
#include "core/feedback_records.pb.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "platform/calendar.h"
#include "platform/counters.h"
#include "platform/dispatch.h"
#include "platform/text.h"
#include "platform/user_defaults.h"

namespace orvex {
namespace {

constexpr std::array<std::string_view, 6> supportedFirstUseClients = {"brovia", "lumisk", "lookup",
                                                                      "missiv", "gazel",  "vocant"};

const platform::Logger& sessionLog() { return OrvexLogForCategory(OrvexLoggingCategory::session); }

/// What is not a date is removed.
void readFirstUseDate(Assembly& assembly, const std::string& key, CXClientSession& session) {
    const auto stored = assembly.userDefaults().object(key);
    if (const auto* date = stored ? stored->as<platform::WallTime>() : nullptr) {
        session.set_first_use_date(platform::secondsSince1970(*date));
        return;
    }
    sessionLog().error("Found something other than a date in defaults for key {}.", key);
    if (const auto removed = assembly.userDefaults().removeObject(key); !removed) {
        sessionLog().error("cannot remove {}: {}", key, removed.error().text);
    }
}

void beginDay(Assembly& assembly, const std::string& key, CXClientSession& session) {
    const auto now = assembly.dispatcher().wallNow();
    session.set_first_use_date(platform::secondsSince1970(now));
    session.set_first_use_of_the_day(true);
    if (const auto stored = assembly.userDefaults().setObject(key, now); !stored) {
        sessionLog().error("cannot store {}: {}", key, stored.error().text);
    }
    assembly.counters().add(createAggdKey(key.substr(setting::firstUseOfTheDay.size()), "dailyactiveusers"));
}

}  // namespace

std::optional<std::string> firstUseDefaultsKey(std::string_view agent) {
    const std::string lowerCase = platform::lowercased(agent);
    for (const auto client : supportedFirstUseClients) {
        if (lowerCase.find(client) != std::string::npos) return std::string(setting::firstUseOfTheDay).append(client);
    }
    return std::nullopt;
}

void determineFirstUse(Assembly& assembly, CXClientSession& session) {
    const auto key = firstUseDefaultsKey(session.agent());
    if (!key) {
        if (session.has_agent()) sessionLog().debug("user default key not found for agent: {}", session.agent());
        return;
    }
    readFirstUseDate(assembly, *key, session);
    if (session.has_first_use_date() &&
        platform::isSameDay(platform::wallTimeFromSeconds(session.first_use_date()), assembly.dispatcher().wallNow(),
                            assembly.locale().current())) {
        return;
    }
    beginDay(assembly, *key, session);
}

}  // namespace orvex
