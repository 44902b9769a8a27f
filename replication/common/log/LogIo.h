#pragma once

#include "base/files/RawFile.h"
#include "base/values/Extent.h"

#include <cstdint>
#include <memory>

class QFile;

namespace Replication {

/// A read function of a log source: the number of bytes put at `destination`, or -1. Fewer bytes
/// than asked for are a failure too; the count then says where the source ended.
using LogIoFunction = std::int32_t (*)(void* source, void* destination, std::uint32_t length);

/// Where logs are read from: a source object and the function that reads it. One log reader thus
/// serves channels, files and memory. A value type; the source object must outlive it.
struct LogIoRead {
    void* source = nullptr;
    LogIoFunction function = nullptr;

    /// Reads exactly `length` bytes, or fails and says in `got` how many there were.
    [[nodiscard]] bool read(void* destination, std::uint32_t length, std::uint32_t& got) const {
        std::int32_t const count = function(source, destination, length);
        got = count > 0 ? static_cast<std::uint32_t>(count) : 0;
        return count >= 0 && got == length;
    }
    [[nodiscard]] bool read(void* destination, std::uint32_t length) const {
        std::uint32_t got = 0;
        return read(destination, length, got);
    }
};

/// Source is a `Morva::Extent`. What is left is its last `available` bytes, which a read moves
/// down. Trace on failure: "Failed to get buffer from message".
std::int32_t LogIoReadBuffer(void* source, void* destination, std::uint32_t length);
/// Source is an open `QFile`. Trace on failure: "Failed to read the data".
std::int32_t LogIoReadQFile(void* source, void* destination, std::uint32_t length);
/// Source is an open `Morva::RawFile`, read at its position. Trace on failure: "Failed to read the
/// data".
std::int32_t LogIoReadRawFile(void* source, void* destination, std::uint32_t length);
/// Source is a `LogReadAhead`. Trace on failure: "Failed to read the data".
std::int32_t LogIoReadAhead(void* source, void* destination, std::uint32_t length);

[[nodiscard]] inline LogIoRead logIo(Morva::Extent& buffer) {
    return {&buffer, LogIoReadBuffer};
}
[[nodiscard]] inline LogIoRead logIo(QFile& file) {
    return {&file, LogIoReadQFile};
}
[[nodiscard]] inline LogIoRead logIo(Morva::RawFile& file) {
    return {&file, LogIoReadRawFile};
}

/// Reads a stream of logs from a file, pipe or socket in large pieces, so that small logs don't
/// cost a system call each. Pieces larger than its buffer go straight to their destination.
/// Not thread-safe.
class LogReadAhead {
public:
    static constexpr std::uint32_t defaultCapacity = 256 * 1024;

    /// The descriptor is not owned. It must be a blocking one.
    explicit LogReadAhead(int descriptor, std::uint32_t capacity = defaultCapacity);
    /// Reads from the file's position on.
    explicit LogReadAhead(Morva::RawFile& file, std::uint32_t capacity = defaultCapacity);

    /// Whether no byte is left: the clean end of a stream when asked between two logs. May read,
    /// and waits for the other end of a pipe. A read error counts as the end; see `lastError`.
    [[nodiscard]] bool atEnd();
    /// errno of the last failed read, 0 if none.
    [[nodiscard]] int lastError() const { return lastError_; }
    /// Bytes handed out so far.
    [[nodiscard]] std::uint64_t position() const { return position_; }

    [[nodiscard]] LogIoRead io() { return {this, LogIoReadAhead}; }

private:
    friend std::int32_t LogIoReadAhead(void* source, void* destination, std::uint32_t length);
    /// Bytes taken over, fewer than `length` only at the end or on an error.
    std::uint32_t read(std::uint8_t* destination, std::uint32_t length);
    std::uint32_t readSource(std::uint8_t* destination, std::uint32_t length);
    bool fill();

    int descriptor_ = -1;
    Morva::RawFile* file_ = nullptr;
    std::unique_ptr<std::uint8_t[]> buffer_;
    std::uint32_t capacity_;
    std::uint32_t begin_ = 0;
    std::uint32_t end_ = 0;
    std::uint64_t position_ = 0;
    int lastError_ = 0;
};

} // namespace Replication
