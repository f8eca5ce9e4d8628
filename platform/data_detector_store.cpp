#include "platform/data_detector_store.h"

#include <fmt/core.h>

#include <cerrno>
#include <utility>

#include "platform/file_manager.h"
#include "platform/mapped_file.h"

namespace orvex::platform {
namespace {

constexpr std::size_t maxSignatureBytes = 1024;

std::string fileName(DataDetectorSource kind) { return fmt::format("{}", std::to_underlying(kind)); }
std::string signatureName(DataDetectorSource kind) { return fileName(kind) + ".signature"; }

Result<std::shared_ptr<Directory>> storeDirectory(FileManager& files) {
    auto state = files.stateDirectory();
    return state ? (*state)->directory("data-detectors") : std::move(state);
}

Result<void> removeIfThere(Directory& directory, const std::string& name) {
    auto removed = directory.remove(name);
    return !removed && removed.error().code != ENOENT ? std::move(removed) : Result<void>();
}

Result<void> copy(const FileDescriptor& file, Directory& directory, const std::string& name) {
    const auto mapped = mmapFileHandle(file);
    if (!mapped && mapped.error().code != EINVAL) return std::unexpected(mapped.error());
    return directory.replace(name, mapped ? mapped->bytes() : std::string_view());  // an empty file cannot be mapped
}

}  // namespace

Result<void> DataDetectorStore::push(DataDetectorSource kind, const FileDescriptor* file, std::string_view signature) {
    const auto directory = storeDirectory(_files);
    if (!directory) return std::unexpected(directory.error());
    if (auto forgotten = removeIfThere(**directory, signatureName(kind)); !forgotten) return forgotten;
    if (file == nullptr) return removeIfThere(**directory, fileName(kind));
    if (auto copied = copy(*file, **directory, fileName(kind)); !copied) return copied;
    return signature.empty() ? Result<void>() : (*directory)->replace(signatureName(kind), signature);
}

std::optional<std::string> DataDetectorStore::clientSignature(DataDetectorSource kind) const {
    const auto directory = storeDirectory(_files);
    auto signature = directory ? (*directory)->read(signatureName(kind), maxSignatureBytes)
                               : Result<std::string>(std::unexpected(directory.error()));
    return signature ? std::optional(*std::move(signature)) : std::nullopt;
}

}  // namespace orvex::platform
