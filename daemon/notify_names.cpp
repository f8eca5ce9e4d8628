#include "daemon/notify_names.h"

#include "core/constants.h"
#include "daemon/assembly.h"
#include "platform/bus.h"
#include "query/engaged_completion_cache.h"

namespace orvex {
namespace {

constexpr std::string_view suggestionsCleared = "com.kelvar.lumisk.suggestionsCleared";

}  // namespace

void listenToNotifyNames(Assembly& assembly) {
    constexpr const char* anySender = "";
    assembly.bus().subscribe(anySender, std::string(kORXNotifyPath), std::string(kORXNotifyInterface),
                             std::string(kORXNotifySignal),
                             [&assembly](const std::string&, const platform::BusArguments& arguments) {
                                 const auto* name = arguments.empty() ? nullptr : arguments[0].as<std::string>();
                                 if (name == nullptr || *name != suggestionsCleared) return;
                                 EngagedCompletionCache::sharedInstance(assembly)->lumiskDidClearSuggestions();
                             });
}

}  // namespace orvex
