#include "network/bag_fetch_session.h"

#include <utility>

#include "core/feedback_records.pb.h"
#include "core/network_search_record.h"
#include "core/orx_error.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "feedback/client_session.h"
#include "feedback/daemon_record.h"
#include "feedback/guid_controller.h"
#include "feedback/own_session_limit.h"
#include "platform/user_defaults.h"
#include "platform/uuid.h"

namespace orvex {
namespace {

constexpr std::uint32_t bagFetchEvent = 16;

std::string currentUserGUID(const Assembly& assembly) {
    const auto& controller = assembly.guidController();
    return controller ? controller->currentUserGUID() : std::string();
}

}  // namespace

BagFetchSession::BagFetchSession(Assembly& assembly, const platform::URLRequest& request, std::string userAgent)
    : _assembly(assembly),
      _userAgent(std::move(userAgent)),
      _userGuid(currentUserGUID(assembly)),
      _uuid(platform::newUUIDString()),
      _session(_open(startNetworkSearchFeedback(_uuid, request,
                                                {.triggerEvent = bagFetchEvent, .endpoint = SearchEndpoint::bag}))) {}

std::shared_ptr<ClientSession> BagFetchSession::_open(const google::protobuf::Message& start) const {
    if (_assembly.userDefaults().boolean(setting::feedbackDisabled)) return nullptr;
    const auto& limit = _assembly.ownSessionLimit();
    if (!limit || !limit->admit(OwnSessionLimit::Kind::bagFetch)) return nullptr;
    return std::make_shared<ClientSession>(_assembly, _wrapped(start), RecordReceipt());
}

void BagFetchSession::ended(const platform::Body& data, const std::optional<platform::URLResponse>& response) {
    const auto task = _task.lock();
    if (!_session) return;
    _add(endNetworkSearchFeedback(_uuid, {.responseSize = data ? data->size() : 0,
                                          .statusCode = response ? response->statusCode : 0,
                                          .timing = task ? task->timingData() : std::map<std::string, double>()}));
}

void BagFetchSession::failed(const ORXError& error) {
    if (_session) _add(errorFeedback(error));
}

void BagFetchSession::complete() {
    if (_session) _session->sessionComplete();
}

void BagFetchSession::_add(const google::protobuf::Message& codable) {
    _session->addFeedback(_wrapped(codable), RecordReceipt());
}

std::unique_ptr<CXOrvexFeedback> BagFetchSession::_wrapped(const google::protobuf::Message& codable) const {
    return daemonRecord(_assembly, codable, {.userGuid = _userGuid, .userAgent = _userAgent});
}

}  // namespace orvex
