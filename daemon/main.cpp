#include <systemd/sd-daemon.h>

#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "core/constants.h"
#include "core/feedback_record.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/command_line.h"
#include "daemon/idle_exit.h"
#include "daemon/orvex_service.h"
#include "daemon/start_up.h"
#include "platform/background_activity_scheduler.h"
#include "platform/counters.h"
#include "platform/device_conditions.h"
#include "platform/linux/background_session_factory.h"
#include "platform/linux/counter_file.h"
#include "platform/linux/curl_session.h"
#include "platform/linux/desktop_applications.h"
#include "platform/linux/device_information.h"
#include "platform/linux/dictionary_directories.h"
#include "platform/linux/file_manager.h"
#include "platform/linux/file_watcher.h"
#include "platform/linux/geoclue_location.h"
#include "platform/linux/icu_locale.h"
#include "platform/linux/linux_settings_file.h"
#include "platform/linux/log_sinks.h"
#include "platform/linux/memory_pressure.h"
#include "platform/linux/process.h"
#include "platform/linux/sd_bus.h"
#include "platform/linux/system_conditions.h"
#include "platform/linux/system_settings.h"
#include "platform/linux/thread_dispatcher.h"
#include "platform/linux/user_defaults.h"
#include "platform/log_events.h"
#include "platform/notification_center.h"
#include "platform/transactions.h"

// The one place that knows which platform this is. It makes the services, hands them to the assembly, and leaves
// through `exitNow`: nothing is torn down, since every component keeps on disk what must last as it changes.

namespace {

using namespace orvex;

constexpr int stopped = 0;
constexpr int cannotStart = 1;
constexpr int wrongUsage = 2;
constexpr int notAlone = 3;  // or no bus

/// Ends a start that cannot go on.
[[noreturn]] void giveUp(int status, const std::string& why) {
    platform::defaultLogger().as(platform::LogEvent::startRefused, {{"ORVEX_REASON", why}}).fault("{}", why);
    platform::exitNow(status);
}

CommandLine readCommandLine(int argc, char** argv) {
    auto commandLine = parseCommandLine(argc, argv);
    if (commandLine) return *std::move(commandLine);
    std::fputs(commandLine.error().text.c_str(), commandLine.error().status == 0 ? stdout : stderr);
    std::fflush(stdout);
    platform::exitNow(commandLine.error().status);
}

void startLog(const CommandLine& commandLine) {
    auto sink = platform::makeLogSink(commandLine.logFormat);
    if (!sink) {
        std::fprintf(stderr, "orvexd: %s\n", sink.error().text.c_str());
        platform::exitNow(wrongUsage);
    }
    platform::installLogSink(*std::move(sink), commandLine.logLevel);
    routeProtobufLog();
}

/// The lock of the state directory. Without a state directory there is nothing to share, and the bus name alone
/// decides.
std::optional<platform::LockFile> lockState(platform::FileManager& files) {
    auto state = files.stateDirectory();
    if (!state) {
        platform::defaultLogger()
            .as(platform::LogEvent::noDirectory, {{"ORVEX_REASON", state.error().text}})
            .error("no state directory, nothing will be kept: {}", state.error().text);
        return std::nullopt;
    }
    auto lock = platform::LockFile::take(std::filesystem::path((*state)->path()) / "lock");
    if (!lock && lock.error().code == EWOULDBLOCK) giveUp(notAlone, lock.error().text);
    if (!lock) platform::defaultLogger().error("cannot lock the state directory: {}", lock.error().text);
    return lock ? std::optional(*std::move(lock)) : std::nullopt;
}

double desktopScale() {
    const char* text = std::getenv("GDK_SCALE");
    double scale = 0;
    if (text != nullptr) std::from_chars(text, text + std::char_traits<char>::length(text), scale);
    return scale > 0 && scale <= 16 ? scale : 1.0;
}

std::unique_ptr<platform::SdBus> connectToBus(const std::string& address) {
    auto bus = platform::SdBus::create({.address = address});
    if (!bus) giveUp(notAlone, "no bus: " + bus.error().text);
    return *std::move(bus);
}

/// Null where there is none, which costs what its services tell and nothing else. The start does not wait for it.
std::unique_ptr<platform::SdBus> connectToSystemBus() {
    auto bus =
        platform::SdBus::create({.address = {}, .kind = platform::SdBus::Kind::system, .waitsForWelcome = false});
    if (bus) return *std::move(bus);
    platform::defaultLogger().info("no system bus: {}", bus.error().text);
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    platform::prepareProcess();
    const CommandLine commandLine = readCommandLine(argc, argv);
    startLog(commandLine);
    const auto signals = platform::SignalSource::create();
    if (!signals) giveUp(cannotStart, signals.error().text);

    platform::LinuxFileManager files(platform::LinuxFileManager::Environment::ofProcess());
    const auto lock = lockState(files);
    platform::ThreadDispatcher dispatcher;
    platform::FileWatcher watcher;
    platform::LinuxUserDefaults userDefaults(files, watcher);
    userDefaults.registerDefaults({{std::string(setting::screenScale), desktopScale()}});
    for (const auto& [key, value] : commandLine.defaults) userDefaults.overrideForThisRun(key, value);
    platform::Counters counters;
    const auto counterFile = platform::CounterFile::create(dispatcher, files, counters);
    platform::NotificationCenter notificationCenter;
    platform::CurlSessionFactory urlSessions;
    const auto transactions = std::make_shared<platform::Transactions>(dispatcher);
    platform::SystemSettings systemSettings;
    platform::IcuLocale locale(systemSettings.environment());
    platform::LinuxDeviceInformation device;
    platform::LinuxMemoryPressure memoryPressure;
    platform::DeviceConditions conditions;
    platform::StoredBackgroundSessionFactory backgroundSessions(
        {.dispatcher = dispatcher,
         .files = files,
         .urlSessions = urlSessions,
         .conditions = conditions,
         .counters = counters,
         .transactions = transactions,
         .draw = platform::StoredBackgroundSessionFactory::randomDraw()});
    platform::DispatcherActivityScheduler activities({dispatcher, counters, files, conditions});
    const auto bus = connectToBus(commandLine.busAddress);
    const auto systemBus = connectToSystemBus();
    if (systemBus) systemSettings.follow(*systemBus, [&] { locale.refresh(); });
    if (systemBus) platform::followSystemConditions(*systemBus, conditions);
    const auto location = platform::GeoClueLocation::create({.system = systemBus.get(), .session = *bus});
    platform::DictionaryDirectories dictionaries(watcher, {});
    platform::DesktopApplications applications(watcher, platform::DesktopApplications::dataDirectoriesOfProcess());
    platform::LinuxUserDefaults lookupDefaults(files, watcher, "com.kelvar.lookup.shared");
    platform::LinuxSettingsFile policy(watcher, "/etc/orvexd", "policy.json");
    platform::LinuxSettingsFile subscriptions(
        watcher, files.configurationPath("com.kelvar.orvexd").value_or("/nonexistent"), "subscriptions.json");

    Assembly assembly({.dispatcher = dispatcher,
                       .userDefaults = userDefaults,
                       .fileManager = files,
                       .notificationCenter = notificationCenter,
                       .urlSessions = urlSessions,
                       .counters = counters,
                       .transactions = transactions,
                       .locale = locale,
                       .device = device,
                       .memoryPressure = memoryPressure,
                       .activities = activities,
                       .bus = *bus,
                       .certificateAuthorityFile = commandLine.certificateAuthorityFile,
                       .backgroundSessions = &backgroundSessions,
                       .location = location.get(),
                       .dictionaries = &dictionaries,
                       .applications = &applications,
                       .lookupDefaults = &lookupDefaults,
                       .policy = &policy,
                       .subscriptions = &subscriptions});
    const auto service = assemble(assembly);
    if (const auto exported = service->exportObjects(); !exported) giveUp(notAlone, exported.error().text);
    dispatcher.start();
    // Before anyone can call: from then on there is something to finish.
    (*signals)->handOver(dispatcher, [&](int signal) {
        platform::defaultLogger().debug("{}", signal == SIGINT ? "SIGINT" : "SIGTERM");
        dispatcher.stopMain(stopped);
    });
    if (const auto named = bus->requestName(std::string(kORXBusName)); !named) giveUp(notAlone, named.error().text);
    platform::defaultLogger()
        .as(platform::LogEvent::started, {{"ORVEX_VERSION", ORVEX_VERSION}})
        .log("orvexd {} has started", ORVEX_VERSION);
    beginService(assembly);

    bus->setDisconnectHandler([&] { dispatcher.stopMain(stopped); });
    std::optional<IdleExit> idleExit;
    if (commandLine.idleExit.count() > 0) {
        idleExit.emplace(
            assembly, commandLine.idleExit, [&] { return service->callsInFlight(); },
            [&] {
                sd_notify(0, "STOPPING=1");
                service->leave([&] { dispatcher.stopMain(stopped); });
            });
    }
    const int status = dispatcher.runMain();
    counterFile->close();
    bus->flush(std::chrono::seconds(1));
    platform::exitNow(status);
}
