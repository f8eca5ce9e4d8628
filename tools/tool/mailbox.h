#pragma once

#include <sys/eventfd.h>

#include <functional>
#include <utility>
#include <vector>

#include "platform/file_manager.h"
#include "platform/thread_annotations.h"

namespace orvex::tool {

/// Work that other threads leave for the one that owns the model.
template <class Model>
class Mailbox {
public:
    using Work = std::move_only_function<void(Model&)>;

    void post(Work work) {
        {
            const platform::MutexLock lock(_mutex);
            _work.push_back(std::move(work));
        }
        ::eventfd_write(_filled.get(), 1);
    }

    std::vector<Work> take() {
        eventfd_t count = 0;
        ::eventfd_read(_filled.get(), &count);
        const platform::MutexLock lock(_mutex);
        return std::exchange(_work, {});
    }

    [[nodiscard]] int descriptor() const { return _filled.get(); }  ///< readable when there is some

private:
    const platform::FileDescriptor _filled{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    platform::Mutex _mutex;
    std::vector<Work> _work ORX_GUARDED_BY(_mutex);
};

}  // namespace orvex::tool
