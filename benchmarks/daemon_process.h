#pragma once

#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

/// What benchmarks of the whole daemon share: its process, and what the system tells of it.
namespace orvex {

/// A child that ends with this process and logs nothing.
inline pid_t spawn(std::vector<std::string> arguments) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::vector<char*> raw;
    for (auto& argument : arguments) raw.push_back(argument.data());
    raw.push_back(nullptr);
    if (std::freopen("/dev/null", "w", stderr) != nullptr) ::execv(raw.front(), raw.data());
    std::_Exit(1);
}

inline void end(pid_t child) {
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
}

/// The number that follows `key` in a file of /proc.
inline long numberIn(const std::filesystem::path& file, std::string_view key) {
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(key)) return std::strtol(line.c_str() + key.size(), nullptr, 10);
    }
    return 0;
}

/// A new directory that is the home of what is spawned from now on; its owner removes it.
inline std::string newHome() {
    char home[] = "/tmp/orvex-benchmark.XXXXXX";
    if (::mkdtemp(home) == nullptr) return {};
    for (const auto* variable : {"HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME"})
        ::setenv(variable, home, 1);
    return home;
}

}  // namespace orvex
