#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cstdio>
#include <string>

#include "core/feedback_record.h"
#include "platform/linux/log_sinks.h"
#include "platform/linux/process.h"
#include "platform/linux/sd_bus.h"
#include "platform/linux/thread_dispatcher.h"
#include "platform/log.h"
#include "tools/search_provider/daemon_link.h"
#include "tools/search_provider/search_provider.h"

// orvex_search_provider: orvexd's answers for the desktop's overview. The bus starts it; it leaves when nobody
// searches.

namespace {

using namespace orvex;

constexpr int stopped = 0;
constexpr int wrongUsage = 2;
constexpr int notAlone = 3;  // or no bus

struct CommandLine {
    std::string busAddress;
    double deadlineSeconds = 1;
    double idleSeconds = 60;
    std::string logLevel = "default";
    std::string logFormat = "console";
};

[[noreturn]] void giveUp(int status, const std::string& why) {
    std::fprintf(stderr, "orvex_search_provider: %s\n", why.c_str());
    platform::exitNow(status);
}

CommandLine readCommandLine(int argc, char** argv) {
    CommandLine result;
    constexpr double longest = 24 * 3600;
    CLI::App app("Answers the desktop's overview with orvexd's suggestions.", "orvex_search_provider");
    app.set_version_flag("--version", search_provider::DaemonLink::userAgent());
    app.add_option("--bus", result.busAddress, "Connect to the bus at ADDRESS, not to the session bus")
        ->type_name("ADDRESS");
    app.add_option("--deadline", result.deadlineSeconds, "Give a search SECONDS")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, longest));
    app.add_option("--idle-exit", result.idleSeconds, "Leave when nothing was asked for SECONDS (0: never)")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, longest));
    app.add_option("--log-level", result.logLevel, "Write messages from debug, info, default, error or fault on");
    app.add_option("--log-format", result.logFormat, "Write messages as console, journal or json");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& end) {
        const int status = app.exit(end);
        std::fflush(stdout);
        platform::exitNow(status == 0 ? 0 : wrongUsage);
    }
    return result;
}

void startLog(const CommandLine& commandLine) {
    auto sink = platform::makeLogSink(commandLine.logFormat);
    if (!sink) giveUp(wrongUsage, sink.error().text);
    const auto level = platform::logLevelFromName(commandLine.logLevel);
    if (!level) giveUp(wrongUsage, "--log-level: no such level");
    platform::installLogSink(*std::move(sink), *level);
    routeProtobufLog();
}

std::chrono::nanoseconds durationOf(double seconds) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds));
}

}  // namespace

int main(int argc, char** argv) {
    platform::prepareProcess();
    const CommandLine commandLine = readCommandLine(argc, argv);
    startLog(commandLine);

    const auto signals = platform::SignalSource::create();
    if (!signals) giveUp(1, signals.error().text);
    platform::ThreadDispatcher dispatcher({.workers = 2, .spares = 2});
    const auto bus = platform::SdBus::create({.address = commandLine.busAddress});
    if (!bus) giveUp(notAlone, "no bus: " + bus.error().text);
    const auto link = search_provider::DaemonLink::connect(commandLine.busAddress);
    if (!link) giveUp(notAlone, "no bus: " + link.error().text);
    auto& daemon = **link;
    search_provider::SearchProvider provider(
        dispatcher, **bus, daemon,
        {.deadline = durationOf(commandLine.deadlineSeconds), .idleTime = durationOf(commandLine.idleSeconds)},
        [&] { daemon.stop(); });
    dispatcher.start();
    if (const auto serving = provider.serve(); !serving) giveUp(notAlone, serving.error().text);

    (*bus)->setDisconnectHandler([&] { daemon.stop(); });
    (*signals)->handOver(dispatcher, [&](int) { daemon.stop(); });
    daemon.run();
    (*bus)->flush(std::chrono::seconds(1));
    platform::exitNow(stopped);
}
