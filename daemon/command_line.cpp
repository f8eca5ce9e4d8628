#include "daemon/command_line.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cmath>

#include "core/constants.h"

namespace orvex {
namespace {

constexpr int wrongUsage = 2;
constexpr double longestIdle = 365.0 * 24 * 3600;

std::string validateDefault(const std::string& text) {
    const auto equals = text.find('=');
    return equals == std::string::npos || equals == 0 ? "expected KEY=VALUE" : std::string();
}

std::string validateIdle(const std::string& text) {
    std::size_t used = 0;
    try {
        const double seconds = std::stod(text, &used);
        if (used == text.size() && std::isfinite(seconds) && seconds >= 0 && seconds <= longestIdle) return {};
    } catch (const std::exception&) {  // neither a number nor one that a double holds
    }
    return "expected a number of seconds, 0 or more";
}

}  // namespace

std::expected<CommandLine, CommandLineEnd> parseCommandLine(int argc, const char* const* argv) {
    CommandLine result;
    std::vector<std::string> defaults;
    double idleSeconds = 0;
    std::string level = "default";

    CLI::App app("Answers search requests of other programs over D-Bus.", "orvexd");
    app.set_version_flag("--version", kORXOrvexdNameVersion());
    app.add_option("--bus", result.busAddress, "Connect to the bus at ADDRESS, not to the session bus")
        ->type_name("ADDRESS");
    app.add_option("--default", defaults, "Put VALUE over the stored user default KEY for this run; may be repeated")
        ->type_name("KEY=VALUE")
        ->check(CLI::Validator(validateDefault, ""))
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("--ca-file", result.certificateAuthorityFile, "Trust the authorities of this PEM file")
        ->type_name("PEM")
        ->check(CLI::Validator(CLI::ExistingFile).description(""));
    app.add_option("--idle-exit", idleSeconds, "Leave once nothing was to do for SECONDS (0: never)")
        ->type_name("SECONDS")
        ->check(CLI::Validator(validateIdle, ""));
    app.add_option("--log-level", level, "Write messages from this level on")
        ->check(CLI::IsMember({"debug", "info", "default", "error", "fault"}));
    app.add_option("--log-format", result.logFormat, "How messages are written")
        ->check(CLI::IsMember({"console", "journal", "json"}));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& end) {
        if (end.get_exit_code() != 0) {
            return std::unexpected(CommandLineEnd{wrongUsage, std::string("orvexd: ") + end.what() + "\n"});
        }
        const bool version = end.get_name() == "CallForVersion";
        return std::unexpected(CommandLineEnd{0, version ? kORXOrvexdNameVersion() + "\n" : app.help()});
    }
    for (const auto& text : defaults) {
        const auto equals = text.find('=');
        result.defaults.emplace_back(text.substr(0, equals), text.substr(equals + 1));
    }
    result.idleExit = std::chrono::nanoseconds(static_cast<std::int64_t>(idleSeconds * 1e9));
    result.logLevel = *platform::logLevelFromName(level);
    return result;
}

}  // namespace orvex
