#pragma once

#include "peers/source/LogSink.h"

#include <memory>
#include <vector>

struct iovec;

namespace Replication {

/// Writes logs to a file, pipe or socket: small ones gathered in a buffer, large data straight from
/// where it lies.
class LogFileSink : public LogSink {
public:
    static constexpr std::uint32_t defaultBuffer = 256 * 1024;

    /// The descriptor is not owned. It must be a blocking one.
    explicit LogFileSink(int descriptor, std::uint32_t bufferSize = defaultBuffer);
    /// What was not flushed is lost.
    ~LogFileSink() override;

    [[nodiscard]] std::uint8_t* dataSpace(LogBuilder const& builder, std::uint32_t size) override;
    [[nodiscard]] bool put(LogBuilder& builder) override;
    [[nodiscard]] bool flush() override;

    /// errno of the write that failed, 0 if none did. No more is written after a failure.
    [[nodiscard]] int error() const { return error_; }
    /// Bytes handed over, of which some may still stand in the buffer.
    [[nodiscard]] std::uint64_t bytes() const { return bytes_; }

private:
    [[nodiscard]] bool writeAll(iovec* ranges, int count);

    int descriptor_;
    std::vector<std::uint8_t> buffer_;
    std::size_t used_ = 0;
    std::unique_ptr<std::uint8_t[]> data_;
    std::uint32_t dataCapacity_ = 0;
    std::uint64_t bytes_ = 0;
    int error_ = 0;
};

} // namespace Replication
