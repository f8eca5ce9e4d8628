#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "feedback/upload_manager.h"
#include "platform/file_manager.h"

namespace orvex {

class Assembly;

/// Uploads the reports that programs dropped into the directories of CustomFeedback, type by type, and deletes them: a
/// report is delivered at most once. One that is too large becomes a session with an error record instead, counted.
///
/// Life cycle: made for one run. A run that finds a directory missing stops there and never calls back, so that the
/// scheduler ends it. Threading: all on the caller's thread, and it returns when all is done. What is no regular file
/// of our own (a directory, a link, a socket, a FIFO) or has a name that begins with a dot is no report, and stays. A
/// report that may not be read is deleted without upload, counted ("com.kelvar.orvexd.customfeedback.TYPE.unreadable").
class OrvexCustomFeedbackFlusher {
public:
    static constexpr std::uint64_t defaultMaximumSize = 2097152;

    explicit OrvexCustomFeedbackFlusher(Assembly& assembly) : _assembly(assembly) {}

    void flushCustomFeedbackWithCompletionHandler(std::move_only_function<void()> completion);

private:
    /// Whether there is such a directory.
    bool _flushType(platform::Directory& customFeedback, std::string_view type);
    void _flushReport(const UploadManager::Report& report, std::string_view type, std::uint64_t maximumSize);
    void _reject(std::string_view type, std::uint64_t size);
    [[nodiscard]] std::uint64_t _maximumSize(std::string_view type) const;
    void _flushDPFeedback() const;

    Assembly& _assembly;
};

}  // namespace orvex
