#include "feedback/orvex_persistent_storage.h"

#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <map>
#include <numeric>

#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "feedback/file_container.h"
#include "feedback/orvexd_user_agent.h"
#include "platform/age.h"
#include "platform/counters.h"
#include "platform/file_manager.h"
#include "platform/log_events.h"
#include "platform/user_defaults.h"

namespace orvex {
namespace {

constexpr std::string_view filePrefix = "session.";
constexpr std::uint32_t maxNumber = 4'294'967'294;  // the next one is a number too

const platform::Logger& log() { return OrvexLogForCategory(OrvexLoggingCategory::feedbackStorage); }

/// The number in the name of a session file; none for any other name.
std::optional<std::uint32_t> handleNumber(std::string_view name) {
    constexpr std::size_t maxDigits = 10;
    if (!name.starts_with(filePrefix)) return std::nullopt;
    const auto digits = name.substr(filePrefix.size());
    if (digits.empty() || digits.size() > maxDigits || digits.find_first_not_of("0123456789") != digits.npos)
        return std::nullopt;
    std::uint64_t number = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return number <= maxNumber ? std::optional(static_cast<std::uint32_t>(number)) : std::nullopt;
}

std::uint64_t bytesOf(const std::vector<std::shared_ptr<FileContainer>>& containers) {
    return std::accumulate(containers.begin(), containers.end(), std::uint64_t{0},
                           [](std::uint64_t sum, const auto& container) { return sum + container->size(); });
}

std::uint64_t sizeLimit(const platform::UserDefaults& userDefaults) {
    return static_cast<std::uint64_t>(std::max<std::int64_t>(userDefaults.integer(setting::sessionSizeLimit), 0));
}

}  // namespace

OrvexPersistentStorage::OrvexPersistentStorage(Assembly& assembly)
    : _assembly(assembly),
      _version(orvexdUserAgent(assembly.device())),
      _maxFileSize(sizeLimit(assembly.userDefaults())),
      _maxFileAge(static_cast<double>(assembly.userDefaults().integer(setting::sessionMaxAge))),
      _sharedQueue(std::make_shared<platform::SerialQueue>(
          assembly.dispatcher(), "com.kelvar.orvexd.persistentStorageQueue", platform::Priority::background)),
      _queue(*_sharedQueue) {
    _scanCacheDirectory();
}

OrvexPersistentStorage::~OrvexPersistentStorage() {
    _queue.sync([] {});  // what is queued here uses this; the containers go on with the queue
}

struct OrvexPersistentStorage::NewFile {
    std::string name;
    std::string path;
    std::shared_ptr<platform::AppendFile> file;
};

std::shared_ptr<FileContainer> OrvexPersistentStorage::createFileContainerForWriting() {
    auto made = _newFileUrl();
    if (!made) {
        log().error("Could not get a file url");
        return nullptr;
    }
    log().debug("new file url {}", made->path);
    return FileContainer::createForWriting(_assembly, _sharedQueue,
                                           {.name = std::move(made->name),
                                            .path = std::move(made->path),
                                            .version = _version,
                                            .maxFileSize = _maxFileSize},
                                           std::move(made->file));
}

std::vector<std::shared_ptr<FileContainer>> OrvexPersistentStorage::getAvailableSessionHandles() {
    return _queue.sync([this] {
        _queue.assertCurrent();
        return _fileContainers;
    });
}

void OrvexPersistentStorage::closeSessionWithFileContainer(std::shared_ptr<FileContainer> container) {
    _queue.async([this, container = std::move(container)] {
        _queue.assertCurrent();
        _fileContainers.push_back(container);
        container->closeFile();
        _removeOldestBeyondLimits();
        _countWaiting();
    });
}

bool OrvexPersistentStorage::deleteSessionWithFileContainer(const std::shared_ptr<FileContainer>& container) {
    return _queue.sync([&] {
        _queue.assertCurrent();
        const bool listed = std::erase(_fileContainers, container) > 0;
        container->closeFile();
        container->deleteWhenReleased();
        _countWaiting();
        return listed;
    });
}

std::shared_ptr<platform::Directory> OrvexPersistentStorage::_cacheDirectory() const {
    auto directory = _assembly.fileManager().cachesDirectory();
    if (directory) return *std::move(directory);
    log().debug("error getting cache directory {}", directory.error().text);
    return nullptr;
}

void OrvexPersistentStorage::_scanCacheDirectory() {
    const auto directory = _cacheDirectory();
    if (!directory) {
        log().error("error scanning cache directory, could not get path");
        return;
    }
    const auto names = directory->list();
    if (!names) {
        log().error("error scanning cache directory {}", names.error().text);
        return;
    }
    auto expected = _handleId.load();
    std::multimap<std::uint32_t, std::shared_ptr<FileContainer>> found;  // by number, which is by age
    for (const auto& name : *names)
        if (const auto number = handleNumber(name))
            if (auto container = _found(*directory, name)) found.emplace(*number, std::move(container));
    if (found.empty()) return;
    const auto largest = found.rbegin()->first;
    if (largest >= expected) _handleId.compare_exchange_strong(expected, largest + 1);
    _queue.sync([&] {
        _queue.assertCurrent();
        for (auto& [number, container] : found) _fileContainers.push_back(std::move(container));
        _countWaiting();
    });
}

std::shared_ptr<FileContainer> OrvexPersistentStorage::_found(platform::Directory& directory, const std::string& name) {
    const auto attributes = directory.attributes(name);
    if (!attributes) {
        log().error("Attribute fetch error {}", attributes.error().text);
        return nullptr;
    }
    if (platform::ageOf(attributes->created, _assembly.dispatcher().wallNow()).count() > _maxFileAge) {
        _assembly.counters().add("com.kelvar.orvexd.filetooold");
        if (const auto removed = directory.remove(name); !removed)
            log().error("file removing error {}", removed.error().text);
        return nullptr;
    }
    return FileContainer::create(_assembly, _sharedQueue,
                                 {.name = name,
                                  .path = fmt::format("{}/{}", directory.path(), name),
                                  .version = _version,
                                  .maxFileSize = _maxFileSize},
                                 attributes->size);
}

std::optional<OrvexPersistentStorage::NewFile> OrvexPersistentStorage::_newFileUrl() {
    const auto directory = _cacheDirectory();
    if (!directory) return std::nullopt;
    // A name may be taken by what is no session file of ours, or by one that came after the scan.
    constexpr int maxTakenNames = 10'000;
    for (int taken = 0; taken < maxTakenNames; ++taken) {
        const auto number = _handleId.fetch_add(1);
        if (number > maxNumber) continue;  // the next start would not look for it
        auto name = fmt::format("{}{}", filePrefix, number);
        auto file = directory->createFile(name);
        if (file)
            return NewFile{
                .name = name, .path = fmt::format("{}/{}", directory->path(), name), .file = *std::move(file)};
        if (file.error().code == EEXIST) continue;
        log().error("{}", file.error().text);
        return std::nullopt;
    }
    return std::nullopt;
}

void OrvexPersistentStorage::_removeOldestBeyondLimits() {
    auto bytes = bytesOf(_fileContainers);
    auto files = _fileContainers.size();
    auto kept = _fileContainers.begin();
    for (; files > 1 && (files > maxWaitingFiles || bytes > maxWaitingBytes); --files, ++kept) {
        _assembly.counters().add("com.kelvar.orvexd.filesoverlimit");
        log()
            .as(platform::LogEvent::sessionFileDropped, {{"ORVEX_FILE", (*kept)->path()}})
            .error("too many session files, removing {}", (*kept)->path());
        bytes -= (*kept)->size();
        (*kept)->deleteWhenReleased();
    }
    _fileContainers.erase(_fileContainers.begin(), kept);
}

void OrvexPersistentStorage::_countWaiting() {
    _waitingFiles = _fileContainers.size();
    _waitingBytes = bytesOf(_fileContainers);
}

}  // namespace orvex
