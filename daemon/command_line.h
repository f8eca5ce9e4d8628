#pragma once

#include <chrono>
#include <expected>
#include <string>
#include <utility>
#include <vector>

#include "platform/log.h"

namespace orvex {

/// How orvexd was started.
struct CommandLine {
    std::string busAddress;  ///< empty: the user's session bus
    std::vector<std::pair<std::string, std::string>> defaults;
    std::string certificateAuthorityFile;
    std::chrono::nanoseconds idleExit{0};  ///< 0: never
    platform::LogLevel logLevel = platform::LogLevel::standard;
    std::string logFormat = "console";
};

/// What to do instead of starting: the text of `--help` or `--version` with status 0, or why the arguments are wrong.
struct CommandLineEnd {
    int status;
    std::string text;
};

std::expected<CommandLine, CommandLineEnd> parseCommandLine(int argc, const char* const* argv);

}  // namespace orvex
