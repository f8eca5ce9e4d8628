#pragma once

#include <map>

#include "platform/memory_pressure.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

/// Memory that is scarce when the test says so. Outlives whoever listens. Threading: callable from any thread.
class FakeMemoryPressure final : public MemoryPressure {
public:
    std::unique_ptr<Listening> listen(Handler onCritical) override {
        const MutexLock lock(_mutex);
        _handlers.emplace(++_lastId, std::move(onCritical));
        return std::make_unique<FakeListening>(*this, _lastId);
    }

    [[nodiscard]] std::size_t listeners() const {
        const MutexLock lock(_mutex);
        return _handlers.size();
    }

    /// Calls every handler on this thread.
    void becomeCritical() {
        std::map<int, Handler> handlers;
        {
            const MutexLock lock(_mutex);
            handlers = _handlers;
        }
        for (const auto& [id, handler] : handlers) handler();
    }

private:
    struct FakeListening final : Listening {
        FakeListening(FakeMemoryPressure& owner, int listener) : memory(owner), id(listener) {}
        ~FakeListening() override {
            const MutexLock lock(memory._mutex);
            memory._handlers.erase(id);
        }
        FakeMemoryPressure& memory;
        const int id;
    };

    mutable Mutex _mutex;
    std::map<int, Handler> _handlers ORX_GUARDED_BY(_mutex);
    int _lastId ORX_GUARDED_BY(_mutex) = 0;
};

}  // namespace orvex::platform
