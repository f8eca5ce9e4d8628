#pragma once

#include <memory>
#include <string>

namespace google::protobuf {
class Message;
}

namespace orvex {

class Assembly;
class CXErrorFeedback;
class CXOrvexFeedback;

/// Records that the daemon makes itself.
struct DaemonRecordOrigin {
    std::string userGuid = {};  ///< empty: none
    std::string userAgent = {};
};

/// `codable` of no query, of this moment, with the developer's identifier where there is one.
[[nodiscard]] std::unique_ptr<CXOrvexFeedback> daemonRecord(const Assembly& assembly,
                                                            const google::protobuf::Message& codable,
                                                            DaemonRecordOrigin origin);

/// `error` as the daemon itself reports it: under its own agent and the assembly's user GUID.
[[nodiscard]] std::unique_ptr<CXOrvexFeedback> daemonErrorRecord(const Assembly& assembly,
                                                                 const CXErrorFeedback& error);

}  // namespace orvex
