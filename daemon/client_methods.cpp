#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <cmath>
#include <map>

#include "core/constants.h"
#include "core/feedback_records.pb.h"
#include "core/notifications.h"
#include "core/orx_bag.h"
#include "daemon/assembly.h"
#include "daemon/bus_dictionaries.h"
#include "daemon/call_limit.h"
#include "daemon/client_connection.h"
#include "daemon/client_state_manager.h"
#include "daemon/feedback_payload.h"
#include "daemon/orvex_logging.h"
#include "daemon/request_defaults.h"
#include "feedback/client_session_manager_protocol.h"
#include "network/orx_tracing.h"
#include "platform/notification_center.h"
#include "platform/text.h"
#include "query/client_state.h"
#include "query/engaged_completion_cache.h"
#include "resources/download_manager.h"

// The methods of com.kelvar.orvexd.Daemon, each on the connection's queue. A method that returns without answering lets
// its reply go, and a reply that goes unanswered tells the caller that none will come.

namespace orvex {
namespace {

constexpr std::string_view invalidConfiguration = "com.kelvar.orvexd.Error.InvalidConfiguration";
constexpr std::string_view notFoundError = "com.kelvar.orvexd.Error.NotFound";

const platform::Logger& sessionLog() { return OrvexLogForCategory(OrvexLoggingCategory::session); }
const platform::Logger& bagLog() { return OrvexLogForCategory(OrvexLoggingCategory::bag); }

/// Refuses a call with an infinite or undefined number; true when it has.
bool refusedNumber(const platform::BusArguments& arguments, const std::vector<std::string>& names,
                   platform::BusReply& reply) {
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (std::isfinite(*arguments[i].as<double>())) continue;
        reply.fail(platform::bus_error::invalidArgs, names[i] + ": not a finite number");
        return true;
    }
    return false;
}

}  // namespace

ClientConnection::Method ClientConnection::_methodNamed(const std::string& member) {
    static const std::map<std::string, Method> methods = {
        {"Configure", &ClientConnection::_configure},
        {"Bag", &ClientConnection::_bag},
        {"Request", &ClientConnection::_request},
        {"ReportFeedbackPayloadData", &ClientConnection::_reportFeedbackPayloadData},
        {"Feedback", &ClientConnection::_feedback},
        {"ListenToFlusher", &ClientConnection::_listenToFlusher},
        {"ListSessions", &ClientConnection::_listSessions},
        {"FileHandleAndAttributesForResource", &ClientConnection::_fileHandleAndAttributesForResource},
        {"ClearEngagedCompletions", &ClientConnection::_clearEngagedCompletions},
        {"AddCompletion", &ClientConnection::_addCompletion},
        {"UpdateParameters", &ClientConnection::_updateParameters},
        {"GetImageMap", &ClientConnection::_getImageMap},
    };
    const auto found = methods.find(member);
    return found == methods.end() ? nullptr : found->second;
}

void ClientConnection::_configure(Call& call) {
    auto configuration = configurationFromBus(*call.arguments[0].as<platform::BusDictionary>());
    if (!configuration) {
        call.reply.fail(platform::bus_error::invalidArgs, configuration.error().message);
        return;
    }
    sessionLog().log("client configuration {} {}", platform::escaped(configuration->identifier, maxIdentifierBytes),
                     platform::escaped(configuration->userAgent, maxUserAgentBytes));
    if (!_isAcceptable(*configuration)) {
        _refuseConfiguration(call.reply, Binding::unbound);
        return;
    }
    _configuration = *std::move(configuration);
    if (const auto binding = _ensureState(); binding != Binding::bound) {
        _refuseConfiguration(call.reply, binding);
        return;
    }
    call.reply.answer({});
    _sendFirstBag(call.arrival);
}

bool ClientConnection::_isAcceptable(const ORXSessionConfiguration& configuration) const {
    const auto& [identifier, agent] = configuration;
    if (identifier.empty()) {
        sessionLog().fault("configuration requires identifier");
    } else if (agent.empty()) {
        sessionLog().fault("configuration requires userAgent");
    } else if (identifier.size() > maxIdentifierBytes || agent.size() > maxUserAgentBytes ||
               platform::hasControlCharacter(identifier) || platform::hasControlCharacter(agent)) {
        sessionLog().fault("configuration has an entry that is too long or holds a control character");
    } else {
        return true;
    }
    return false;
}

// The connection is forgotten before its client is told, so that what the client calls next makes a new one.
void ClientConnection::_refuseConfiguration(platform::BusReply& reply, Binding binding) {
    if (!state()) {
        reportErrorAsOrvexdFeedback(ORXError(ORXErrorCode::internal, "invalid configuration"), _assembly);
        sessionLog().fault("invalid configuration, closing connection");
        _refused();
    }
    if (binding == Binding::tooManyStates) {
        reply.fail(platform::bus_error::limitsExceeded, "too many client identifiers");
    } else {
        reply.fail(invalidConfiguration, "invalid configuration");
    }
}

void ClientConnection::_sendFirstBag(platform::MonotonicTime arrival) {
    state()->bag(_userAgent, arrival, [this](std::shared_ptr<const ORXBag> bag, std::optional<ORXError> error) {
        _queue.assertCurrent();
        if (error) bagLog().error("error fetching bag: {}", error->description());
        if (bag && !bag->feedbackEnabled()) {
            OrvexLogForCategory(OrvexLoggingCategory::feedback)
                .debug("feedback collection disabled in bag for user agent {}", _userAgent);
        }
        bagLog().debug("sending bag with version: {} to client: {} error: {}",
                       bag ? platform::orNull(bag->version()) : "(null)", _client.clientID,
                       error ? error->description() : "(null)");
        _sendBagDidLoad(bag, error);
        if (bag) _setEngagedCompletionCacheValues(*bag);
        if (_bagRegistrations < maxBagRegistrations && !_invalidated) {
            ++_bagRegistrations;
            _assembly.notificationCenter().observe<ORXBagChangeNotification>(shared_from_this(),
                                                                             &ClientConnection::_bagChanged);
        }
        if (const auto& manager = _assembly.clientStateManager()) manager->saveState();
    });
}

void ClientConnection::_bag(Call& call) {
    _ensureState();
    const auto bound = state();
    if (!bound) return;
    bound->bag(_userAgent, call.arrival, [&](std::shared_ptr<const ORXBag> bag, std::optional<ORXError> error) {
        call.reply.answer({bag ? bag->text() : std::string(), busError(error)});
    });
}

void ClientConnection::_request(Call& call) {
    if (CallLimit::refusesSize(call.size, call.reply)) return;
    auto request =
        requestFromBus(*call.arguments[0].as<std::string>(), *call.arguments[1].as<platform::BusDictionary>());
    if (!request) {
        call.reply.fail(platform::bus_error::invalidArgs, request.error().message);
        return;
    }
    _ensureState();
    if (!state()) return;
    std::visit([this](ORXRequest& any) { fillInFromSystem(any, _assembly); }, *request);
    std::visit([&](auto& any) { _ask(std::move(any), call); }, *request);
}

// What is traced tells when a query came to its state, and when its answer left.

ORXReplyCallback ClientConnection::_answering(Call& call, std::optional<std::uint32_t> endTrace) {
    return [reply = std::move(call.reply), endTrace](std::uint64_t queryId, std::optional<ORXReply> answer,
                                                     std::optional<ORXError> error) mutable {
        reply.answer({queryId, busReply(answer), busError(error)});
        if (endTrace) ORXTrace(*endTrace);
    };
}

void ClientConnection::_ask(ORXSearchRequest request, Call& call) {
    ORXTrace(0x2b000004);
    state()->search(std::move(request), call.arrival, _answering(call, 0x2b000008));
}
void ClientConnection::_ask(const ORXMoreResultsRequest& request, Call& call) {
    state()->moreResults(request, call.arrival, _answering(call, std::nullopt));
}
void ClientConnection::_ask(const ORXCardRequest& request, Call& call) {
    ORXTrace(0x2b00000c);
    state()->card(request, call.arrival, _answering(call, 0x2b000010));
}
void ClientConnection::_ask(const ORXZeroKeywordRequest& request, Call& call) {
    ORXTrace(0x2b00001c);
    state()->zeroKeyword(request, call.arrival, _answering(call, 0x2b000020));
}
void ClientConnection::_ask(const ORXLookupRequest& request, Call& call) {
    ORXTrace(0x2b00002c);
    state()->lookup(request, call.arrival, _answering(call, 0x2b000030));
}
void ClientConnection::_ask(const ORXFlightSearchRequest& request, Call& call) {
    state()->flightSearch(request, call.arrival, _answering(call, std::nullopt));
}

void ClientConnection::_reportFeedbackPayloadData(Call& call) {
    const auto& payload = *call.arguments[0].as<platform::BusBytes>();
    if (CallLimit::refusesSize(payload.view().size(), call.reply)) return;
    _ensureState();
    reportFeedbackPayload(_assembly, state(),
                          {.bytes = payload.view(), .queryId = *call.arguments[1].as<std::uint64_t>()},
                          std::move(call.reply));
}

// Reads the session's files on this queue, as a query waits on it.
void ClientConnection::_feedback(Call& call) {
    _ensureState();
    const auto bound = state();
    const auto manager = bound ? bound->sessionManager() : nullptr;
    if (!manager) return;
    ORXTrace(0x2b000024);
    platform::BusArray records{.elementSignature = "ay", .items = {}};
    for (const auto& record : manager->currentSessionRecords()) {
        records.items.emplace_back(platform::BusBytes::of(record.SerializeAsString()));
    }
    call.reply.answer({std::move(records), busError(std::nullopt)});
    ORXTrace(0x2b000028);
}

// Without the component that would answer, these let their reply go.

void ClientConnection::_listenToFlusher(Call& call) {
    _ensureState();
    if (_assembly.flusherListener()) call.reply.answer({platform::BusObjectPath{std::string(kORXFlusherPath)}});
}

void ClientConnection::_fileHandleAndAttributesForResource(Call& call) {
    _ensureState();
    const auto& downloads = _assembly.downloadManager();
    if (!downloads) return;
    auto file = downloads->fileHandleForResource(*call.arguments[0].as<std::string>());
    if (!file) {
        const bool missing = file.error().code == static_cast<std::int64_t>(ORXErrorCode::notFound);
        call.reply.fail(missing ? notFoundError : kORXInternalError, file.error().reason.value_or("no such resource"));
        return;
    }
    const auto& [size, created, modified, permissions] = file->attributes;
    platform::BusDictionary attributes;
    attributes.set("size", size)
        .set("creation_date", platform::secondsSince1970(created))
        .set("modification_date", platform::secondsSince1970(modified))
        .set("permissions", permissions);
    call.reply.answer({platform::BusFile{std::make_shared<platform::FileDescriptor>(std::move(file->descriptor))},
                       std::move(attributes)});
}

void ClientConnection::_listSessions(Call& call) {
    _ensureState();
    const auto& manager = _assembly.clientStateManager();
    if (!manager) return;
    platform::BusArray sessions{.elementSignature = "a{ss}", .items = {}};
    for (const auto& session : manager->sessions()) {
        platform::BusDictionary entry{.valueSignature = "s", .entries = {}};
        entry.set("identifier", session.identifier).set("agent", session.agent);
        sessions.items.emplace_back(std::move(entry));
    }
    call.reply.answer({std::move(sessions)});
}

void ClientConnection::_clearEngagedCompletions(Call& call) {
    if (refusedNumber(call.arguments, {"from_date", "to_date"}, call.reply)) return;
    if (!state()) {
        call.reply.answer({});
        return;
    }
    const auto date = [&](std::size_t index) {
        return platform::wallTimeFromSeconds(*call.arguments[index].as<double>());
    };
    EngagedCompletionCache::sharedInstance(_assembly)->clearCompletionsFromDate(
        date(0), date(1), engagedClientNumber(state()->clientShortName()),
        [reply = std::move(call.reply)](const platform::Result<std::int64_t>& removed) mutable {
            if (removed) {
                reply.answer({});
            } else {
                reply.fail(kORXInternalError, removed.error().text);
            }
        });
}

void ClientConnection::_addCompletion(Call& call) {
    if (CallLimit::refusesSize(call.size, call.reply)) return;
    if (!state()) {
        call.reply.answer({});
        return;
    }
    EngagedCompletionCache::sharedInstance(_assembly)->addCompletion(
        {.completion = *call.arguments[0].as<std::string>(), .input = *call.arguments[1].as<std::string>()},
        [reply = std::move(call.reply)](const platform::Result<void>& added) mutable {
            if (added) {
                reply.answer({});
            } else {
                reply.fail(kORXInternalError, added.error().text);
            }
        });
}

void ClientConnection::_updateParameters(Call& call) {
    static const std::vector<std::string> names = {"brovia_last_1hour",    "brovia_last_1day", "brovia_last_1week",
                                                   "brovia_last_1month",   "brovia_all",       "brovia_most_recent",
                                                   "min_threshold_to_send"};
    if (refusedNumber(call.arguments, names, call.reply)) return;
    const auto bound = state();
    const auto bag = bound ? bound->bag() : nullptr;
    if (bag && bag->smartHistoryEnabled()) {
        const auto number = [&](std::size_t index) { return *call.arguments[index].as<double>(); };
        EngagedCompletionCache::sharedInstance(_assembly)->updateParameters({.broviaLast1hour = number(0),
                                                                             .broviaLast1day = number(1),
                                                                             .broviaLast1week = number(2),
                                                                             .broviaLast1month = number(3),
                                                                             .broviaAll = number(4),
                                                                             .broviaMostRecent = number(5),
                                                                             .minThresholdToSend = number(6)});
    }
    call.reply.answer({});
}

void ClientConnection::_getImageMap(Call& call) {
    _ensureState();
    platform::BusDictionary images;
    const auto bound = state();
    const auto bag = bound ? bound->bag() : nullptr;
    if (bag && bag->resources() != nullptr) {
        for (const auto& [identifier, url] : *bag->resources()) {
            if (url.is_string()) images.set(std::string(identifier), std::string(url.get_string()));
        }
    }
    call.reply.answer({std::move(images)});
}

}  // namespace orvex
