#include "resources/download_manager.h"

#include <fmt/format.h>

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <cerrno>
#include <set>

#include "core/json.h"
#include "core/notifications.h"
#include "core/orx_bag.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "platform/counters.h"
#include "platform/notification_center.h"
#include "platform/url.h"
#include "platform/user_defaults.h"
#include "resources/lookup.h"
#include "resources/resource_identifier.h"

// The list: what the bag wants, what is known, what is saved, and the files. Transfers are in
// download_manager_transfers.cpp.
//
// Starting over takes two steps, since the session tells its tasks on a queue of its own: the tasks are asked for on
// our queue, and cancelled there together with the building of the new list, unless a newer bag has come in between.
// That one asked after our last task had been made, so it knows them all, and no task is left over beside its double.

namespace orvex {
namespace {

constexpr std::string_view bagListKey = "download_resources_list";

const platform::Logger& log() { return OrvexLogForCategory(OrvexLoggingCategory::downloadManager); }

bool isAccepted(std::string_view identifier, Assembly& assembly) {
    if (isAcceptableResourceIdentifier(identifier)) return true;
    log().error("refused the resource identifier \"{}\"", identifier);
    assembly.counters().add("com.kelvar.orvexd.resources.refused.identifier");
    return false;
}

/// What the bag wants to be here. An absent list wants nothing, and so does what is no list.
std::set<std::string> identifiersIn(const boost::json::object& rawBag, Assembly& assembly) {
    std::set<std::string> identifiers;
    const auto* list = rawBag.if_contains(bagListKey);
    if (list == nullptr) return identifiers;
    if (!list->is_array()) {
        log().error("{} is no array", bagListKey);
        return identifiers;
    }
    for (const auto& item : list->get_array()) {
        const auto text = item.is_string() ? std::string_view(item.get_string()) : std::string_view();
        if (isAccepted(text, assembly)) identifiers.emplace(text);
    }
    return identifiers;
}

std::optional<std::string> acceptableURLIn(const boost::json::object& rawBag, const std::string& identifier,
                                           Assembly& assembly) {
    auto text = stringMember(rawBag, identifier);
    if (!text) return std::nullopt;
    const auto url = platform::parseAcceptableURL(*text);
    if (url) return text;
    log().error("refused the url of {}: {}", identifier, url.error().text);
    assembly.counters().add("com.kelvar.orvexd.resources.refused.url");
    return std::nullopt;
}

ORXError internalError(const platform::Failure& failure) { return {ORXErrorCode::internal, failure.text}; }

}  // namespace

std::shared_ptr<DownloadManager> DownloadManager::create(Assembly& assembly) {
    std::shared_ptr<DownloadManager> manager(new DownloadManager(assembly));
    assembly.notificationCenter().observe<ORXBagChangeNotification>(manager, &DownloadManager::_bagChanged);
    return manager;
}

DownloadManager::DownloadManager(Assembly& assembly)
    : _assembly(assembly),
      _queue(assembly.dispatcher(), "com.kelvar.orvex.DownloadManager", platform::Priority::background) {}

DownloadManager::~DownloadManager() { _assembly.notificationCenter().removeObserver(this); }

// The saved list

void DownloadManager::_start() {
    if (_hasStarted.exchange(true)) return;
    log().debug("started");
    _queue.async([weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        self->_queue.assertCurrent();
        self->_loadSavedList();
    });
}

void DownloadManager::_loadSavedList() {
    const auto saved = _assembly.userDefaults().object(setting::downloadResources);
    const auto* entries = saved ? saved->as<platform::PropertyDictionary>() : nullptr;
    if (entries == nullptr) return;
    for (const auto& [identifier, entry] : *entries) {
        if (!isAccepted(identifier, _assembly)) continue;
        if (auto resource = DownloadResource::fromSavedForm(identifier, entry))
            _resources.try_emplace(identifier, *std::move(resource));
    }
}

// An empty list is stored too: without one the next start would be the first ever.
void DownloadManager::_saveResources() {
    platform::PropertyDictionary saved;
    for (const auto& [identifier, resource] : _resources) saved.emplace(identifier, resource.savedForm());
    if (const auto stored = _assembly.userDefaults().setObject(setting::downloadResources, std::move(saved)); !stored)
        log().error("cannot save the list of resources: {}", stored.error().text);
}

// What the bag wants

void DownloadManager::_bagChanged(const ORXBagChangeNotification& notification) {
    log().debug("bag change: {}", notification.bag ? platform::orNull(notification.bag->version()) : "(null)");
    if (!notification.bag) return;
    _start();
    _queue.async([weak = weak_from_this(), bag = notification.bag] {
        const auto self = weak.lock();
        if (!self) return;
        self->_queue.assertCurrent();
        self->_startOver(bag);
    });
}

void DownloadManager::_startOver(const std::shared_ptr<const ORXBag>& bag) {
    const auto change = ++_bagChanges;
    _assembly.downloadURLSession().getAllTasks([weak = weak_from_this(), bag, change](platform::BackgroundTasks tasks) {
        const auto alive = weak.lock();
        if (!alive) return;
        alive->_queue.async([weak, bag, change, tasks = std::move(tasks)] {
            const auto self = weak.lock();
            if (!self) return;
            self->_queue.assertCurrent();
            if (change != self->_bagChanges) return;  // a newer bag's turn comes
            for (const auto& task : tasks) {
                log().debug("canceling {}", task->originalRequest().url);
                task->cancel();
            }
            self->_downloadBagResources(*bag);
        });
    });
}

void DownloadManager::_downloadBagResources(const ORXBag& bag) {
    const auto& rawBag = *bag.rawBag();
    const auto wanted = identifiersIn(rawBag, _assembly);
    log().log("resource files to be downloaded: {}", fmt::join(wanted, ", "));
    std::erase_if(_resources, [&](const auto& known) {
        _queue.assertCurrent();
        if (wanted.contains(known.first)) return false;
        log().debug("deleting resource: {}", known.first);
        _deleteFile(known.first);
        return true;
    });
    for (const auto& identifier : wanted) {
        if (!_mayDownload(identifier, bag)) {
            log().info("{} is disabled, not downloading", identifier);
            continue;
        }
        const auto url = acceptableURLIn(rawBag, identifier, _assembly);
        log().log("downloading file: {} at url: {}", identifier, platform::privately(platform::orNull(url)));
        _addResource(identifier, url);
    }
    _saveResources();
}

bool DownloadManager::_mayDownload(const std::string& identifier, const ORXBag& bag) const {
    return !isLookupResource(identifier) || (bag.lookupEnabled() && Lookup::lookupEnabled(_assembly));
}

// All downloads were cancelled before, and the list is saved after: `_downloadBagResources` is the only caller.
void DownloadManager::_addResource(const std::string& identifier, const std::optional<std::string>& url) {
    if (!url) {
        log().debug("deleting resource: {}", identifier);
        _resources.erase(identifier);
        _deleteFile(identifier);
        return;
    }
    const auto& resource = _resources.try_emplace(identifier, DownloadResource{identifier, {}, {}}).first->second;
    if (const auto reason = _reason(resource, *url))
        _downloadResource({.identifier = identifier, .url = *url, .reason = *reason});
}

std::optional<std::string_view> DownloadManager::_reason(const DownloadResource& resource, std::string_view url) const {
    if (!resource.url || !namesSameResource(*resource.url, url)) return "update";
    const auto caches = _assembly.fileManager().cachesDirectory();
    if (!caches || !(*caches)->attributes(resource.identifier)) return "missing";
    return isLookupResource(resource.identifier) ? std::optional<std::string_view>("lookup") : std::nullopt;
}

bool DownloadManager::_deleteFile(const std::string& identifier) {
    const auto caches = _assembly.fileManager().cachesDirectory();
    if (!caches) {
        log().log("error trying to get path to file for deletion {}", caches.error().text);
        return false;
    }
    const auto removed = (*caches)->remove(identifier);
    if (removed) {
        _assembly.notificationCenter().post(ORXFileDeletedNotification{identifier});
    } else if (removed.error().code != ENOENT) {
        log().log("error trying to remove file at url {}/{}: {}", (*caches)->path(), identifier, removed.error().text);
    }
    return removed.has_value();
}

void DownloadManager::deleteAllResources(std::move_only_function<void(std::size_t files)> deleted) {
    _start();
    _assembly.downloadURLSession().getAllTasks(
        [self = shared_from_this(), deleted = std::move(deleted)](const platform::BackgroundTasks& tasks) mutable {
            for (const auto& task : tasks) task->cancel();
            self->_queue.async([self, deleted = std::move(deleted)]() mutable {
                self->_queue.assertCurrent();
                std::size_t files = 0;
                for (const auto& [identifier, resource] : self->_resources) files += self->_deleteFile(identifier);
                self->_resources.clear();
                self->_saveResources();
                deleted(files);
            });
        });
}

// What peers ask for

std::expected<platform::OpenFile, ORXError> DownloadManager::fileHandleForResource(std::string_view identifier) const {
    if (!isAccepted(identifier, _assembly)) return std::unexpected(ORXError(kORXErrorDomain, 404, std::nullopt));
    const auto caches = _assembly.fileManager().cachesDirectory();
    if (!caches) {
        log().error("error getting cache directory {}", caches.error().text);
        log().error("error getting path to resource: {}", identifier);
        return std::unexpected(internalError(caches.error()));
    }
    auto file = (*caches)->openFile(identifier);
    if (file) return *std::move(file);
    if (file.error().code == ENOENT) {
        log().log("no file at path: {}/{}", (*caches)->path(), identifier);
        return std::unexpected(ORXError(kORXErrorDomain, 404, std::nullopt));
    }
    log().error("error getting file handle for resource: {}", file.error().text);
    return std::unexpected(internalError(file.error()));
}

DownloadManager::Usage DownloadManager::usage() {
    _start();
    const auto identifiers = _queue.sync([this] {
        _queue.assertCurrent();
        std::vector<std::string> known;
        for (const auto& [identifier, resource] : _resources) known.push_back(identifier);
        return known;
    });
    Usage usage;
    const auto caches = _assembly.fileManager().cachesDirectory();
    if (!caches) return usage;
    for (const auto& identifier : identifiers) {
        if (const auto attributes = (*caches)->attributes(identifier)) {
            ++usage.files;
            usage.bytes += attributes->size;
        }
    }
    return usage;
}

std::map<std::string, std::string> DownloadManager::resourceVersions() {
    _start();
    return _queue.sync([this] {
        _queue.assertCurrent();
        std::map<std::string, std::string> versions;
        for (const auto& [identifier, resource] : _resources)
            if (auto version = resource.version(); !version.empty()) versions.emplace(identifier, std::move(version));
        return versions;
    });
}

std::optional<DownloadResource> DownloadManager::resourceForKey(const std::string& identifier) const {
    return _queue.sync([&]() -> std::optional<DownloadResource> {
        _queue.assertCurrent();
        const auto found = _resources.find(identifier);
        return found == _resources.end() ? std::nullopt : std::optional(found->second);
    });
}

}  // namespace orvex
