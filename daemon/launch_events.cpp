#include "daemon/launch_events.h"

#include <fmt/format.h>

#include <memory>

#include "daemon/activities.h"
#include "daemon/assembly.h"
#include "platform/background_activity.h"
#include "platform/log.h"
#include "platform/text.h"
#include "query/engaged_completion_cache.h"

namespace orvex {
namespace {

constexpr std::string_view clearDataNotification = "com.kelvar.proactive.queries.clearData";

}  // namespace

LaunchEvents::LaunchEvents(Assembly& assembly)
    : _assembly(assembly),
      _queue(assembly.dispatcher(), "com.kelvar.orvexd.xpc_event") {}

LaunchEvents::~LaunchEvents() { _queue.close(); }

void LaunchEvents::receive(platform::BusCall call) {
    _queue.async([this, member = call.member, argument = *call.arguments.at(0).as<std::string>(),
                  reply = std::move(call.reply)]() mutable {
        _queue.assertCurrent();
        if (member == "RunActivity") {
            _runActivity(argument, std::move(reply));
            return;
        }
        platform::defaultLogger().info("launch event for {}", argument);
        if (member == "NotificationMatched") _notificationMatched(argument);
        reply.answer({});
    });
}

void LaunchEvents::_notificationMatched(const std::string& name) {
    if (name != clearDataNotification) return;
    EngagedCompletionCache::sharedInstance(_assembly)->clearAllCompletionsForClient(engagedByLumisk);
}

void LaunchEvents::_runActivity(const std::string& name, platform::BusReply reply) {
    if (name != flusherActivityName && name != customFeedbackActivityName) {
        reply.fail(platform::bus_error::invalidArgs,
                   fmt::format("name: no activity '{}'", platform::escaped(name, 64)));
        return;
    }
    _assembly.activities().run(name, [reply = std::move(reply), name](platform::Result<void> result) mutable {
        if (result) return reply.answer({});
        platform::defaultLogger().error("cannot run {}: {}", name, result.error().text);
        reply.fail(platform::bus_error::failed, result.error().text);  // it was not checked in yet
    });
}

}  // namespace orvex
