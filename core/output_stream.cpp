#include "core/output_stream.h"

namespace orvex {

std::int64_t MemoryOutputStream::write(std::string_view bytes) {
    if (_status != StreamStatus::open) return -1;
    _bytes += bytes;
    return std::ssize(bytes);
}

std::int64_t NullStream::write(std::string_view bytes) {
    _bytesWritten += bytes.size();
    return std::ssize(bytes);
}

PieceOutputStream::PieceOutputStream(OutputStream& target, std::size_t pieceBytes)
    : _target(target),
      _pieceBytes(pieceBytes) {
    _gathered.reserve(pieceBytes);
}

std::int64_t PieceOutputStream::write(std::string_view bytes) {
    if (streamStatus() != StreamStatus::open) return -1;
    for (auto rest = bytes; !rest.empty();) {
        const auto taken = rest.substr(0, _pieceBytes - _gathered.size());
        rest.remove_prefix(taken.size());
        if (taken.size() == _pieceBytes) {  // nothing gathered: passed on as it lies
            if (!_passOn(taken)) return -1;
            continue;
        }
        _gathered += taken;
        if (_gathered.size() < _pieceBytes) continue;
        if (!_passOn(_gathered)) return -1;
        _gathered.clear();
    }
    return std::ssize(bytes);
}

void PieceOutputStream::close() {
    if (!_failed && !_gathered.empty()) static_cast<void>(_passOn(_gathered));
    _gathered.clear();
    _target.close();
}

StreamStatus PieceOutputStream::streamStatus() const { return _failed ? StreamStatus::error : _target.streamStatus(); }

bool PieceOutputStream::_passOn(std::string_view piece) {
    _failed = _target.write(piece) != std::ssize(piece);
    return !_failed;
}

}  // namespace orvex
