#include "network/app_whitelist_controller.h"

#include "core/constants.h"
#include "core/notifications.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "network/whitelist_document.h"
#include "platform/installed_applications.h"
#include "platform/log.h"
#include "platform/mapped_file.h"
#include "platform/notification_center.h"
#include "platform/transactions.h"
#include "platform/user_defaults.h"
#include "resources/download_manager.h"

namespace orvex {
namespace {

const platform::Logger& log() { return platform::defaultLogger(); }

}  // namespace

std::shared_ptr<AppWhitelistController> AppWhitelistController::create(Assembly& assembly) {
    std::shared_ptr<AppWhitelistController> controller(new AppWhitelistController(assembly));
    if (auto* applications = assembly.applications()) {
        applications->setChangeHandler([weak = controller->weak_from_this()] {
            if (const auto self = weak.lock()) self->_applicationsChanged();
        });
    }
    assembly.notificationCenter().observe<ORXFileDownloadCompletedNotification>(
        controller, [](AppWhitelistController& self, const auto& download) {
            if (download.identifier == kORXInstalledAppWhitelist) self._generateSoon();
        });
    if (!controller->whitelistSignature()) controller->_generateSoon();
    return controller;
}

AppWhitelistController::AppWhitelistController(Assembly& assembly)
    : _assembly(assembly),
      _backgroundQueue(assembly.dispatcher(), platform::Priority::background),
      _timer(assembly.dispatcher(), platform::Priority::background),
      _whitelistSignature(assembly.userDefaults().string(setting::appWhitelistSignature)) {}

AppWhitelistController::~AppWhitelistController() { _assembly.notificationCenter().removeObserver(this); }

std::optional<std::string> AppWhitelistController::whitelistSignature() const {
    const platform::MutexLock lock(_mutex);
    return _whitelistSignature;
}

void AppWhitelistController::_applicationsChanged() {
    _timer.armAfter(
        changeDelay,
        [weak = weak_from_this()] {
            if (const auto self = weak.lock()) self->_generateWhitelistSignature();
        },
        changeDelay);
}

void AppWhitelistController::_generateSoon() {
    _backgroundQueue.async([weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->_generateWhitelistSignature();
    });
}

void AppWhitelistController::_generateWhitelistSignature() {
    if (_generating.exchange(true)) return;
    const auto transaction = _assembly.transactions().begin("appWhitelist");
    auto signature = _generate();
    auto& defaults = _assembly.userDefaults();
    const auto stored = signature ? defaults.setObject(setting::appWhitelistSignature, *signature)
                                  : defaults.removeObject(setting::appWhitelistSignature);
    if (!stored) log().error("cannot store the app whitelist signature: {}", stored.error().text);
    {
        const platform::MutexLock lock(_mutex);
        _whitelistSignature = std::move(signature);
    }
    _generating = false;
}

std::optional<std::string> AppWhitelistController::_generate() const {
    log().log("generating app whitelist");
    if (!_assembly.downloadManager() || _assembly.applications() == nullptr) return std::nullopt;
    const auto file = _assembly.downloadManager()->fileHandleForResource(kORXInstalledAppWhitelist);
    if (!file) {
        log().log("error reading app whitelist {}", file.error().description());
        return std::nullopt;
    }
    const auto whitelist = platform::mmapFileHandle(file->descriptor);
    if (!whitelist) {
        log().log("mmap failed {}", whitelist.error().text);
        return std::nullopt;
    }
    auto signature = processWhitelist(whitelist->bytes(), [this](const boost::json::object& apps) {
        return findWhitelistedApplications(apps, _assembly.applications()->applications(), _assembly.counters());
    });
    log().log("installed app signature: {}", platform::privately(platform::orNull(signature)));
    return signature;
}

}  // namespace orvex
