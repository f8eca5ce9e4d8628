#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "platform/thread_annotations.h"

namespace orvex::platform {

/// Named 64-bit counters: what happened, how often, since the state directory was made. Every drop of anything counts
/// here under its reason. Kept across restarts by `CounterFile`.
///
/// Threading: callable from any thread; a leaf lock.
/// Limits: `maxNames` names; values of further names are added up under "other". Sums saturate. An empty name,
/// one with a control character, one that is not UTF-8, or one longer than `maxNameBytes` counts under "other" too.
class Counters {
public:
    static constexpr std::size_t maxNames = 4096;
    static constexpr std::size_t maxNameBytes = 256;
    static constexpr std::string_view otherName = "other";

    [[nodiscard]] static bool isAcceptableName(std::string_view name);

    void add(std::string_view name, std::int64_t value = 1);
    void set(std::string_view name, std::int64_t value);
    void clear(std::string_view name);
    [[nodiscard]] std::int64_t value(std::string_view name) const;  ///< 0 for a name never counted
    [[nodiscard]] std::map<std::string, std::int64_t> snapshot() const;

    /// Called after a change, on the thread that made it, when none has been reported since `snapshot`. For the one
    /// that keeps them. No lock is held; a call that began before the handler was replaced may still be under way.
    void setChangeHandler(std::function<void()> handler);

private:
    std::int64_t& _slot(std::string_view name) ORX_REQUIRES(_mutex);

    /// Makes the change under the lock and reports it after.
    template <class Change>
    void _change(Change change) {
        std::function<void()> report;
        {
            const MutexLock lock(_mutex);
            change();
            if (!_reported && _onChange) report = _onChange;
            _reported = true;
        }
        if (report) report();
    }

    mutable Mutex _mutex;
    std::map<std::string, std::int64_t, std::less<>> _values ORX_GUARDED_BY(_mutex);
    std::function<void()> _onChange ORX_GUARDED_BY(_mutex);
    mutable bool _reported ORX_GUARDED_BY(_mutex) = false;
};

}  // namespace orvex::platform
