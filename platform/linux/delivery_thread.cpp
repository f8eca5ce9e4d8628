#include "platform/linux/delivery_thread.h"

#include <pthread.h>

#include <mutex>

namespace orvex::platform {

DeliveryThread::DeliveryThread(std::string label) : _label(std::move(label)) {}

DeliveryThread::~DeliveryThread() { close(); }

bool DeliveryThread::post(Block block) {
    {
        const MutexLock lock(_state->mutex);
        if (_state->closed) return false;
        if (!_thread.joinable()) {
            _thread = std::thread([state = _state] { _run(*state); });
            pthread_setname_np(_thread.native_handle(), _label.substr(0, 15).c_str());
        }
        _state->blocks.push_back(std::move(block));
    }
    _state->changed.notify_one();
    return true;
}

void DeliveryThread::close() {
    std::thread thread;
    {
        const MutexLock lock(_state->mutex);
        _state->closed = true;
        thread = std::move(_thread);
    }
    _state->changed.notify_one();
    if (!thread.joinable()) return;
    if (thread.get_id() == std::this_thread::get_id())
        thread.detach();
    else
        thread.join();
}

void DeliveryThread::_run(State& state) {
    while (Block block = _next(state)) block();
}

DeliveryThread::Block DeliveryThread::_next(State& state) {
    std::unique_lock lock(state.mutex.native());
    while (state.blocks.empty() && !state.closed) state.changed.wait(lock);
    if (state.blocks.empty()) return nullptr;
    Block block = std::move(state.blocks.front());
    state.blocks.pop_front();
    return block;
}

}  // namespace orvex::platform
