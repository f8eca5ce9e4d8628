#include "platform/linux/transfer_spool.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include <charconv>

#include "platform/linux/open_beneath.h"
#include "platform/linux/system_failure.h"
#include "platform/log.h"

namespace orvex::platform {
namespace {

constexpr mode_t fileMode = 0600;

std::string bodyName(std::uint64_t number) { return fmt::format("{}.body", number); }
std::string downloadName(std::uint64_t number) { return fmt::format("{}.download", number); }

/// 0 for a name that is none of ours.
std::uint64_t numberIn(std::string_view name) {
    std::uint64_t number = 0;
    const auto read = std::from_chars(name.data(), name.data() + name.size(), number);
    const std::string_view rest(read.ptr, name.data() + name.size());
    return read.ec == std::errc() && (rest == ".body" || rest == ".download") ? number : 0;
}

}  // namespace

Result<std::unique_ptr<TransferSpool>> TransferSpool::open(std::shared_ptr<Directory> state, const std::string& place) {
    const std::string spool = place + "/spool";
    for (const std::string& name : {place.substr(0, place.find('/')), place, spool})
        if (auto made = state->makeDirectory(name); !made) return std::unexpected(made.error());
    const auto directory = state->directory(spool);
    if (!directory) return std::unexpected(directory.error());
    FileDescriptor handle(::open((*directory)->path().c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!handle.valid()) return systemFailure(errno, "open the spool");
    return std::unique_ptr<TransferSpool>(new TransferSpool(std::move(state), spool, std::move(handle)));
}

TransferSpool::TransferSpool(std::shared_ptr<Directory> state, std::string place, FileDescriptor handle)
    : _state(std::move(state)),
      _place(std::move(place)),
      _handle(std::move(handle)) {}

Result<std::uint64_t> TransferSpool::takeBody(std::uint64_t number, std::string_view file) {
    const auto source = _state->openFile(file);
    if (!source) return std::unexpected(source.error());
    if (::fsync(source->descriptor.get()) != 0) return systemFailure(errno, fmt::format("sync {}", file));
    auto taken = _state->rename(file, _inState(bodyName(number)));
    if (!taken && taken.error().code == EXDEV) {
        taken = _copy(*source, bodyName(number));
        if (taken) taken = _state->remove(file);
        if (!taken) _remove(bodyName(number));
    } else if (!taken && _state->attributes(_inState(bodyName(number)))) {
        giveBody(number, file);  // renamed, but perhaps not for good
    }
    if (!taken) return std::unexpected(taken.error());
    return source->attributes.size;
}

Result<void> TransferSpool::_copy(const OpenFile& source, const std::string& name) {
    const auto copy = openBeneath(_handle.get(), name, O_WRONLY | O_CREAT | O_TRUNC, fileMode);
    if (!copy) return std::unexpected(copy.error());
    off_t copied = 0;
    while (copied < static_cast<off_t>(source.attributes.size)) {
        const ssize_t piece = ::sendfile(copy->get(), source.descriptor.get(), &copied,
                                         source.attributes.size - static_cast<std::size_t>(copied));
        if (piece < 0 && errno == EINTR) continue;
        if (piece <= 0) {
            const int code = piece < 0 ? errno : EIO;
            _remove(name);
            return systemFailure(code, "copy a body");
        }
    }
    if (::fsync(copy->get()) != 0 || ::fsync(_handle.get()) != 0) return systemFailure(errno, "sync a body");
    return {};
}

void TransferSpool::giveBody(std::uint64_t number, std::string_view file) {
    if (const auto given = _state->rename(_inState(bodyName(number)), file); !given)
        defaultLogger().error("a body that was not stored stays in the spool: {}", given.error().text);
}

Result<OpenFile> TransferSpool::openBody(std::uint64_t number) const {
    return _state->openFile(_inState(bodyName(number)));
}

Result<FileDescriptor> TransferSpool::makeDownload(std::uint64_t number) {
    return openBeneath(_handle.get(), downloadName(number), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, fileMode);
}

Result<void> TransferSpool::syncDownload(std::uint64_t number) {
    const auto file = openDownload(number);
    if (!file) return std::unexpected(file.error());
    if (::fsync(file->descriptor.get()) != 0 || ::fsync(_handle.get()) != 0)
        return systemFailure(errno, "sync a download");
    return {};
}

std::string TransferSpool::downloadPath(std::uint64_t number) const {
    return fmt::format("{}/{}", _state->path(), _inState(downloadName(number)));
}

Result<OpenFile> TransferSpool::openDownload(std::uint64_t number) const {
    return _state->openFile(_inState(downloadName(number)));
}

void TransferSpool::removeBody(std::uint64_t number) { _remove(bodyName(number)); }

void TransferSpool::removeDownload(std::uint64_t number) { _remove(downloadName(number)); }

void TransferSpool::removeAllBut(const std::set<std::uint64_t>& numbers) {
    for (const auto& name : _state->list(_place).value_or(std::vector<std::string>())) {
        const std::uint64_t number = numberIn(name);
        if (number == 0 || numbers.contains(number)) continue;
        defaultLogger().info("{} in the spool belongs to no task", name);
        _remove(name);
    }
}

void TransferSpool::_remove(const std::string& name) {
    const auto removed = _state->remove(_inState(name));
    if (!removed && removed.error().code != ENOENT) defaultLogger().error("{}", removed.error().text);
}

}  // namespace orvex::platform
