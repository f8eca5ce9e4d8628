#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bus.h"
#include "platform/dispatch.h"
#include "platform/result.h"
#include "platform/thread_annotations.h"
#include "tools/search_provider/daemon_link.h"
#include "tools/search_provider/records.h"
#include "tools/search_provider/results.h"

namespace orvex::search_provider {

inline constexpr std::string_view busName = "com.kelvar.orvexd.SearchProvider";
inline constexpr std::string_view objectPath = "/com/kelvar/orvexd/SearchProvider";

/// The desktop shell's search provider: `org.gnome.Shell.SearchProvider2` over orvexd.
///
///     serving ──nothing asked for `idleTime`──▶ leaving: the name is given back
///     leaving ──all calls have come that were sent to the name──▶ drained: they are still answered
///     drained ──nothing under way any more──▶ left: `onLeave` is called
///
/// A search is answered when the daemon has answered, or with nothing when `deadline` is over: whoever types goes on
/// then. Nothing is cancelled; what a later answer says is told to feedback as late. Results are not remembered: their
/// identifiers hold them.
/// Threading: everything happens on the provider's queue, which never waits; calls come to it from the bus thread.
class SearchProvider {
public:
    struct Options {
        std::chrono::nanoseconds deadline;
        std::chrono::nanoseconds idleTime;  ///< 0: stays
    };

    /// The three outlive the provider. `onLeave` comes on the queue.
    SearchProvider(platform::Dispatcher& dispatcher, platform::Bus& bus, DaemonLink& daemon, Options options,
                   std::function<void()> onLeave);
    SearchProvider(const SearchProvider&) = delete;
    SearchProvider& operator=(const SearchProvider&) = delete;

    /// Exports the object, then takes the name. Code EEXIST: another provider has it.
    [[nodiscard]] platform::Result<void> serve();

private:
    using Found = std::move_only_function<void(std::vector<Result>)>;
    enum class State : std::uint8_t { serving, leaving, drained, left };

    void _receive(platform::BusCall& call) ORX_REQUIRES(_queue);
    void _findFor(const platform::BusValue& terms, platform::BusReply reply) ORX_REQUIRES(_queue);
    void _describe(const platform::BusValue& identifiers, platform::BusReply reply) ORX_REQUIRES(_queue);
    void _activate(const platform::BusArguments& arguments, platform::BusReply reply) ORX_REQUIRES(_queue);
    void _launch(const platform::BusValue& terms, platform::BusReply reply) ORX_REQUIRES(_queue);

    void _search(const std::vector<std::string>& terms, Found found) ORX_REQUIRES(_queue);
    void _answered(std::uint64_t queryId, const std::string& query, const DaemonLink::Reply& reply)
        ORX_REQUIRES(_queue);
    void _giveUp(std::uint64_t queryId) ORX_REQUIRES(_queue);
    void _open(const std::string& url) ORX_REQUIRES(_queue);
    void _report(std::vector<Report> reports) ORX_REQUIRES(_queue);

    void _ended() ORX_REQUIRES(_queue);
    void _restartIdleTime() ORX_REQUIRES(_queue);
    void _idle() ORX_REQUIRES(_queue);
    void _leaveWhenDone() ORX_REQUIRES(_queue);
    void _become(State state) ORX_REQUIRES(_queue);

    // Constant after construction.
    platform::Dispatcher& _dispatcher;
    platform::Bus& _bus;
    DaemonLink& _daemon;
    const Options _options;
    const std::function<void()> _onLeave;

    // Synchronised by itself.
    platform::SerialQueue _queue;

    // On the queue.
    std::uint64_t _lastQuery ORX_GUARDED_BY(_queue);  ///< begins with the time, so none of an earlier run comes again
    std::map<std::uint64_t, Found> _waiting ORX_GUARDED_BY(_queue);  ///< searches within their deadline
    std::size_t _underWay ORX_GUARDED_BY(_queue) = 0;                ///< calls of ours without an answer yet
    platform::Timer _idleTimer ORX_GUARDED_BY(_queue);
    State _state ORX_GUARDED_BY(_queue) = State::serving;
};

}  // namespace orvex::search_provider
