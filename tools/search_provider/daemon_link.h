#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client/orvex/client.h"
#include "platform/dispatch.h"
#include "platform/file_manager.h"
#include "platform/result.h"
#include "platform/thread_annotations.h"
#include "tools/search_provider/records.h"

namespace orvex::search_provider {

/// The provider as a client of orvexd. What is asked of it is left for the thread that is in `run`, the only one that
/// touches the client: `search`, `report` and `stop` are called from any thread and never wait. Completions come once,
/// on that thread, and not after `run` has returned.
class DaemonLink {
public:
    struct Reply {
        std::string body;         ///< empty: no answer, or an error, which is logged
        bool fromMemory = false;  ///< the daemon's, not the server's word
    };

    /// Of the bus at `busAddress`; empty: the user's session bus. Whether there is a daemon shows with the first call.
    static platform::Result<std::unique_ptr<DaemonLink>> connect(const std::string& busAddress);
    DaemonLink(const DaemonLink&) = delete;
    DaemonLink& operator=(const DaemonLink&) = delete;

    [[nodiscard]] static std::string userAgent();

    void search(std::uint64_t queryId, std::string query, std::move_only_function<void(Reply)> completion);
    void report(Report report, std::move_only_function<void()> completion);

    /// Serves until `stop` was called, or the bus has gone.
    void run();
    void stop();

private:
    using Work = platform::Work;

    DaemonLink(client::Client client, platform::FileDescriptor wakeUp)
        : _wakeUp(std::move(wakeUp)),
          _client(std::move(client)) {}
    void _post(Work work);
    [[nodiscard]] std::vector<Work> _take();

    // Constant after construction.
    const platform::FileDescriptor _wakeUp;  ///< an eventfd, readable when something was posted

    platform::Mutex _mutex;
    std::vector<Work> _posted ORX_GUARDED_BY(_mutex);

    // On the thread that runs.
    client::Client _client;
    bool _stopped = false;
};

}  // namespace orvex::search_provider
