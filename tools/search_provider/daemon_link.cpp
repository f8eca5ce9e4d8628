#include "tools/search_provider/daemon_link.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "core/constants.h"
#include "platform/log.h"

namespace orvex::search_provider {
namespace {

constexpr std::uint32_t typedWithResults = 24;  // the trigger event that asks for suggestions and results
constexpr std::chrono::seconds patience{30};    // longer than the daemon gives a server

client::Request requestFor(std::uint64_t queryId, std::string query) {
    client::Request request;
    request.queryId = queryId;
    request.queryString = std::move(query);
    request.triggerEvent = typedWithResults;
    request.verboseReply = true;  // which tells the server's answers from the memory's
    return request;
}

void tell(const client::Error& error) {
    platform::defaultLogger().info("no answer from orvexd: {} {}", error.domain, error.reason);
}

/// What poll(2) takes; a wait is never shorter than the client may wait.
int milliseconds(std::optional<std::chrono::milliseconds> timeout) {
    constexpr std::chrono::milliseconds longest = std::chrono::hours(1);
    return timeout ? static_cast<int>(std::min(*timeout, longest).count()) : -1;
}

}  // namespace

std::string DaemonLink::userAgent() {
    const std::string& daemon = kORXOrvexdNameVersion();
    return "orvex_search_provider" + daemon.substr(daemon.find('/'));
}

platform::Result<std::unique_ptr<DaemonLink>> DaemonLink::connect(const std::string& busAddress) {
    platform::FileDescriptor wakeUp(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (wakeUp.get() < 0) return platform::failure(errno, "no descriptor to wake up by");
    auto client = client::Client::connect(
        {.identifier = "orvex_search_provider", .userAgent = userAgent(), .address = busAddress, .patience = patience});
    if (!client) return platform::failure(0, client.error().reason);
    return std::unique_ptr<DaemonLink>(new DaemonLink(*std::move(client), std::move(wakeUp)));
}

void DaemonLink::search(std::uint64_t queryId, std::string query, std::move_only_function<void(Reply)> completion) {
    _post([this, queryId, query = std::move(query), completion = std::move(completion)]() mutable {
        _client.request(
            requestFor(queryId, std::move(query)),
            [completion = std::move(completion)](std::expected<client::Reply, client::Error> answer) mutable {
                if (!answer) tell(answer.error());
                completion(answer
                               ? Reply{.body = std::move(answer->data), .fromMemory = !answer->httpResponse.has_value()}
                               : Reply{});
            });
    });
}

void DaemonLink::report(Report report, std::move_only_function<void()> completion) {
    _post([this, report = std::move(report), completion = std::move(completion)]() mutable {
        _client.reportFeedback(report.payload, report.queryId,
                               [completion = std::move(completion)](std::expected<void, client::Error> answer) mutable {
                                   if (!answer) tell(answer.error());
                                   completion();
                               });
    });
}

void DaemonLink::run() {
    while (true) {
        for (auto& work : _take()) work();
        if (_stopped || !_client.process()) return;
        pollfd sources[] = {{_client.descriptor(), _client.events(), 0}, {_wakeUp.get(), POLLIN, 0}};
        if (::poll(sources, std::size(sources), milliseconds(_client.timeout())) < 0 && errno != EINTR) return;
    }
}

void DaemonLink::stop() {
    _post([this] { _stopped = true; });
}

void DaemonLink::_post(Work work) {
    {
        const platform::MutexLock lock(_mutex);
        _posted.push_back(std::move(work));
    }
    ::eventfd_write(_wakeUp.get(), 1);
}

std::vector<DaemonLink::Work> DaemonLink::_take() {
    eventfd_t count = 0;
    ::eventfd_read(_wakeUp.get(), &count);  // first, so that what is posted from here on wakes us up again
    const platform::MutexLock lock(_mutex);
    return std::exchange(_posted, {});
}

}  // namespace orvex::search_provider
