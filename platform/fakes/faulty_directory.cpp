#include "platform/fakes/faulty_directory.h"

#include <algorithm>
#include <cerrno>

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

Result<std::string> FaultyDirectory::read(std::string_view name, std::size_t maxBytes) const {
    return _inner->read(name, maxBytes);
}

Result<OpenFile> FaultyDirectory::openFile(std::string_view name) const { return _inner->openFile(name); }

Result<void> FaultyDirectory::replace(std::string_view name, std::string_view bytes) {
    using enum DirectoryFault;
    const auto fault = _plan->_next({writeFails, writeTears});
    if (fault == writeFails) return injectedFailure(ENOSPC);
    if (!fault) return _inner->replace(name, bytes);
    (void)_inner->replace(".orvexd-0000000000000000.tmp", bytes.substr(0, bytes.size() / 2));
    return injectedFailure(EIO);
}

Result<std::shared_ptr<AppendFile>> FaultyDirectory::createFile(std::string_view name) {
    if (_plan->_next({DirectoryFault::writeFails})) return injectedFailure(ENOSPC);
    auto file = _inner->createFile(name);
    if (!file) return file;
    return std::make_shared<FaultyAppendFile>(*std::move(file), _plan);
}

Result<void> FaultyDirectory::remove(std::string_view name) { return _inner->remove(name); }

Result<void> FaultyDirectory::rename(std::string_view from, std::string_view to) { return _inner->rename(from, to); }

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
