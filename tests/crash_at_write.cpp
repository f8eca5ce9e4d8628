// Preloaded into a program, kills it at its n-th write to a session file: before, in the middle of, or after it.
// ORVEX_CRASH_AT_WRITE is the moment and n: "middle 3".

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

struct Plan {
    Plan() {
        const char* variable = std::getenv("ORVEX_CRASH_AT_WRITE");
        const std::string text = variable ? variable : "";
        const auto space = text.find(' ');
        if (space == text.npos) return;
        moment = text.substr(0, space);
        nth = std::atol(text.c_str() + space);
    }
    std::string moment;
    long nth = 0;
};

bool isSessionFile(int file) {
    std::array<char, 4096> target{};
    const auto link = "/proc/self/fd/" + std::to_string(file);
    const auto length = ::readlink(link.c_str(), target.data(), target.size());
    return length > 0 && std::string_view(target.data(), static_cast<std::size_t>(length)).contains("/session.");
}

ssize_t reallyWrite(int file, const void* data, std::size_t size) { return ::syscall(SYS_write, file, data, size); }

}  // namespace

extern "C" ssize_t write(int file, const void* data, std::size_t size) {
    static const Plan plan;
    static std::atomic<long> writes = 0;
    if (!isSessionFile(file) || ++writes != plan.nth) return reallyWrite(file, data, size);
    if (plan.moment == "middle") reallyWrite(file, data, size / 2);
    if (plan.moment == "after") reallyWrite(file, data, size);
    ::kill(::getpid(), SIGKILL);
    ::pause();
    return -1;
}
