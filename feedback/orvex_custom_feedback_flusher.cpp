#include "feedback/orvex_custom_feedback_flusher.h"

#include <fmt/format.h>

#include <boost/json/object.hpp>
#include <cerrno>
#include <cmath>

#include "core/constants.h"
#include "core/feedback_records.pb.h"
#include "core/json.h"
#include "core/orx_bag.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "feedback/client_session.h"
#include "network/bag_controller.h"
#include "platform/counters.h"
#include "platform/property_value.h"
#include "platform/user_defaults.h"

namespace orvex {
namespace {

constexpr std::int64_t tooLargeErrorCode = 4;

/// The order in which the types are flushed, which is not that of their numbers.
constexpr int flushOrder[] = {1, 3, 4, 5, 7, 6};

const platform::Logger& flusherLog() { return OrvexLogForCategory(OrvexLoggingCategory::flusher); }

}  // namespace

void OrvexCustomFeedbackFlusher::flushCustomFeedbackWithCompletionHandler(std::move_only_function<void()> completion) {
    if (_assembly.userDefaults().boolean(setting::feedbackDisabled)) {
        if (completion) completion();
        return;
    }
    const auto caches = _assembly.fileManager().cachesDirectory();
    if (!caches) {
        flusherLog().error("Failed to get cache directory: {}", caches.error().text);
        return;
    }
    const auto entries = (*caches)->list("CustomFeedback");
    const auto customFeedback = entries ? (*caches)->directory("CustomFeedback") : std::unexpected(entries.error());
    if (!customFeedback) {
        flusherLog().info("No custom feedback found. Nothing to flush.");
        return;
    }
    for (const int type : flushOrder) {
        if (!_flushType(**customFeedback, customFeedbackDirectoryName(type))) return;
    }
    _flushDPFeedback();
    if (completion) completion();
}

bool OrvexCustomFeedbackFlusher::_flushType(platform::Directory& customFeedback, std::string_view type) {
    const auto names = customFeedback.list(type);
    if (!names && names.error().code == ENOENT) return false;
    if (!names) flusherLog().info("{} {}", names.error().text, type);
    const std::uint64_t maximumSize = _maximumSize(type);
    bool any = false;
    for (const auto& name : names.value_or(std::vector<std::string>())) {
        if (name.starts_with('.')) continue;
        const std::string path = fmt::format("{}/{}", type, name);
        const auto report = customFeedback.openFile(path);
        if (!report) {
            if (report.error().code != EISDIR) flusherLog().error("no report: {}", report.error().text);
            if (report.error().code != EACCES) continue;  // no regular file of ours
            _assembly.counters().add(fmt::format("com.kelvar.orvexd.customfeedback.{}.unreadable", type));
        }
        any = true;
        if (report) _flushReport({.file = *report, .path = path}, type, maximumSize);
        if (const auto removed = customFeedback.remove(path); !removed) {
            flusherLog().error("Failed to remove custom feedback: {}", removed.error().text);
        }
    }
    if (!any) flusherLog().info("No {} custom feedback available for flushing", type);
    return true;
}

void OrvexCustomFeedbackFlusher::_flushReport(const UploadManager::Report& report, std::string_view type,
                                              std::uint64_t maximumSize) {
    const auto size = report.file.attributes.size;
    if (size > maximumSize) return _reject(type, size);
    if (const auto& uploader = _assembly.uploadManager()) {
        uploader->uploadFeedback(report, type, UploadManager::Endpoint::feedback);
    }
}

void OrvexCustomFeedbackFlusher::_reject(std::string_view type, std::uint64_t size) {
    CXErrorFeedback record;
    auto& error = *record.mutable_error();
    error.set_domain(std::string(kORXErrorDomain));
    error.set_code(tooLargeErrorCode);
    (*error.mutable_user_info())["size"].set_int64_value(static_cast<std::int64_t>(size));
    (*error.mutable_user_info())["type"].set_string_value(std::string(type));
    if (const auto session = ClientSession::createFeedbackSessionFromError(record, _assembly)) {
        session->sessionComplete();
    }
    _assembly.counters().add(fmt::format("com.kelvar.orvexd.customfeedback.{}.filetoolarge", type));
    flusherLog().error("Custom feedback item {} too big to process: {}", type, size);
}

std::uint64_t OrvexCustomFeedbackFlusher::_maximumSize(std::string_view type) const {
    const auto& bags = _assembly.bagController();
    const auto bag = bags ? bags->currentBag() : nullptr;
    const auto* sizes = bag ? bag->maximumSizeForFeedbackType() : nullptr;
    const auto* size = sizes ? sizes->if_contains(type) : nullptr;
    const auto bytes = size ? platform::integerFromDouble(numberFromJSON(*size).value_or(0)) : 0;
    return bytes > 0 ? static_cast<std::uint64_t>(bytes) : defaultMaximumSize;
}

// A Linux system has no store of reports that wait to be crowdsourced.
void OrvexCustomFeedbackFlusher::_flushDPFeedback() const {
    flusherLog().info("No crowdsourcing reports available for flushing");
}

}  // namespace orvex
