#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// The bytes of a session file: docs/session-file.md. Pure functions.
namespace orvex {

class CXClientSession;
class CXOrvexFeedback;

/// What a file begins with: the session, which has no records yet.
[[nodiscard]] std::string encodeSessionHeader(const CXClientSession& session);

/// A record as it is appended: a frame, which is the field `feedbacks` of a CXClientSession.
[[nodiscard]] std::string encodeSessionRecord(const CXOrvexFeedback& record);

/// Reads what can be read into `session`, which is empty; returns how many places of the file could not.
///
/// A frame that is cut off at the end costs itself. Damage inside a record costs that record; in a frame's key or
/// length, the records up to the next frame that is a record as a whole; in the header, fields of it.
[[nodiscard]] std::size_t decodeSessionFile(std::string_view bytes, CXClientSession& session);

}  // namespace orvex
