#include "platform/fakes/private_bus.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace orvex::platform {
namespace {

// The limits are the standard session bus's, which has next to none.
constexpr auto* configuration = R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path={}/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_message_size">1000000000</limit>
  <limit name="max_completed_connections">100000</limit>
  <limit name="max_connections_per_user">100000</limit>
  <limit name="max_names_per_connection">50000</limit>
  <limit name="max_match_rules_per_connection">50000</limit>
  <limit name="max_replies_per_connection">50000</limit>
</busconfig>
)";

[[noreturn]] void giveUp(const char* what) {
    fmt::print(stderr, "no private bus: {}\n", what);
    std::abort();
}

/// The first line of what the pipe carries, empty when it ends before.
std::string readLine(int descriptor) {
    std::string line;
    for (char next = 0;;) {
        const auto got = ::read(descriptor, &next, 1);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return {};
        if (next == '\n') return line;
        line.push_back(next);
    }
}

}  // namespace

PrivateBus::PrivateBus() {
    writeFile(_directory / "bus.conf", fmt::format(configuration, _directory.path()));
    const auto configurationOption = "--config-file=" + (_directory / "bus.conf");
    const auto log = _directory / "log";  // as root it complains of limits that a container denies it

    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0) giveUp("no pipe");
    const auto parent = ::getpid();
    _process = ::fork();
    if (_process < 0) giveUp("no process");
    if (_process == 0) {  // until exec, only what is safe after a fork of a process with threads
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent || ::dup2(pipe[1], 3) < 0 || ::fcntl(3, F_SETFD, 0) < 0) ::_exit(127);
        ::dup2(::open(log.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDERR_FILENO);
        ::execlp("dbus-daemon", "dbus-daemon", configurationOption.c_str(), "--nofork", "--nopidfile",
                 "--print-address=3", nullptr);
        ::_exit(127);
    }
    ::close(pipe[1]);
    _address = readLine(pipe[0]);
    ::close(pipe[0]);
    if (_address.empty()) giveUp(("dbus-daemon does not start: " + readFile(log)).c_str());
}

PrivateBus::~PrivateBus() { stop(); }

void PrivateBus::stop() {
    if (_process < 0) return;
    ::kill(_process, SIGTERM);
    while (::waitpid(_process, nullptr, 0) < 0 && errno == EINTR) continue;
    _process = -1;
}

}  // namespace orvex::platform
