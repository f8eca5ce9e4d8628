#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/result.h"

namespace orvex::platform {

class FileDescriptor;
class FileManager;

/// What a source of the data-detector store holds.
enum class DataDetectorSource : std::uint8_t { weeklyHints = 2, monthlyHints = 3 };

/// The words that the system's data detectors recognise, one file a source, for any program to read: in the state
/// directory `data-detectors/KIND`, and in `data-detectors/KIND.signature` what it is a copy of, KIND being the
/// source's number. A file without its signature counts as unknown, so a push that was interrupted is repeated.
///
/// Threading: callable from any thread; one push of a source at a time.
class DataDetectorStore {
public:
    explicit DataDetectorStore(FileManager& files) : _files(files) {}

    /// Replaces what the source holds by the content of `file`; null clears it. Durable when it returns. An empty
    /// signature is none.
    Result<void> push(DataDetectorSource kind, const FileDescriptor* file, std::string_view signature);

    /// Of the last push; none when it had none, was not finished, or cannot be read.
    [[nodiscard]] std::optional<std::string> clientSignature(DataDetectorSource kind) const;

private:
    FileManager& _files;
};

}  // namespace orvex::platform
