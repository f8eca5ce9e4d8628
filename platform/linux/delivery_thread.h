#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "platform/thread_annotations.h"

namespace orvex::platform {

/// A thread that runs blocks one at a time, in order: the delegate queue of an HTTP session. It starts with the first
/// block, and sleeps while there is none.
///
/// Threading: callable from any thread.
class DeliveryThread {
public:
    using Block = std::move_only_function<void()>;

    explicit DeliveryThread(std::string label);  ///< at most 15 bytes of it name the thread
    ~DeliveryThread();                           ///< closes
    DeliveryThread(const DeliveryThread&) = delete;
    DeliveryThread& operator=(const DeliveryThread&) = delete;

    /// False once closed: the block is destroyed unrun.
    bool post(Block block);

    /// Takes no more blocks and waits until those taken have run. Called by one of them it waits for nothing; the rest
    /// then runs after it.
    void close();

private:
    struct State {
        Mutex mutex;
        std::condition_variable changed;
        std::deque<Block> blocks ORX_GUARDED_BY(mutex);
        bool closed ORX_GUARDED_BY(mutex) = false;
    };
    static void _run(State& state);
    /// Waits for it; empty once there will be none.
    static Block _next(State& state) ORX_NO_THREAD_SAFETY_ANALYSIS;

    // Constant after construction.
    const std::string _label;
    const std::shared_ptr<State> _state = std::make_shared<State>();  ///< outlives this when a block closes it

    // Guarded by the state's mutex.
    std::thread _thread ORX_GUARDED_BY(_state->mutex);
};

}  // namespace orvex::platform
