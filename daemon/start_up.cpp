#include "daemon/start_up.h"

#include "core/constants.h"
#include "core/notifications.h"
#include "core/settings.h"
#include "daemon/activities.h"
#include "daemon/assembly.h"
#include "daemon/client_state_manager.h"
#include "daemon/notify_names.h"
#include "daemon/orvex_service.h"
#include "feedback/orvex_persistent_storage.h"
#include "feedback/own_session_limit.h"
#include "feedback/upload_manager.h"
#include "network/app_whitelist_controller.h"
#include "network/bag_controller.h"
#include "network/location_manager.h"
#include "network/motion_manager.h"
#include "network/orvex_subscription_manager.h"
#include "network/orx_network_request_factory.h"
#include "network/orx_tracing.h"
#include "platform/counters.h"
#include "platform/dispatch.h"
#include "platform/file_manager.h"
#include "platform/log.h"
#include "platform/log_events.h"
#include "platform/notification_center.h"
#include "platform/user_defaults.h"
#include "resources/download_manager.h"
#include "resources/lookup.h"

namespace orvex {
namespace {

void createCustomFeedbackDirectories(platform::FileManager& fileManager) {
    auto caches = fileManager.cachesDirectory();
    if (!caches) {
        platform::defaultLogger()
            .as(platform::LogEvent::noDirectory, {{"ORVEX_REASON", caches.error().text}})
            .error("failed getting a caches dir: {}", caches.error().text);
        return;
    }
    auto directory = (*caches)->directory("CustomFeedback");
    if (!directory) {
        platform::defaultLogger().error("failed creating CustomFeedback dir:{}", directory.error().text);
        return;
    }
    for (const int type : customFeedbackTypes) {
        const auto made = (*directory)->makeDirectory(customFeedbackDirectoryName(type));
        if (!made) {
            platform::defaultLogger().error("failed creating a CustomFeedback subdir:{}", made.error().text);
        }
    }
}

void readSilhouetteTopics(Assembly& assembly) {
    if (const auto topics = assembly.userDefaults().string(setting::silhouette))
        assembly.requestFactory()->setSilhouetteTopics(*topics);
}

}  // namespace

std::shared_ptr<OrvexService> assemble(Assembly& assembly) {
    ORXTracingSetup(assembly.userDefaults());
    assembly.userDefaults().registerDefaults(registeredSettings());
    createCustomFeedbackDirectories(assembly.fileManager());
    assembly.setSharedSession(assembly.userDefaults().boolean(setting::sharedSession));
    assembly.setLocationManager(LocationManager::create(assembly));
    assembly.setDownloadManager(DownloadManager::create(assembly));
    assembly.setDownloadDelegate(assembly.downloadManager());
    assembly.setMotionManager(std::make_shared<MotionManager>(assembly));
    assembly.setRequestFactory(ORXNetworkRequestFactory::create(assembly));
    assembly.setSubscriptionManager(OrvexSubscriptionManager::create(assembly, assembly.requestFactory()));
    UploadManager::removeTemporaryFiles(assembly.fileManager());
    assembly.setUploadManager(UploadManager::create(assembly));
    assembly.setUploadDelegate(assembly.uploadManager());
    assembly.setPersistentStorage(std::make_shared<OrvexPersistentStorage>(assembly));
    assembly.setOwnSessionLimit(std::make_shared<OwnSessionLimit>(assembly.dispatcher(), assembly.counters()));
    assembly.counters().add("com.kelvar.orvexd.launch");
    assembly.setLookup(Lookup::create(assembly));
    assembly.setBagController(makeBagController(assembly));
    assembly.setClientStateManager(std::make_shared<ClientStateManager>(assembly));
    assembly.setAppWhitelistController(AppWhitelistController::create(assembly));
    readSilhouetteTopics(assembly);
    checkInActivities(assembly);  // whoever starts the daemon by running one finds it
    return OrvexService::create(assembly);
}

void beginService(Assembly& assembly) {
    listenToNotifyNames(assembly);
    const platform::GlobalQueue background(assembly.dispatcher(), platform::Priority::background);
    background.async([&assembly] { (void)assembly.bagController()->currentBag(); });
    const platform::GlobalQueue standard(assembly.dispatcher(), platform::Priority::standard);
    standard.async([&assembly] { assembly.notificationCenter().post(ORXStartupNotification{}); });
    assembly.resumeStoredTransfers();
}

}  // namespace orvex
