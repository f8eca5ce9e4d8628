#include <google/protobuf/stubs/logging.h>

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "core/feedback_records.pb.h"
#include "feedback/session_file.h"

/// What is read of a damaged file makes a file without damage, with the same records.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orvex;
    const google::protobuf::LogSilencer quiet;
    CXClientSession session;
    (void)decodeSessionFile({reinterpret_cast<const char*>(data), size}, session);
    std::string frames;
    for (const auto& record : session.feedbacks()) frames += encodeSessionRecord(record);
    const int records = session.feedbacks_size();
    session.clear_feedbacks();
    CXClientSession again;
    if (decodeSessionFile(encodeSessionHeader(session) + frames, again) != 0) std::abort();
    if (again.feedbacks_size() != records) std::abort();
    return 0;
}
