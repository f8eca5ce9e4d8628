#pragma once

#include <boost/json/fwd.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/feedback_vocabulary.h"
#include "core/network_search_record.h"
#include "core/orx_error.h"
#include "platform/http_session.h"

namespace google::protobuf {
class Message;
}

namespace orvex {

class Assembly;
class ClientSessionManagerProtocol;
struct CachedResultSet;
struct ORXSearchRequest;

/// Who asked, as a record of a query tells it.
struct RecordedQuery {
    std::uint64_t queryId = 0;
    std::optional<std::string> userAgent;
    std::string userGuid = {};  ///< empty: left to the session manager
};

/// What the queries of one client leave in its feedback session. Without a session manager nothing.
/// Threading: callable from any thread; nothing waits.
class QueryFeedback {
public:
    /// `sessionManager` is the client's own; null: the assembly's. The assembly outlives this.
    QueryFeedback(Assembly& assembly, std::shared_ptr<ClientSessionManagerProtocol> sessionManager);

    [[nodiscard]] const std::shared_ptr<ClientSessionManagerProtocol>& sessionManager() const;

    void skipped(const RecordedQuery& query, SkipReason why, std::string_view input) const;
    void answeredFromCache(const RecordedQuery& query, const ORXSearchRequest& request,
                           const CachedResultSet& entry) const;
    void didGoToSearch(const RecordedQuery& query, const ORXSearchRequest& request) const;

    /// The engaged completions are asked; returns the identifier that the end refers to.
    [[nodiscard]] std::string localSearchBegan(const RecordedQuery& query, const ORXSearchRequest& request) const;
    void localSearchEnded(const RecordedQuery& query, const std::string& identifier) const;

private:
    friend class NetworkSearch;
    void _add(const google::protobuf::Message& codable, const RecordedQuery& query) const;

    Assembly& _assembly;
    const std::shared_ptr<ClientSessionManagerProtocol> _ownSessionManager;
};

/// One request to the server as records tell of it. Its start is recorded when this is made, its end by
/// `endNetworkFeedback` or `failSearchFeedback`, once.
///
/// Threading: `setTask` before the task is resumed, the end on the session's delivery thread. The task's completion
/// holds it, so it holds the task weakly; the session keeps the task until its completion has returned.
class NetworkSearch {
public:
    /// The state whose feedback this is outlives it.
    NetworkSearch(const QueryFeedback& feedback, const platform::URLRequest& request,
                  const NetworkSearchOccasion& occasion, const RecordedQuery& query);
    NetworkSearch(const NetworkSearch&) = delete;
    NetworkSearch& operator=(const NetworkSearch&) = delete;

    [[nodiscard]] const std::string& uuid() const { return _uuid; }

    /// The task whose times count, and the proxy through which it goes; of a request that is sent again its first.
    void setTask(const std::shared_ptr<platform::URLSessionTask>& task, std::optional<std::string> proxyURL);

    struct Answer {
        std::size_t size = 0;         ///< bytes of the body
        std::int64_t statusCode = 0;  ///< 0: there was none
    };
    /// `rawResponse` is the decoded body; null: it is none of JSON.
    void endNetworkFeedback(const RecordedQuery& query, Answer answer, const boost::json::value* rawResponse);
    /// The end, which then tells nothing of the server, and the error.
    void failSearchFeedback(const RecordedQuery& query, Answer answer, const std::optional<ORXError>& error);

private:
    [[nodiscard]] NetworkSearchOutcome _outcome(Answer answer);

    const QueryFeedback& _feedback;
    const std::string _uuid;
    std::weak_ptr<platform::URLSessionTask> _task;
    std::optional<std::string> _proxyURL;
};

}  // namespace orvex
