#include "platform/fakes/faulty_directory.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <ranges>

#include "platform/append_file.h"

namespace orvex::platform {
namespace {

std::unexpected<Failure> injectedFailure(int code) { return failure(code, "it fails, as the test wants"); }

}  // namespace

class FaultyAppendFile final : public AppendFile {
public:
    FaultyAppendFile(std::shared_ptr<AppendFile> inner, std::shared_ptr<FaultPlan> plan)
        : _inner(std::move(inner)),
          _plan(std::move(plan)) {}

    Result<void> append(std::string_view bytes) override {
        using enum DirectoryFault;
        const auto fault = _plan->_next({writeFails, writeTears});
        if (fault == writeTears) (void)_inner->append(bytes.substr(0, bytes.size() / 2));
        return fault ? injectedFailure(ENOSPC) : _inner->append(bytes);
    }
    Result<std::uint64_t> size() const override { return _inner->size(); }
    Result<void> truncate(std::uint64_t size) override {
        return _plan->_next({DirectoryFault::truncateFails}) ? injectedFailure(EIO) : _inner->truncate(size);
    }
    Result<void> sync() override {
        return _plan->_next({DirectoryFault::syncFails}) ? injectedFailure(EIO) : _inner->sync();
    }

private:
    // Constant after construction.
    const std::shared_ptr<AppendFile> _inner;
    const std::shared_ptr<FaultPlan> _plan;
};

void FaultPlan::inject(DirectoryFault fault, std::size_t nth) {
    const MutexLock lock(_mutex);
    _waiting.push_back({fault, nth});
}

std::size_t FaultPlan::injected() const {
    const MutexLock lock(_mutex);
    return _injected;
}

void FaultPlan::loseUnsynced() {
    std::vector<Unsynced> lost;
    {
        const MutexLock lock(_mutex);
        lost.swap(_unsynced);
    }
    for (auto& change : std::views::reverse(lost)) {
        if (change.before)
            (void)change.directory->replace(change.name, *change.before);
        else
            (void)change.directory->remove(change.name);
    }
}

std::optional<DirectoryFault> FaultPlan::_next(std::initializer_list<DirectoryFault> possible) {
    const MutexLock lock(_mutex);
    std::optional<DirectoryFault> due;
    for (auto waiting = _waiting.begin(); waiting != _waiting.end();) {
        const bool counts = std::ranges::find(possible, waiting->fault) != possible.end();
        if (counts && waiting->remaining > 1)
            --waiting->remaining;
        else if (counts && !due) {
            due = waiting->fault;
            ++_injected;
            waiting = _waiting.erase(waiting);
            continue;
        }
        ++waiting;
    }
    return due;
}

void FaultPlan::_keep(std::vector<Unsynced> changes) {
    const MutexLock lock(_mutex);
    std::ranges::move(changes, std::back_inserter(_unsynced));
}

void FaultPlan::_synced(const Directory& directory) {
    const MutexLock lock(_mutex);
    std::erase_if(_unsynced, [&](const Unsynced& change) { return change.directory->path() == directory.path(); });
}

FaultPlan::Unsynced FaultyDirectory::_asItIs(std::string_view name) const {
    auto bytes = _inner->read(name, std::numeric_limits<std::size_t>::max() / 2);
    return {_inner, std::string(name), bytes ? std::optional<std::string>(std::move(*bytes)) : std::nullopt};
}

Result<std::string> FaultyDirectory::read(std::string_view name, std::size_t maxBytes) const {
    return _inner->read(name, maxBytes);
}

Result<OpenFile> FaultyDirectory::openFile(std::string_view name) const { return _inner->openFile(name); }

Result<void> FaultyDirectory::replace(std::string_view name, std::string_view bytes) {
    using enum DirectoryFault;
    const auto fault = _plan->_next({writeFails, writeTears, syncFails, renameFails});
    if (fault == writeFails) return injectedFailure(ENOSPC);
    if (fault == renameFails) return injectedFailure(EIO);
    if (fault == writeTears) {
        (void)_inner->replace(".orvexd-0000000000000000.tmp", bytes.substr(0, bytes.size() / 2));
        return injectedFailure(EIO);
    }
    auto before = _asItIs(name);
    const auto replaced = _inner->replace(name, bytes);
    if (!replaced) return replaced;
    if (fault != syncFails) {
        _plan->_synced(*_inner);
        return {};
    }
    _plan->_keep({std::move(before)});
    return injectedFailure(EIO);
}

Result<std::shared_ptr<AppendFile>> FaultyDirectory::createFile(std::string_view name) {
    if (_plan->_next({DirectoryFault::writeFails})) return injectedFailure(ENOSPC);
    auto file = _inner->createFile(name);
    if (!file) return file;
    return std::make_shared<FaultyAppendFile>(*std::move(file), _plan);
}

Result<void> FaultyDirectory::remove(std::string_view name) { return _inner->remove(name); }

Result<void> FaultyDirectory::rename(std::string_view from, std::string_view to) {
    using enum DirectoryFault;
    const auto fault = _plan->_next({syncFails, renameFails});
    if (fault == renameFails) return injectedFailure(EIO);
    auto source = _asItIs(from);
    auto target = _asItIs(to);
    const auto renamed = _inner->rename(from, to);
    if (!renamed) return renamed;
    if (fault != syncFails) {
        _plan->_synced(*_inner);
        return {};
    }
    _plan->_keep({std::move(source), std::move(target)});
    return injectedFailure(EIO);
}

Result<void> FaultyDirectory::makeDirectory(std::string_view name) { return _inner->makeDirectory(name); }

Result<FileAttributes> FaultyDirectory::attributes(std::string_view name) const { return _inner->attributes(name); }

Result<std::vector<std::string>> FaultyDirectory::list(std::string_view name) const { return _inner->list(name); }

Result<std::shared_ptr<Directory>> FaultyDirectory::directory(std::string_view name) {
    auto below = _inner->directory(name);
    if (!below) return below;
    return std::make_shared<FaultyDirectory>(std::move(*below), _plan);
}

Result<std::shared_ptr<Directory>> FaultyFileManager::cachesDirectory() { return _wrap(_inner.cachesDirectory()); }
Result<std::shared_ptr<Directory>> FaultyFileManager::stateDirectory() { return _wrap(_inner.stateDirectory()); }
Result<std::shared_ptr<Directory>> FaultyFileManager::configurationDirectory() {
    return _wrap(_inner.configurationDirectory());
}

Result<std::shared_ptr<Directory>> FaultyFileManager::_wrap(Result<std::shared_ptr<Directory>> inner) {
    if (!inner) return inner;
    return std::make_shared<FaultyDirectory>(std::move(*inner), _plan);
}

}  // namespace orvex::platform
