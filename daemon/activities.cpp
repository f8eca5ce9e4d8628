#include "daemon/activities.h"

#include <chrono>
#include <memory>
#include <string>

#include "core/settings.h"
#include "daemon/assembly.h"
#include "feedback/orvex_custom_feedback_flusher.h"
#include "feedback/orvex_feedback_flusher.h"
#include "platform/background_activity.h"
#include "platform/log.h"
#include "platform/user_defaults.h"

namespace orvex {
namespace {

using platform::BackgroundActivity;
using State = BackgroundActivity::State;
using std::chrono::hours;

void flushFeedback(Assembly& assembly, std::shared_ptr<BackgroundActivity> activity) {
    if (assembly.userDefaults().boolean(setting::feedbackFlushDisabled)) {
        platform::defaultLogger().debug(
            "Flusher bailing because periodic flush is disabled. Dump feedback with orvex_tool to re-enable.");
        return;
    }
    platform::defaultLogger().debug("Flushing Orvex feedback.");
    OrvexFeedbackFlusher::create(assembly)->performPeriodicFlushActivity(std::move(activity));
}

void flushCustomFeedback(Assembly& assembly, const std::shared_ptr<BackgroundActivity>& activity) {
    if (activity->state() != State::run) return;
    platform::defaultLogger().debug("Flushing custom feedback.");
    if (!activity->setState(State::continuing)) {
        platform::defaultLogger().fault("Couldn't transition flusher activity to continue state.");
    }
    OrvexCustomFeedbackFlusher(assembly).flushCustomFeedbackWithCompletionHandler([activity] {
        if (!activity->setState(State::done)) {
            platform::defaultLogger().fault("Couldn't transition flusher activity to done state.");
        }
    });
}

}  // namespace

void checkInActivities(Assembly& assembly) {
    assembly.activities().checkIn(
        std::string(flusherActivityName), {.interval = hours(4), .grace = hours(1), .needsNetwork = true},
        [&assembly](std::shared_ptr<BackgroundActivity> activity) { flushFeedback(assembly, std::move(activity)); });
    assembly.activities().checkIn(
        std::string(customFeedbackActivityName),
        {.interval = hours(24), .grace = hours(2), .needsNetwork = true, .needsMains = true},
        [&assembly](const std::shared_ptr<BackgroundActivity>& activity) { flushCustomFeedback(assembly, activity); });
}

}  // namespace orvex
