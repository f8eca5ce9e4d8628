#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/http_session.h"

namespace google::protobuf {
class Message;
}

namespace orvex {

class Assembly;
class CXOrvexFeedback;
class ClientSession;
struct ORXError;

/// The feedback session of one bag fetch: its start, its end and, of one that failed, the error. It is a session of its
/// own, since the session manager asks for the bag for every record.
///
///     made: the start is recorded ──ended──▶ ──failed, at most once──▶ ──complete──▶ waits for upload
///
/// Beyond 20 sessions in an hour, and while feedback is switched off, it records nothing.
/// Threading: one thread at a time.
class BagFetchSession {
public:
    BagFetchSession(Assembly& assembly, const platform::URLRequest& request, std::string userAgent);
    BagFetchSession(const BagFetchSession&) = delete;
    BagFetchSession& operator=(const BagFetchSession&) = delete;

    /// The task whose times count. Its completion holds this object, which therefore does not hold the task.
    void setTask(const std::shared_ptr<platform::URLSessionTask>& task) { _task = task; }

    void ended(const platform::Body& data, const std::optional<platform::URLResponse>& response);
    void failed(const ORXError& error);
    void complete();

private:
    [[nodiscard]] std::shared_ptr<ClientSession> _open(const google::protobuf::Message& start) const;
    void _add(const google::protobuf::Message& codable);
    [[nodiscard]] std::unique_ptr<CXOrvexFeedback> _wrapped(const google::protobuf::Message& codable) const;

    // Constant after construction.
    Assembly& _assembly;
    const std::string _userAgent;
    const std::string _userGuid;  ///< of the start, and so of all its records
    const std::string _uuid;
    const std::shared_ptr<ClientSession> _session;  ///< null: records nothing

    std::weak_ptr<platform::URLSessionTask> _task;
};

}  // namespace orvex
