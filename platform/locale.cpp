#include "platform/locale.h"

namespace orvex::platform {

LocaleSettings LocaleService::current() const {
    const MutexLock lock(_mutex);
    return _settings;
}

void LocaleService::addChangeHandler(ChangeHandler handler) {
    const MutexLock lock(_mutex);
    _changeHandlers.push_back(std::move(handler));
}

void LocaleService::_remember(const LocaleSettings& settings) {
    std::vector<ChangeHandler> handlers;
    {
        const MutexLock lock(_mutex);
        if (settings == _settings) return;
        _settings = settings;
        handlers = _changeHandlers;
    }
    for (const auto& handler : handlers) handler(settings);
}

}  // namespace orvex::platform
