#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/orx_error.h"

namespace orvex {

enum class StreamStatus : std::uint8_t {
    notOpen,
    open,
    atEnd,  ///< closed, and everything written has arrived
    error,
};

/// Where bytes go, one after the other. Made open. Threading: one thread at a time.
class OutputStream {
public:
    virtual ~OutputStream() = default;
    /// How many of the bytes, from the first, were taken; -1 when none could be.
    virtual std::int64_t write(std::string_view bytes) = 0;
    virtual void close() = 0;  ///< once more does nothing
    [[nodiscard]] virtual StreamStatus streamStatus() const = 0;
    [[nodiscard]] virtual std::optional<ORXError> streamError() const { return std::nullopt; }
    [[nodiscard]] virtual bool hasSpaceAvailable() const { return true; }
};

/// Keeps what is written.
class MemoryOutputStream : public OutputStream {
public:
    std::int64_t write(std::string_view bytes) override;
    void close() override { _status = StreamStatus::atEnd; }
    [[nodiscard]] StreamStatus streamStatus() const override { return _status; }

    [[nodiscard]] const std::string& bytes() const { return _bytes; }

private:
    std::string _bytes;
    StreamStatus _status = StreamStatus::open;
};

/// Counts what is written and drops it; always open.
class NullStream : public OutputStream {
public:
    std::int64_t write(std::string_view bytes) override;
    void close() override {}
    [[nodiscard]] StreamStatus streamStatus() const override { return StreamStatus::open; }

    [[nodiscard]] std::uint64_t bytesWritten() const { return _bytesWritten; }

private:
    std::uint64_t _bytesWritten = 0;
};

/// Passes on what is written in pieces of one size, the last one shorter, however it came.
class PieceOutputStream : public OutputStream {
public:
    /// `target` outlives this, and is closed by `close`.
    PieceOutputStream(OutputStream& target, std::size_t pieceBytes);

    std::int64_t write(std::string_view bytes) override;
    void close() override;
    [[nodiscard]] StreamStatus streamStatus() const override;
    [[nodiscard]] std::optional<ORXError> streamError() const override { return _target.streamError(); }

private:
    bool _passOn(std::string_view piece);

    OutputStream& _target;
    const std::size_t _pieceBytes;
    std::string _gathered;  ///< less than a piece
    bool _failed = false;
};

}  // namespace orvex
