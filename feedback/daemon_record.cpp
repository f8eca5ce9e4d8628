#include "feedback/daemon_record.h"

#include "core/feedback_record.h"
#include "core/feedback_records.pb.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "feedback/guid_controller.h"
#include "feedback/orvexd_user_agent.h"
#include "platform/dispatch.h"
#include "platform/user_defaults.h"

namespace orvex {

std::unique_ptr<CXOrvexFeedback> daemonRecord(const Assembly& assembly, const google::protobuf::Message& codable,
                                              DaemonRecordOrigin origin) {
    return orvexFeedbackWithCodable(codable,
                                    {.queryId = 0,
                                     .userGuid = std::move(origin.userGuid),
                                     .userAgent = std::move(origin.userAgent),
                                     .developerID = assembly.userDefaults().string(setting::developerID).value_or(""),
                                     .now = assembly.dispatcher().now()});
}

std::unique_ptr<CXOrvexFeedback> daemonErrorRecord(const Assembly& assembly, const CXErrorFeedback& error) {
    const auto& controller = assembly.guidController();
    return daemonRecord(assembly, error,
                        {.userGuid = controller ? controller->currentUserGUID() : std::string(),
                         .userAgent = orvexdUserAgent(assembly.device())});
}

}  // namespace orvex
