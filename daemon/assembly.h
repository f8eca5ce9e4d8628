#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace orvex::platform {
class BackgroundActivityScheduler;
class BackgroundSession;
class BackgroundSessionDelegate;
class BackgroundSessionFactory;
class Bus;
class Counters;
class DeviceInformation;
class Dispatcher;
class FileManager;
class InstalledApplications;
class InstalledDictionaries;
class LocaleService;
class LocationService;
class MemoryPressure;
class MotionService;
class NotificationCenter;
class RoutineService;
class SettingsFile;
class Transactions;
class URLSession;
class URLSessionFactory;
class UserDefaults;
}  // namespace orvex::platform

namespace orvex {

class AppWhitelistSignature;
class BagController;
class ClientSessionManagerProtocol;
class ClientStateManager;
class DownloadManager;
class EngagedCompletionCache;
class FlusherListener;
class GUIDController;
class LocationManager;
class Lookup;
class MotionManager;
class OrvexSubscriptionManager;
class ORXNetworkRequestFactory;
class OwnSessionLimit;
class PersistentStorage;
class UploadManager;

/// The one container through which managers reach each other, the platform's services and the shared HTTP sessions.
///
/// Life cycle: made by `main` with the platform's services; managers are then added in a fixed order, and each may use
/// in its constructor only what was added before it. It lives as long as the process. A manager keeps an `Assembly&`
/// and reads its peers when it uses them. One that is absent is null, which is a state like any other: some are added
/// after the first queries could come, some not at all. Threading: managers are added by `main` before anything else
/// runs; after that it is read from any thread.
class Assembly {
public:
    /// The operating system's side. Owned by `main`, outlives the assembly.
    struct Platform {
        platform::Dispatcher& dispatcher;
        platform::UserDefaults& userDefaults;
        platform::FileManager& fileManager;
        platform::NotificationCenter& notificationCenter;
        platform::URLSessionFactory& urlSessions;
        platform::Counters& counters;
        std::shared_ptr<platform::Transactions> transactions;
        platform::LocaleService& locale;
        platform::DeviceInformation& device;
        platform::MemoryPressure& memoryPressure;
        platform::BackgroundActivityScheduler& activities;
        platform::Bus& bus;
        std::string certificateAuthorityFile;  ///< PEM for all HTTP sessions; empty: the system's

        /// Null only where a test has neither uploads nor downloads.
        platform::BackgroundSessionFactory* backgroundSessions = nullptr;

        // What a device may lack. Null: it has none.
        platform::LocationService* location = nullptr;
        platform::MotionService* motion = nullptr;
        platform::RoutineService* routine = nullptr;
        platform::InstalledDictionaries* dictionaries = nullptr;
        platform::InstalledApplications* applications = nullptr;
        platform::UserDefaults* lookupDefaults = nullptr;  ///< the shared settings of lookups
        platform::SettingsFile* policy = nullptr;
        platform::SettingsFile* subscriptions = nullptr;
    };

    explicit Assembly(Platform platform);
    ~Assembly();
    Assembly(const Assembly&) = delete;
    Assembly& operator=(const Assembly&) = delete;

    [[nodiscard]] platform::Dispatcher& dispatcher() const { return _platform.dispatcher; }
    [[nodiscard]] platform::UserDefaults& userDefaults() const { return _platform.userDefaults; }
    [[nodiscard]] platform::FileManager& fileManager() const { return _platform.fileManager; }
    [[nodiscard]] platform::NotificationCenter& notificationCenter() const { return _platform.notificationCenter; }
    [[nodiscard]] platform::Counters& counters() const { return _platform.counters; }
    [[nodiscard]] platform::Transactions& transactions() const { return *_platform.transactions; }
    [[nodiscard]] platform::LocaleService& locale() const { return _platform.locale; }
    [[nodiscard]] platform::DeviceInformation& device() const { return _platform.device; }
    [[nodiscard]] platform::MemoryPressure& memoryPressure() const { return _platform.memoryPressure; }
    [[nodiscard]] platform::BackgroundActivityScheduler& activities() const { return _platform.activities; }
    [[nodiscard]] platform::Bus& bus() const { return _platform.bus; }
    [[nodiscard]] platform::LocationService* location() const { return _platform.location; }
    [[nodiscard]] platform::MotionService* motion() const { return _platform.motion; }
    [[nodiscard]] platform::RoutineService* routine() const { return _platform.routine; }
    [[nodiscard]] platform::InstalledDictionaries* dictionaries() const { return _platform.dictionaries; }
    [[nodiscard]] platform::InstalledApplications* applications() const { return _platform.applications; }
    [[nodiscard]] platform::UserDefaults* lookupDefaults() const { return _platform.lookupDefaults; }
    [[nodiscard]] platform::SettingsFile* policy() const { return _platform.policy; }
    [[nodiscard]] platform::SettingsFile* subscriptions() const { return _platform.subscriptions; }

    [[nodiscard]] const std::shared_ptr<LocationManager>& locationManager() const { return _locationManager; }
    void setLocationManager(std::shared_ptr<LocationManager> manager) { _locationManager = std::move(manager); }
    [[nodiscard]] const std::shared_ptr<DownloadManager>& downloadManager() const { return _downloadManager; }
    void setDownloadManager(std::shared_ptr<DownloadManager> manager) { _downloadManager = std::move(manager); }
    [[nodiscard]] const std::shared_ptr<MotionManager>& motionManager() const { return _motionManager; }
    void setMotionManager(std::shared_ptr<MotionManager> manager) { _motionManager = std::move(manager); }
    [[nodiscard]] const std::shared_ptr<OrvexSubscriptionManager>& subscriptionManager() const {
        return _subscriptionManager;
    }
    void setSubscriptionManager(std::shared_ptr<OrvexSubscriptionManager> manager) {
        _subscriptionManager = std::move(manager);
    }
    [[nodiscard]] const std::shared_ptr<ORXNetworkRequestFactory>& requestFactory() const { return _requestFactory; }
    void setRequestFactory(std::shared_ptr<ORXNetworkRequestFactory> factory) { _requestFactory = std::move(factory); }
    [[nodiscard]] const std::shared_ptr<Lookup>& lookup() const { return _lookup; }
    void setLookup(std::shared_ptr<Lookup> lookup) { _lookup = std::move(lookup); }
    [[nodiscard]] const std::shared_ptr<BagController>& bagController() const { return _bagController; }
    void setBagController(std::shared_ptr<BagController> controller) { _bagController = std::move(controller); }
    [[nodiscard]] const std::shared_ptr<ClientStateManager>& clientStateManager() const { return _clientStateManager; }
    void setClientStateManager(std::shared_ptr<ClientStateManager> manager) {
        _clientStateManager = std::move(manager);
    }
    [[nodiscard]] const std::shared_ptr<AppWhitelistSignature>& appWhitelistController() const {
        return _appWhitelistController;
    }
    void setAppWhitelistController(std::shared_ptr<AppWhitelistSignature> controller) {
        _appWhitelistController = std::move(controller);
    }
    [[nodiscard]] const std::shared_ptr<GUIDController>& guidController() const { return _guidController; }
    void setGuidController(std::shared_ptr<GUIDController> controller) { _guidController = std::move(controller); }
    /// Takes what the daemon itself reports, and the records of all clients while they share a session.
    [[nodiscard]] const std::shared_ptr<ClientSessionManagerProtocol>& clientSessionManager() const {
        return _clientSessionManager;
    }
    void setClientSessionManager(std::shared_ptr<ClientSessionManagerProtocol> manager) {
        _clientSessionManager = std::move(manager);
    }
    [[nodiscard]] const std::shared_ptr<PersistentStorage>& persistentStorage() const { return _persistentStorage; }
    void setPersistentStorage(std::shared_ptr<PersistentStorage> storage) { _persistentStorage = std::move(storage); }
    [[nodiscard]] const std::shared_ptr<OwnSessionLimit>& ownSessionLimit() const { return _ownSessionLimit; }
    void setOwnSessionLimit(std::shared_ptr<OwnSessionLimit> limit) { _ownSessionLimit = std::move(limit); }
    [[nodiscard]] const std::shared_ptr<UploadManager>& uploadManager() const { return _uploadManager; }
    void setUploadManager(std::shared_ptr<UploadManager> manager) { _uploadManager = std::move(manager); }
    [[nodiscard]] const std::shared_ptr<FlusherListener>& flusherListener() const { return _flusherListener; }
    void setFlusherListener(std::shared_ptr<FlusherListener> listener) { _flusherListener = std::move(listener); }
    [[nodiscard]] bool sharedSession() const { return _sharedSession; }
    void setSharedSession(bool shared) { _sharedSession = shared; }

    /// The one instance; `EngagedCompletionCache::sharedInstance` is how to ask for it. `make` is called on first use.
    [[nodiscard]] const std::shared_ptr<EngagedCompletionCache>& engagedCompletionCache(
        const std::function<std::shared_ptr<EngagedCompletionCache>()>& make);

    [[nodiscard]] bool diskBagCacheEnabled() const { return true; }
    [[nodiscard]] bool useCindora() const;  ///< the user default "ORXUseCindora"

    /// For queries. This and the other sessions are made once, on first use.
    [[nodiscard]] platform::URLSession& urlSession();
    /// Whether `urlSession` was used yet; asking does not make it.
    [[nodiscard]] platform::URLSession* urlSessionIfMade() const;
    /// For bag fetches.
    [[nodiscard]] platform::URLSession& bagSession();

    /// For feedback uploads and for resource downloads. Both are made with the delegate that was set with the managers;
    /// tasks that an earlier process stored go on from their first use on.
    [[nodiscard]] platform::BackgroundSession& uploadURLSession();
    [[nodiscard]] platform::BackgroundSession& downloadURLSession();
    /// Null while it was not used yet; asking does not make it.
    [[nodiscard]] platform::BackgroundSession* uploadURLSessionIfMade() const { return _madeUploadURLSession; }
    [[nodiscard]] platform::BackgroundSession* downloadURLSessionIfMade() const { return _madeDownloadURLSession; }
    void setUploadDelegate(std::weak_ptr<platform::BackgroundSessionDelegate> delegate);
    void setDownloadDelegate(std::weak_ptr<platform::BackgroundSessionDelegate> delegate);

    /// The end of start-up: tasks that an earlier process stored go on, and the delegates hear of ends.
    void resumeStoredTransfers();

private:
    // Constant after construction.
    const Platform _platform;

    // Added by `main`, in this order.
    std::shared_ptr<LocationManager> _locationManager;
    std::shared_ptr<DownloadManager> _downloadManager;
    std::shared_ptr<MotionManager> _motionManager;
    std::shared_ptr<ORXNetworkRequestFactory> _requestFactory;
    std::shared_ptr<OrvexSubscriptionManager> _subscriptionManager;
    std::shared_ptr<Lookup> _lookup;
    std::shared_ptr<BagController> _bagController;
    std::shared_ptr<ClientStateManager> _clientStateManager;
    std::shared_ptr<AppWhitelistSignature> _appWhitelistController;
    std::shared_ptr<GUIDController> _guidController;
    std::shared_ptr<ClientSessionManagerProtocol> _clientSessionManager;
    std::shared_ptr<PersistentStorage> _persistentStorage;
    std::shared_ptr<OwnSessionLimit> _ownSessionLimit;
    std::shared_ptr<UploadManager> _uploadManager;
    std::shared_ptr<FlusherListener> _flusherListener;
    bool _sharedSession = false;
    std::weak_ptr<platform::BackgroundSessionDelegate> _uploadDelegate;
    std::weak_ptr<platform::BackgroundSessionDelegate> _downloadDelegate;

    // Synchronised by themselves.
    std::once_flag _urlSessionOnce;
    std::once_flag _bagSessionOnce;
    std::once_flag _uploadURLSessionOnce;
    std::once_flag _downloadURLSessionOnce;
    std::once_flag _engagedCompletionCacheOnce;
    std::shared_ptr<platform::URLSession> _urlSession;
    std::shared_ptr<platform::URLSession> _bagSession;
    std::shared_ptr<EngagedCompletionCache> _engagedCompletionCache;
    std::atomic<platform::URLSession*> _madeURLSession = nullptr;
    std::shared_ptr<platform::BackgroundSession> _uploadURLSession;
    std::shared_ptr<platform::BackgroundSession> _downloadURLSession;
    std::atomic<platform::BackgroundSession*> _madeUploadURLSession = nullptr;
    std::atomic<platform::BackgroundSession*> _madeDownloadURLSession = nullptr;
};

}  // namespace orvex
