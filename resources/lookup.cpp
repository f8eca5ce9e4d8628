#include "resources/lookup.h"

#include <fmt/format.h>

#include <ranges>
#include <vector>

#include "core/constants.h"
#include "core/notifications.h"
#include "core/orx_error.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "platform/data_detector_store.h"
#include "platform/notification_center.h"
#include "platform/transactions.h"
#include "platform/url.h"
#include "platform/user_defaults.h"
#include "resources/download_manager.h"

namespace orvex {
namespace {

using platform::DataDetectorSource;

const platform::Logger& log() { return OrvexLogForCategory(OrvexLoggingCategory::lookUp); }

DataDetectorSource sourceKind(std::string_view identifier) {
    return identifier == kORXLookupHintsMonthly ? DataDetectorSource::monthlyHints : DataDetectorSource::weeklyHints;
}
int number(DataDetectorSource kind) { return static_cast<int>(kind); }

/// No file clears the source.
void push(Assembly& assembly, DataDetectorSource kind, const platform::FileDescriptor* file,
          std::string_view signature) {
    platform::DataDetectorStore store(assembly.fileManager());
    if (const auto pushed = store.push(kind, file, signature); !pushed) {
        log().error("failed to push data to data detectors");
        log().error("{}", pushed.error().text);
    }
}

}  // namespace

std::shared_ptr<Lookup> Lookup::create(Assembly& assembly) {
    std::shared_ptr<Lookup> lookup(new Lookup(assembly));
    auto& center = assembly.notificationCenter();
    center.observe<ORXFileDownloadCompletedNotification>(lookup, [](Lookup& self, const auto& download) {
        self._handleHintsFile(
            {.identifier = download.identifier, .location = download.url, .version = download.version});
    });
    center.observe<ORXFileDeletedNotification>(lookup, [](Lookup& self, const auto& deletion) {
        self._handleHintsFile({.identifier = deletion.identifier, .location = {}, .version = {}});
    });
    center.observe<ORXStartupNotification>(lookup, [](Lookup& self, const auto&) { self._reprocessHintsFiles(); });
    return lookup;
}

Lookup::Lookup(Assembly& assembly) : _assembly(assembly), _queue(assembly.dispatcher(), "com.kelvar.orvex.Lookup") {}

Lookup::~Lookup() { _assembly.notificationCenter().removeObserver(this); }

bool Lookup::lookupEnabled(const Assembly& assembly) {
    const auto* shared = assembly.lookupDefaults();
    return shared == nullptr || !shared->boolean(setting::lookupSuggestionsDisabled);
}

std::string Lookup::signatureFromURL(std::string_view url) {
    const auto parsed = platform::parseURL(url);
    std::vector<std::string_view> parts;
    if (parsed) {
        for (const auto range : std::views::split(parsed->path, '/'))
            parts.emplace_back(range.begin(), range.end());  // the first is what stands before the leading slash
    }
    if (parts.size() > 4) return fmt::format("{}-{}-{}", parts[3], parts[4], parts[2]);
    log().error("invalid lookup hints url when processing signature: {}", platform::privately(url));
    return {};
}

void Lookup::_handleHintsFile(Hints hints) {
    if (!isLookupResource(hints.identifier)) return;
    _queue.async([weak = weak_from_this(), hints = std::move(hints),
                  transaction = _assembly.transactions().begin("_handleHintsFile")] {
        const auto self = weak.lock();
        if (!self) return;
        self->_queue.assertCurrent();
        self->_process(hints);
    });
}

void Lookup::_process(const Hints& hints) {
    const auto kind = sourceKind(hints.identifier);
    log().debug("processing lookup hints for location: {} sourceKind: {}", platform::orNull(hints.location),
                number(kind));
    if (!hints.location) return push(_assembly, kind, nullptr, {});
    const auto file = _assembly.downloadManager()->fileHandleForResource(hints.identifier);
    if (!file) {
        log().error("error trying to open hints file: {} at location: {}", file.error().description(), *hints.location);
        return push(_assembly, kind, nullptr, {});
    }
    push(_assembly, kind, &file->descriptor, hints.version);
}

void Lookup::_reprocessHintsFiles() {
    log().debug("reprocessing lookup hints files");
    _queue.async([weak = weak_from_this(), transaction = _assembly.transactions().begin("_reprocessHintsFiles")] {
        const auto self = weak.lock();
        if (!self || !self->_assembly.downloadManager()) return;
        self->_queue.assertCurrent();
        const auto versions = self->_assembly.downloadManager()->resourceVersions();
        for (const auto identifier : {kORXLookupHintsMonthly, kORXLookupHintsWeekly}) {
            const auto found = versions.find(std::string(identifier));
            self->_reprocess(identifier, found == versions.end() ? std::nullopt : std::optional(found->second));
        }
    });
}

// Two that are absent are not equal: what has no version is pushed at every start.
void Lookup::_reprocess(std::string_view identifier, const std::optional<std::string>& version) {
    const auto kind = sourceKind(identifier);
    const auto signature = platform::DataDetectorStore(_assembly.fileManager()).clientSignature(kind);
    if (signature && version && *signature == *version) return;
    log().info("signature ({}) does not match version ({}), DD for kind: {} requires reprocessing",
               platform::privately(platform::orNull(signature)), platform::privately(platform::orNull(version)),
               number(kind));
    const auto file = _assembly.downloadManager()->fileHandleForResource(identifier);
    if (!file) {
        log().info("reprocess file doesn't exist or there was an error. file: {} error: {}", identifier,
                   file.error().description());
        return;
    }
    push(_assembly, kind, &file->descriptor, version.value_or(""));
}

}  // namespace orvex
