#include "platform/linux/memory_pressure.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/linux/system_failure.h"
#include "platform/log.h"

// A trigger is a pressure file, opened, and held open after a line was written to it that says how much stalling within
// which window counts. The kernel then reports it as urgent data, at most once a window. An ordinary user is given a
// window in multiples of two seconds only, and by older kernels none.
//
// Who listens is in a table under a lock. Arming and disarming is the thread's: each change of the table leaves it the
// work to look whether anyone is in it, so changes that overtake each other end in what holds last.

namespace orvex::platform {
namespace {

constexpr std::string_view trigger = "some 200000 2000000";  // microseconds of stalling, and of the window
constexpr std::uint64_t scarceShare = 16;

std::optional<std::uint64_t> amountOf(std::string_view name, std::string_view information) {
    auto at = information.find(name);
    if (at == std::string_view::npos) return std::nullopt;
    at = information.find_first_not_of(' ', at + name.size());
    std::uint64_t kibibytes = 0;
    if (at == std::string_view::npos) return std::nullopt;
    const auto read = std::from_chars(information.data() + at, information.data() + information.size(), kibibytes);
    return read.ec == std::errc() ? std::optional(kibibytes) : std::nullopt;
}

std::string readInformation(const std::string& file) {
    std::array<char, 4096> text;
    const FileDescriptor fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    const auto size = fd.valid() ? ::read(fd.get(), text.data(), text.size()) : -1;
    return size > 0 ? std::string(text.data(), static_cast<std::size_t>(size)) : std::string();
}

Result<FileDescriptor> openTrigger(const std::string& file) {
    FileDescriptor fd(::open(file.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!fd.valid()) return systemFailure(errno, "open " + file);
    if (::write(fd.get(), trigger.data(), trigger.size()) < 0) return systemFailure(errno, "set a trigger on " + file);
    return fd;
}

}  // namespace

bool isMemoryScarce(std::string_view information) {
    const auto total = amountOf("MemTotal:", information);
    const auto available = amountOf("MemAvailable:", information);
    return total && available && *available < *total / scarceShare;
}

struct LinuxMemoryPressure::State : std::enable_shared_from_this<State> {
    explicit State(Options given) : options(std::move(given)) {}

    void reconsider() ORX_REQUIRES(thread) {
        const bool wanted = !handlersNow().empty();
        if (wanted == (source != nullptr)) return;
        source.reset();
        triggerFile.reset();
        if (wanted) arm();
    }

    void arm() ORX_REQUIRES(thread) {
        sd_event_source* added = nullptr;
        auto opened = openTrigger(options.pressureFile);
        const std::string why = opened ? "no event source for the trigger" : opened.error().text;
        if (opened) {
            triggerFile = *std::move(opened);
            const int r = sd_event_add_io(thread->event(), &added, triggerFile.get(), EPOLLPRI, triggered, this);
            source.reset(r < 0 ? nullptr : added);
        }
        if (source) return;
        defaultLogger().debug("memory is watched by a timer: {}", why);
        const int r = sd_event_add_time_relative(thread->event(), &added, CLOCK_MONOTONIC, interval(), interval() / 10,
                                                 timePassed, this);
        source.reset(r < 0 ? nullptr : added);
        if (!source) defaultLogger().error("memory pressure will not be noticed: {}", strerrordesc_np(-r));
    }

    static int triggered(sd_event_source* source, int, std::uint32_t events, void* context) {
        if ((events & EPOLLPRI) != 0) static_cast<State*>(context)->tell();
        // An error lasts and would be reported without end: the trigger is dead.
        if ((events & EPOLLERR) != 0) sd_event_source_set_enabled(source, SD_EVENT_OFF);
        return 0;
    }

    static int timePassed(sd_event_source* source, std::uint64_t, void* context) {
        auto& state = *static_cast<State*>(context);
        if (isMemoryScarce(readInformation(state.options.informationFile))) state.tell();
        sd_event_source_set_time_relative(source, state.interval());
        sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
        return 0;
    }

    void tell() {
        for (const auto& handler : handlersNow()) handler();
    }

    [[nodiscard]] std::vector<Handler> handlersNow() {
        const MutexLock lock(mutex);
        std::vector<Handler> all;
        for (const auto& [id, handler] : handlers) all.push_back(handler);
        return all;
    }

    [[nodiscard]] std::uint64_t interval() const { return static_cast<std::uint64_t>(options.checkInterval.count()); }

    void startThread() {
        auto made = EventThread::create("memory");
        if (!made) {
            defaultLogger().error("memory pressure will not be noticed: {}", made.error().text);
            return;
        }
        thread = *std::move(made);
        thread->start();
    }

    void reconsiderSoon() {
        if (!thread) return;
        thread->run([this] {
            thread->assertCurrent();
            reconsider();
        });
    }

    const Options options;
    std::once_flag once;
    std::unique_ptr<EventThread> thread;

    // On the thread.
    FileDescriptor triggerFile;
    SdHandle<sd_event_source> source;  ///< null: not armed

    Mutex mutex;
    std::map<std::uint64_t, Handler> handlers ORX_GUARDED_BY(mutex);
    std::uint64_t lastId ORX_GUARDED_BY(mutex) = 0;
};

struct LinuxMemoryPressure::LinuxListening final : Listening {
    LinuxListening(std::shared_ptr<State> owner, std::uint64_t listener) : state(std::move(owner)), id(listener) {}
    ~LinuxListening() override {
        {
            const MutexLock lock(state->mutex);
            state->handlers.erase(id);
        }
        state->reconsiderSoon();
    }
    const std::shared_ptr<State> state;
    const std::uint64_t id;
};

LinuxMemoryPressure::LinuxMemoryPressure(Options options) : _state(std::make_shared<State>(std::move(options))) {}

LinuxMemoryPressure::~LinuxMemoryPressure() {
    if (!_state->thread) return;
    _state->thread->stop();
    _state->source.reset();
}

std::unique_ptr<MemoryPressure::Listening> LinuxMemoryPressure::listen(Handler onCritical) {
    std::call_once(_state->once, [this] { _state->startThread(); });
    std::uint64_t id = 0;
    {
        const MutexLock lock(_state->mutex);
        id = ++_state->lastId;
        _state->handlers.emplace(id, std::move(onCritical));
    }
    auto listening = std::make_unique<LinuxListening>(_state, id);
    _state->reconsiderSoon();
    return listening;
}

}  // namespace orvex::platform
