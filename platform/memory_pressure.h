#pragma once

#include <functional>
#include <memory>

namespace orvex::platform {

/// Tells when memory is so scarce that what can be made again should be given up.
///
/// Listening costs something (a wake-up now and then, where the system cannot tell by itself), so one listens only
/// while there is something to give up. Threading: callable from any thread.
class MemoryPressure {
public:
    /// Ends with its destructor; a call of the handler that has begun by then is not waited for.
    class Listening {
    public:
        virtual ~Listening() = default;
    };
    using Handler = std::function<void()>;

    virtual ~MemoryPressure() = default;

    /// `onCritical` is called, as often as it is noticed, on a thread of the service's own: it may only post.
    [[nodiscard]] virtual std::unique_ptr<Listening> listen(Handler onCritical) = 0;
};

}  // namespace orvex::platform
