#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "platform/file_manager.h"
#include "platform/linux/event_thread.h"
#include "platform/linux/sd_bus_handles.h"
#include "platform/memory_pressure.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

/// Memory pressure as the kernel's pressure stall information tells it: critical is when tasks were stalled for memory
/// for 200 ms within 2 s. A kernel that lets an ordinary user set no such trigger is asked every ten seconds instead
/// how much memory is available: critical is below a sixteenth of all.
///
///     resting ──the first listens──▶ armed: trigger, else timer ──the last stops──▶ resting
///
/// Threading: as the interface says; handlers are called on the service's one thread, which the first `listen` starts.
class LinuxMemoryPressure final : public MemoryPressure {
public:
    struct Options {
        std::string pressureFile = "/proc/pressure/memory";
        std::string informationFile = "/proc/meminfo";
        std::chrono::microseconds checkInterval = std::chrono::seconds(10);  ///< of the available memory
    };

    LinuxMemoryPressure() : LinuxMemoryPressure(Options{}) {}
    explicit LinuxMemoryPressure(Options options);
    ~LinuxMemoryPressure() override;

    [[nodiscard]] std::unique_ptr<Listening> listen(Handler onCritical) override;

private:
    struct LinuxListening;
    struct State;

    const std::shared_ptr<State> _state;
};

/// Whether less than a sixteenth of the memory is available, by a text in the form of proc_meminfo(5). False for one
/// that does not say.
[[nodiscard]] bool isMemoryScarce(std::string_view information);

}  // namespace orvex::platform
