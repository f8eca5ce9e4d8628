#pragma once

#include <memory>

#include "platform/background_session.h"
#include "platform/linux/transfer_spool.h"

namespace orvex::platform {

/// The spool's file of a download that has ended well.
class SpooledDownload final : public DownloadedFile {
public:
    static Result<std::unique_ptr<SpooledDownload>> open(const std::shared_ptr<TransferSpool>& spool,
                                                         std::uint64_t number);

    [[nodiscard]] std::string path() const override { return _path; }
    [[nodiscard]] std::uint64_t size() const override { return _size; }
    [[nodiscard]] Result<void> moveTo(Directory& directory, std::string_view name) override;

private:
    SpooledDownload(OpenFile file, std::string path);

    // Constant after construction.
    const FileDescriptor _file;
    const std::uint64_t _size;
    const std::string _path;
};

}  // namespace orvex::platform
